// The receive thread ends, and nothing hangs meanwhile.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "driver_can_fixture.h"
#include "eventually.h"
#include "output_capture.h"
#include "processes.h"

namespace {

TEST_F(DriverCanBus, FramesQueuedBeforeTheStopCanBeTakenAfterIt) {
  far_end_.Send("181#01");
  far_end_.Send("182#02");
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 2; }));
  can_.StopReading();
  far_end_.Send("183#03");
  EXPECT_EQ(Take(can_, 2), (Texts{"181#01", "182#02"}));
}

TEST_F(DriverCanBus, StopClosesTheSocketAndEndsTheThread) {
  const std::size_t descriptors = support::OpenDescriptors();
  const std::size_t threads = support::Threads();
  OutputCapture output;
  can_.StopReading();
  EXPECT_EQ(output.Out(), "");
  output.Stop();
  EXPECT_EQ(support::OpenDescriptors(), descriptors - 1);
  EXPECT_TRUE(support::WaitThreads(threads - 1));
  can_.StopReading();
  EXPECT_EQ(support::OpenDescriptors(), descriptors - 1);
}

TEST_F(DriverCanBus, StopsWithin100MsOnASilentBus) {
  const auto prepare = [this] {
    EXPECT_TRUE(can_.CanRecover());
    WaitForReader();
  };
  EXPECT_LT(FastestTimeOf("stop on a silent bus", prepare, [this] { can_.StopReading(); }),
            kPromised);
}

TEST_F(DriverCanBus, StopsWithin100MsOnADownInterface) {
  const auto prepare = [this] {
    bus::SetUp("can0");
    EXPECT_TRUE(can_.CanRecover());
    bus::SetDown("can0");
    WaitForReadError();
  };
  EXPECT_LT(FastestTimeOf("stop on a down interface", prepare, [this] { can_.StopReading(); }),
            kPromised);
}

TEST_F(DriverCanBus, StopsWithin100MsOnADeletedInterface) {
  const auto prepare = [this] {
    bus::FreshPair();
    EXPECT_TRUE(can_.CanRecover());
    bus::DeletePair();
    WaitForReadError();
  };
  EXPECT_LT(FastestTimeOf("stop on a deleted interface", prepare, [this] { can_.StopReading(); }),
            kPromised);
}

