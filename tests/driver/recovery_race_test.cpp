// What other threads do while a recovery runs. The library locks through the C library: this binary
// has a say at each lock, so that the one moment that matters is met every time.
#include <dlfcn.h>
#include <driver_can.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "processes.h"

namespace {

// Runs before the calling thread takes the lock that is this many locks away.
thread_local int t_locks_to_go = 0;
thread_local const std::function<void()>* t_before_lock = nullptr;

void BeforeLock() {
  if (t_before_lock != nullptr && --t_locks_to_go == 0) {
    (*std::exchange(t_before_lock, nullptr))();
  }
}

}  // namespace

extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  static const auto original =
      reinterpret_cast<int (*)(pthread_mutex_t*)>(::dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  BeforeLock();
  return original(mutex);
}

namespace {

constexpr std::uint32_t kNarrow[] = {0x581, 0x7FF};

class RecoveryRaceTest : public bus::BusTest {};

// Between the look at the stored filters and their way to the socket: an SDO transfer that ends
// there lets every frame in again, and the socket must not be left deaf.
TEST_F(RecoveryRaceTest, TheFiltersStoredLastAreInForceAfterARecovery) {
  for (int lock = 1; lock <= 2; ++lock) {
    SCOPED_TRACE(lock);
    DriverCan can("can0");
    bus::FarEnd far_end;
    can.CanFiltersConfig(kNarrow, sizeof(kNarrow));
    bool met = false;
    const std::function<void()> end_of_a_transfer = [&] {
      met = true;
      can.ClearCanFilterRules();
    };
    t_locks_to_go = lock;
    t_before_lock = &end_of_a_transfer;
    EXPECT_TRUE(can.ApplyCurrentFilters());
    t_before_lock = nullptr;
    EXPECT_TRUE(met);
    Queue(can, far_end, {"181#01", "701#05"});
  }
}

// Wherever a stop meets a recovery, the answer is not that of an object that hears nothing.
TEST_F(RecoveryRaceTest, AStopInBetweenLeavesNoDeafObjectThatAnswersTrue) {
  bool met = true;
  int cut_short = 0;
  for (int lock = 1; met; ++lock) {
    SCOPED_TRACE(lock);
    ASSERT_LT(lock, 100);
    DriverCan can("can0");
    bus::FarEnd far_end;
    can.ClearCanFilterRules();
    met = false;
    std::size_t threads = 0;  // when the stop came
    const std::function<void()> stop = [&] {
      met = true;
      threads = support::Threads();
      can.StopReading();
    };
    t_locks_to_go = lock;
    t_before_lock = &stop;
    const bool recovered = can.CanRecover();
    t_before_lock = nullptr;
    if (!recovered) {
      ++cut_short;
      EXPECT_NE(can.GetCanError(), 0U);
      EXPECT_TRUE(support::WaitThreads(2)) << "this one and the far end's";
      EXPECT_TRUE(can.CanRecover());
      EXPECT_EQ(can.GetCanError(), 0U);
    }
    far_end.Send("181#01");
    far_end.Send("701#05");
    // Unless the reader was there: a stop after the recovery. On a busy machine it takes a while to
    // be gone.
    EXPECT_TRUE(Eventually([&] {
      const bool stopped_afterwards = recovered && met && threads == 3 && support::Threads() == 2;
      return can.GetReadQueueSize() == 2 || stopped_afterwards;
    }));
  }
  EXPECT_GT(cut_short, 1);
}

}  // namespace
