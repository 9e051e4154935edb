// A new socket in place of one that failed.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "driver_can_fixture.h"
#include "eventually.h"
#include "far_end.h"
#include "output_capture.h"
#include "processes.h"

namespace {

TEST_F(DriverCanBus, RecoveryOnAHealthyBusKeepsHandlerAndFiltersOnly) {
  std::atomic<int> heartbeats{0};
  can_.SetFrameHandler([&heartbeats](const CanFrame& frame) {
    heartbeats += frame.can_id == 0x701 ? 1 : 0;
    return frame.can_id == 0x701;
  });
  SetFilters(can_, {{0x700, 0x780}, {0x181, 0x7FF}});
  far_end_.Send("181#01");
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 1; }));
  const std::size_t descriptors = support::OpenDescriptors();
  const std::size_t threads = support::Threads();
  OutputCapture output;
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(WithoutNumbers(output.Out()), kRecovered);
  output.Stop();
  EXPECT_TRUE(support::AreConsecutive(support::LogNumbers(output.Out())));
  EXPECT_EQ(can_.GetReadQueueSize(), 0U);
  EXPECT_EQ(can_.GetCanError(), 0U);
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  EXPECT_TRUE(support::WaitThreads(threads));
  for (const char* frame : {"701#05", "182#02", "181#03", "702#05"}) {
    far_end_.Send(frame);
  }
  EXPECT_EQ(Take(can_, 2), (Texts{"181#03", "702#05"}));
  EXPECT_EQ(heartbeats, 1);
}

TEST_F(DriverCanBus, RecoveryUnlatchesWriting) {
  bus::SetDown("can0");
  WaitForReadError();
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(Write(can_, "123#"));
  }
  ASSERT_EQ(can_.GetCanError(), 5U);
  bus::SetUp("can0");
  OutputCapture output;
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(WithoutNumbers(output.Out()), kRecovered);
  EXPECT_EQ(can_.GetCanError(), 0U);
  EXPECT_EQ(can_.GetWriteErrorCount(), 0U);
  far_end_.Expect("123#");
  EXPECT_TRUE(Write(can_, "123#"));
  far_end_.WaitScript();
}

TEST_F(DriverCanBus, RecoveryWithTheInterfaceAbsentFailsUntilItIsBack) {
  far_end_.Send("181#01");
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 1; }));
  const std::size_t descriptors = support::OpenDescriptors();
  const std::size_t threads = support::Threads();
  bus::DeletePair();
  WaitForReadError();
  OutputCapture output;
  for (int i = 0; i < 3; ++i) {
    EXPECT_FALSE(can_.CanRecover());
    EXPECT_EQ(can_.GetCanError(), 2U);
    EXPECT_EQ(can_.GetReadQueueSize(), 0U);
  }
  EXPECT_EQ(WithoutNumbers(output.Out()),
            Repeated("[INFO] Starting CAN recovery...\n"
                     "[INFO] Initializing CAN socket for device: can0\n"
                     "[ERROR] get can interface index failed, errno: 19\n"
                     "[ERROR] Failed to initialize CAN socket during recovery\n",
                     3));
  output.Clear();
  EXPECT_TRUE(support::WaitThreads(threads - 1));
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] write error, CAN socket is not initialized\n");
  EXPECT_EQ(can_.GetCanError(), 5U);
  output.Clear();
  bus::CreatePair();
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(WithoutNumbers(output.Out()), kRecovered);
  EXPECT_EQ(can_.GetCanError(), 0U);
  output.Stop();
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  bus::FarEnd far_end;
  far_end.Send("182#02");
  EXPECT_EQ(Take(can_, 1), Texts{"182#02"});
}

TEST_F(DriverCanOpen, RecoveryOpensAnObjectWhoseConstructionFailed) {
  bus::DeletePair();
  DriverCan can("can0");
  EXPECT_EQ(can.GetCanError(), 2U);
  SetFilters(can, {{0x181, 0x7FF}});
  bus::CreatePair();
  EXPECT_TRUE(can.CanRecover());
  EXPECT_EQ(can.GetCanError(), 0U);
  bus::FarEnd far_end;
  far_end.Send("182#02");
  far_end.Send("181#01");
  EXPECT_EQ(Take(can, 1), Texts{"181#01"});
}

