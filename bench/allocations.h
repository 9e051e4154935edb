// Counts what the whole process allocates, the shared library included.
#pragma once

#include <cstdint>

// Calls of operator new so far, by any thread.
std::uint64_t Allocations();

// By the calling thread.
std::uint64_t ThreadAllocations();

// Bytes of heap in use, what the allocator adds to each block included.
double HeapBytes();