TEST_F(DriverCanBus, StopsWithin100MsOnABusyBus) {
  std::atomic<bool> sending{true};
  std::thread sender([&] {
    while (sending) {
      far_end_.Send("181#01");
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  OutputCapture output;
  const auto prepare = [&] {
    EXPECT_TRUE(can_.CanRecover());
    EXPECT_TRUE(Eventually([this] { return can_.GetReadQueueSize() > 10; }));
    output.Clear();
  };
  EXPECT_LT(FastestTimeOf("stop on a busy bus", prepare, [this] { can_.StopReading(); }),
            kPromised);
  EXPECT_EQ(output.Out(), "");
  EXPECT_EQ(can_.GetCanError(), 0U);
  sending = false;
  sender.join();
}

TEST_F(DriverCanBus, RecoversWithin100MsOnASilentBus) {
  EXPECT_LT(FastestTimeOf(
                "recovery on a silent bus", [this] { WaitForReader(); },
                [this] { EXPECT_TRUE(can_.CanRecover()); }),
            kPromised);
}

TEST_F(DriverCanBus, RecoversWithin100MsOnADownInterface) {
  bus::SetDown("can0");
  EXPECT_LT(FastestTimeOf(
                "recovery on a down interface", [this] { WaitForReadError(); },
                [this] { EXPECT_TRUE(can_.CanRecover()); }),
            kPromised);
}

TEST_F(DriverCanBus, FailsToRecoverOnADeletedInterfaceWithoutHanging) {
  bus::DeletePair();
  // Looking an absent interface up takes the kernel long: for root it asks modprobe first.
  EXPECT_LT(TimeOf("recovery on a deleted interface", [this] { EXPECT_FALSE(can_.CanRecover()); }),
            kHangs);
}

TEST_F(DriverCanOpen, StopsAndRecoversWhenTheHostBlocksEverySignal) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  {
    DriverCan can("can0");
    const auto wait_for_reader = [] { std::this_thread::sleep_for(milliseconds(50)); };
    EXPECT_LT(FastestTimeOf("recovery, signals blocked", wait_for_reader,
                            [&] { EXPECT_TRUE(can.CanRecover()); }),
              kPromised);
    const auto restart = [&] {
      EXPECT_TRUE(can.CanRecover());
      wait_for_reader();
    };
    EXPECT_LT(FastestTimeOf("stop, signals blocked", restart, [&] { can.StopReading(); }),
              kPromised);
  }
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, &before, &after);
  sigdelset(&all, SIGKILL);
  sigdelset(&all, SIGSTOP);
  for (int signal = 1; signal <= SIGRTMAX; ++signal) {
    EXPECT_EQ(sigismember(&after, signal), sigismember(&all, signal)) << signal;
  }
}

TEST_F(DriverCanOpen, IsDestroyedWithin100MsOnASilentBus) {
  std::unique_ptr<DriverCan> can;
  const auto prepare = [&] {
    can = std::make_unique<DriverCan>("can0");
    std::this_thread::sleep_for(milliseconds(50));
  };
  EXPECT_LT(FastestTimeOf("destruction on a silent bus", prepare, [&] { can.reset(); }), kPromised);
}

TEST_F(DriverCanBus, StopWaitsForAHandlerThatRunsAndDropsWhatComesAfter) {
  std::atomic<bool> finished{false};
  Gate gate;
  can_.SetFrameHandler([&](const CanFrame&) {
    gate.Pass();
    // Sleeping is where a thread could be cancelled, but not this one: it is not reading.
    std::this_thread::sleep_for(milliseconds(60));
    finished = true;
    return false;
  });
  far_end_.Send("181#01");
  far_end_.Send("182#02");
  ASSERT_TRUE(gate.WaitInside());
  std::thread opener([&] {
    std::this_thread::sleep_for(milliseconds(60));
    gate.Open();
  });
  can_.StopReading();
  EXPECT_TRUE(finished);
  opener.join();
  EXPECT_EQ(Take(can_, 1), Texts{"181#01"});
  can_.SetFrameHandler({});
  EXPECT_TRUE(can_.CanRecover());
  far_end_.Send("183#03");
  EXPECT_EQ(Take(can_, 1), Texts{"183#03"});
}

TEST_F(DriverCanBus, StopsWhileWritersWaitForAFullSendBuffer) {
  bus::TrafficControl(kBusThatTakesNothing);
  std::vector<std::thread> writers;
  for (int i = 0; i < 6; ++i) {
    writers.emplace_back([this] {
      while (can_.GetCanError() != 5) {
        Write(can_, "123#");
      }
    });
  }
  EXPECT_TRUE(Eventually([this] { return can_.GetWriteErrorCount() > 0; }));
  const std::uint32_t failed_before = can_.GetWriteErrorCount();
  EXPECT_LT(TimeOf("stop while writers wait", [this] { can_.StopReading(); }), kHangs);
  for (std::thread& writer : writers) {
    writer.join();
  }
  // The stop waits for the write that is under way, not for those that queue up behind it.
  EXPECT_LE(can_.GetWriteErrorCount(), failed_before + 2);
}

TEST_F(DriverCanOpen, LeavesNoDescriptorAndNoThreadBehind) {
  { const DriverCan can("can0"); }  // whatever the first one needs for good
  const std::size_t descriptors = support::OpenDescriptors();
  OutputCapture output;
  for (int i = 0; i < 200; ++i) {
    DriverCan can("can0");
    ASSERT_EQ(can.GetCanError(), 0U);
    if (i % 4 == 0) {
      EXPECT_TRUE(can.CanRecover());
    }
    if (i % 4 == 1) {
      can.StopReading();
    }
  }
  output.Stop();
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  EXPECT_TRUE(support::WaitThreads(1));
}

}  // namespace
