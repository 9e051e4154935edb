// When threads wake that sleep until a point in time, as they see it themselves: the program
// replaces clock_nanosleep(), also for the library.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>

#include "report.h"

void SleepUntil(std::chrono::steady_clock::time_point time);

struct Wakes {
  Figure late_us;          // behind the time asked for
  double allocations = 0;  // by the thread, from its first wake to its last
};

// Notes, while it exists, the wakes of every thread of this process. One at a time.
class WakeRecord {
 public:
  WakeRecord();
  ~WakeRecord();
  WakeRecord(const WakeRecord&) = delete;
  WakeRecord& operator=(const WakeRecord&) = delete;

  // Of this thread; of the one thread that is another.
  Wakes Of(pthread_t thread) const { return Collect(thread, true); }
  Wakes OfTheOther(pthread_t thread) const { return Collect(thread, false); }

 private:
  static Wakes Collect(pthread_t thread, bool itself);
};