TEST_F(DriverCanBus, RecoveryOnADownInterfaceOpensAndReportsTheReadError) {
  bus::SetDown("can0");
  WaitForReadError();
  OutputCapture output;
  EXPECT_TRUE(can_.CanRecover());
  WaitForReadError();
  EXPECT_EQ(support::Lines(WithoutNumbers(output.Out())).size(), 4U);
  EXPECT_NE(output.Out().find("can raw socket read failed, errno: 100\n"), std::string::npos);
  bus::SetUp("can0");
  far_end_.Send("181#01");
  EXPECT_EQ(Take(can_, 1), Texts{"181#01"});
}

TEST_F(DriverCanOpen, RecoveryWithoutADescriptorIsError1) {
  const support::ProcessResult result = support::RunForked([] {
    DriverCan can("can0");
    AllowDescriptors(3);
    EXPECT_FALSE(can.CanRecover());
    std::printf("error %u\n", can.GetCanError());
    std::fflush(stdout);
    AllowDescriptors(64);
    EXPECT_TRUE(can.CanRecover());
    std::printf("error %u\n", can.GetCanError());
    std::fflush(stdout);
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "socket can create error!\n: Too many open files\n");
  EXPECT_EQ(WithoutNumbers(result.out),
            std::string(kConstructed) +
                "[INFO] Starting CAN recovery...\n"
                "[INFO] Initializing CAN socket for device: can0\n"
                "[ERROR] Failed to create CAN socket for device: can0\n"
                "[ERROR] Failed to initialize CAN socket during recovery\n"
                "error 1\n" +
                kRecovered + "error 0\n" + kDestroyed);
}

TEST_F(DriverCanFilters, RecoveryThatCannotRestoreFiltersWritesButDoesNotRead) {
  SetFilters(can_, kTooManyFilters);
  const std::size_t descriptors = support::OpenDescriptors();
  const std::size_t threads = support::Threads();
  OutputCapture output;
  EXPECT_FALSE(can_.CanRecover());
  EXPECT_EQ(WithoutNumbers(output.Out()),
            "[INFO] Starting CAN recovery...\n"
            "[INFO] Initializing CAN socket for device: can0\n"
            "[ERROR] restore CAN filters failed, errno: 22\n"
            "[ERROR] Failed to restore CAN filters during recovery\n");
  output.Stop();
  EXPECT_EQ(can_.GetCanError(), 2U);
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  EXPECT_TRUE(support::WaitThreads(threads - 1));
  EXPECT_TRUE(Write(can_, "321#"));
  EXPECT_EQ(far_end_.Frames(), Texts{"321#"});
  EXPECT_EQ(Passing(0), Texts{});

  SetFilters(can_, {{0x123, 0x7FF}});
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(can_.GetCanError(), 0U);
  EXPECT_EQ(Passing(1), Texts{"123#01"});
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

TEST_F(DriverCanBus, TwoRecoveriesAtOnceRunOneAfterTheOther) {
  const std::size_t descriptors = support::OpenDescriptors();
  const std::size_t threads = support::Threads();
  OutputCapture output;
  std::thread other([this] { EXPECT_TRUE(can_.CanRecover()); });
  EXPECT_TRUE(can_.CanRecover());
  other.join();
  EXPECT_EQ(WithoutNumbers(output.Out()), Repeated(kRecovered, 2));
  output.Stop();
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
  EXPECT_TRUE(support::WaitThreads(threads));
  far_end_.Send("181#01");
  EXPECT_EQ(Take(can_, 1), Texts{"181#01"});
}

TEST_F(DriverCanBus, WritersMayGoOnDuringRecoveries) {
  std::atomic<bool> writing{true};
  std::atomic<int> good{0};
  OutputCapture output;
  std::vector<std::thread> writers;
  for (int i = 0; i < 2; ++i) {
    writers.emplace_back([&] {
      while (writing) {
        good += Write(can_, "123#") ? 1 : 0;
        CanFrame ignored;
        can_.GetCanFrame(ignored);
        std::this_thread::sleep_for(std::chrono::microseconds(200));
      }
    });
  }
  for (int i = 0; i < 30; ++i) {
    EXPECT_TRUE(can_.CanRecover());
    std::this_thread::sleep_for(milliseconds(3));
  }
  writing = false;
  for (std::thread& writer : writers) {
    writer.join();
  }
  EXPECT_GT(good, 0);
  EXPECT_TRUE(far_end_.WaitFrames(static_cast<std::size_t>(good)));
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(can_.GetCanError(), 0U);
  far_end_.Forget();
  EXPECT_TRUE(Write(can_, "321#"));
  EXPECT_TRUE(far_end_.WaitFrames(1));
  EXPECT_EQ(far_end_.Frames(), Texts{"321#"});
}

}  // namespace
