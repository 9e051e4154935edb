#include "wakes.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <stdexcept>

#include "allocations.h"

namespace {

constexpr std::int64_t kNsPerSecond = 1'000'000'000;

struct Wake {
  pthread_t thread;
  std::int64_t late_ns;
  std::uint64_t allocations;  // by the thread until then
};

// Of fixed size: a thread that wakes must not allocate.
std::array<Wake, 65'536> g_wakes;
std::atomic<std::size_t> g_count{0};
std::atomic<bool> g_recording{false};

std::int64_t Ns(const timespec& time) { return time.tv_sec * kNsPerSecond + time.tv_nsec; }

}  // namespace

// The dynamic linker binds the library's calls to this too.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's are reserved
int clock_nanosleep(clockid_t clock, int flags, const timespec* until, timespec* rest) {
  const long result = ::syscall(SYS_clock_nanosleep, clock, flags, until, rest);
  if (result != 0) {
    return errno;
  }
  if (g_recording && flags == TIMER_ABSTIME) {
    timespec now = {};
    ::clock_gettime(clock, &now);
    const std::size_t index = g_count.fetch_add(1);
    if (index < g_wakes.size()) {
      g_wakes[index] = {::pthread_self(), Ns(now) - Ns(*until), ThreadAllocations()};
    }
  }
  return 0;
}

void SleepUntil(std::chrono::steady_clock::time_point time) {
  const std::int64_t ns = std::chrono::nanoseconds(time.time_since_epoch()).count();
  const timespec until = {ns / kNsPerSecond, ns % kNsPerSecond};
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

WakeRecord::WakeRecord() {
  g_count = 0;
  g_recording = true;
}

WakeRecord::~WakeRecord() { g_recording = false; }

Wakes WakeRecord::Collect(pthread_t thread, bool itself) {
  Wakes wakes;
  std::optional<std::uint64_t> allocations_before;
  const std::size_t count = std::min(g_count.load(), g_wakes.size());
  for (std::size_t i = 0; i < count; ++i) {
    const Wake& wake = g_wakes[i];
    if ((::pthread_equal(wake.thread, thread) != 0) == itself) {
      allocations_before = allocations_before.value_or(wake.allocations);
      wakes.late_us.Add(static_cast<double>(wake.late_ns) / 1e3);
      wakes.allocations = static_cast<double>(wake.allocations - *allocations_before);
    }
  }
  if (wakes.late_us.empty()) {
    throw std::runtime_error("no thread sleeps until a point in time");
  }
  return wakes;
}
