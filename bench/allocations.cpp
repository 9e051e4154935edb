#include "allocations.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<std::uint64_t> g_allocations{0};
thread_local std::uint64_t t_allocations = 0;
}  // namespace

// The dynamic linker binds the library's calls to these too. The other forms of new and delete end
// here by default.
void* operator new(std::size_t size) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  ++t_allocations;
  if (void* memory = std::malloc(size != 0 ? size : 1)) {
    return memory;
  }
  throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

std::uint64_t Allocations() { return g_allocations.load(std::memory_order_relaxed); }

std::uint64_t ThreadAllocations() { return t_allocations; }

double HeapBytes() {
  const struct mallinfo2 heap = ::mallinfo2();
  return static_cast<double>(heap.uordblks + heap.hblkhd);
}
