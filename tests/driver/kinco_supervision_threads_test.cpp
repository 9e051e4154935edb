// How the error-parsing loop ends, and its threads.
#include <gtest/gtest.h>
#include <kinco_driver.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "eventually.h"
#include "far_end.h"
#include "kinco_fixture.h"
#include "kinco_supervision_fixture.h"
#include "processes.h"

namespace {

TEST_F(KincoLoopTest, IsDestroyedWhileRunningWithin200MillisecondsOnASilentBus) {
  const std::size_t threads = support::Threads() - 1;
  const auto took = FastestOf5([&] {
    driver_ = std::make_unique<KincoDriver>("can0", 10000);
    driver_->StartErrorParsingLoop();
    std::this_thread::sleep_for(milliseconds(30));
    return Duration([&] { driver_.reset(); });
  });
  std::printf("destroyed after %d ms\n", static_cast<int>(took.count()));
  EXPECT_LT(took, milliseconds(200));
  EXPECT_TRUE(support::WaitThreads(threads));
}

TEST_F(KincoLoopTest, IsDestroyedRightAfterItsStart) {
  for (int i = 0; i < 20; ++i) {
    driver_ = std::make_unique<KincoDriver>("can0", 10000);
    driver_->StartErrorParsingLoop();
  }
}

TEST_F(KincoLoopTest, IsDestroyedWhileFramesArrive) {
  bus::FarEnd far_end;
  std::atomic<bool> sending{true};
  std::thread nodes([&] {
    while (sending) {
      far_end.Send(kNode1 + kReadyStatus);
      far_end.Send("701#05");
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  const auto took = FastestOf5([&] {
    driver_ = std::make_unique<KincoDriver>("can0", 10000);
    driver_->AddHeartbeatId(0x701);
    driver_->StartErrorParsingLoop();
    EXPECT_TRUE(Shows(1, DriverStatus::Ready));
    return Duration([&] { driver_.reset(); });
  });
  sending = false;
  nodes.join();
  EXPECT_LT(took, milliseconds(200));
}

TEST_F(KincoLoopTest, StopsWithinACycleOrTwo) {
  const auto took = FastestOf5([&] {
    driver_->StartErrorParsingLoop();
    std::this_thread::sleep_for(milliseconds(20));
    return Duration([&] { driver_->StopErrorParsingLoop(); });
  });
  EXPECT_LT(took, milliseconds(100));
}

// --- Threads -------------------------------------------------------------------------------------

TEST_F(KincoLoopTest, ItsThreadsBlockTheSignalsOfTheHost) {
  driver_->StartErrorParsingLoop();
  std::this_thread::sleep_for(milliseconds(50));
  int threads = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    if (task.path().filename() == std::to_string(::getpid())) {
      continue;
    }
    std::ifstream status(task.path() / "status");
    for (std::string line; std::getline(status, line);) {
      if (line.rfind("SigBlk:", 0) == 0) {
        ++threads;
        const std::uint64_t blocked = std::stoull(line.substr(7), nullptr, 16);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD}) {
          EXPECT_NE(blocked & (std::uint64_t{1} << (signal - 1)), 0U) << signal;
        }
      }
    }
  }
  EXPECT_GE(threads, 3) << "loop, its reader, the reader of the drive";
  EXPECT_EQ(support::Threads(), 4U) << "and the host's";
}

TEST_F(KincoLoopTest, SeveralObjectsRunAtOnce) {
  bus::FarEnd far_end;
  for (std::uint8_t node = 1; node <= 4; ++node) {
    far_end.AnswerSdo(node).Object(0x6041, 0, 0x37, 2);
  }
  std::vector<std::unique_ptr<KincoDriver>> drives;
  for (std::uint32_t node = 1; node <= 4; ++node) {
    drives.push_back(std::make_unique<KincoDriver>("can0", 10000));
    SetWait(*drives.back(), 20);
    drives.back()->AddHeartbeatId(0x700 + node);
    drives.back()->StartErrorParsingLoop();
  }
  std::atomic<bool> running{true};
  std::thread nodes([&] {
    for (int i = 0; running; ++i) {
      for (const char* node : {"481#", "482#", "483#", "484#"}) {
        far_end.Send(std::string(node) + (i % 20 < 10 ? kReleasedStatus : kReadyStatus));
      }
      std::this_thread::sleep_for(milliseconds(2));
    }
  });
  std::vector<std::thread> hosts;
  for (std::uint8_t node = 1; node <= 4; ++node) {
    hosts.emplace_back([&, node] {
      KincoDriver& drive = *drives[node - 1U];
      const auto end = bus::Clock::now() + milliseconds(1000);
      while (bus::Clock::now() < end) {
        drive.SetSpeed(node, 100);
        drive.GetDriverStatus(node);
        drive.GetDriverStatusDetails(node);
        drive.GetErrorCode(node);
        std::uint8_t from = 0;
        double rpm = 0;
        int counts = 0;
        drive.GetSpeed(from, rpm, counts);
        std::this_thread::sleep_for(milliseconds(1));
      }
    });
  }
  for (std::thread& host : hosts) {
    host.join();
  }
  running = false;
  nodes.join();
  for (const char* node : {"481#", "482#", "483#", "484#"}) {
    far_end.Send(std::string(node) + kReadyStatus);
  }
  for (std::uint8_t node = 1; node <= 4; ++node) {
    KincoDriver& drive = *drives[node - 1U];
    EXPECT_TRUE(Eventually([&] { return drive.GetDriverStatus(node) == DriverStatus::Ready; }));
  }
}

}  // namespace
