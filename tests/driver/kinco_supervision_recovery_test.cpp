// The error-parsing loop and a socket that is lost.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "eventually.h"
#include "far_end.h"
#include "kinco_fixture.h"
#include "kinco_supervision_fixture.h"
#include "log_sources.h"
#include "output_capture.h"

namespace {

constexpr auto kAttempt = "[WARN] Error parsing CAN socket error, attempting recovery\n";
constexpr auto kFailed = "[ERROR] Error parsing CAN socket recovery failed\n";

TEST_F(KincoLoopTest, RecoversFromAnInterfaceThatWasDown) {
  bus::FarEnd far_end;
  driver_->StartErrorParsingLoop();
  far_end.Send(kNode1 + kReadyStatus);
  ASSERT_TRUE(Shows(1, DriverStatus::Ready));
  support::OutputCapture capture;
  bus::SetDown("can0");
  const std::string words = WaitForText(capture, "attempting recovery");
  bus::SetUp("can0");
  capture.Stop();
  EXPECT_NE(words.find(kAttempt), std::string::npos);
  EXPECT_TRUE(Eventually([&] {
    far_end.Send(kNode1 + "102318000000");
    std::this_thread::sleep_for(milliseconds(20));
    return driver_->GetDriverStatus(1) == DriverStatus::Fault;
  })) << "without the help of the host";
  support::OutputCapture afterwards;
  std::this_thread::sleep_for(milliseconds(100));
  afterwards.Stop();
  EXPECT_EQ(afterwards.Out().find("Error parsing"), std::string::npos) << "recovered for good";
}

TEST_F(KincoLoopTest, RecoversFromAnInterfaceThatWasAway) {
  StartLoop();
  support::OutputCapture capture;
  bus::DeletePair();
  const auto count = [&](const std::string& words) {
    const std::string out = WithoutNumbers(capture.Out());
    int found = 0;
    for (std::size_t at = out.find(words); at != std::string::npos; at = out.find(words, at + 1)) {
      ++found;
    }
    return found;
  };
  ASSERT_TRUE(Eventually([&] { return count(kFailed) == 1; }));
  const auto first = bus::Clock::now();
  // The interface is down for a moment before it is away: then an attempt succeeds.
  const int attempts = count(kAttempt);
  ASSERT_TRUE(Eventually([&] { return count(kFailed) == 2; }));
  const auto second = bus::Clock::now();
  EXPECT_EQ(count(kAttempt), attempts + 1);
  bus::CreatePair();
  bus::FarEnd far_end;
  EXPECT_TRUE(Eventually([&] {
    far_end.Send(kNode1 + kReadyStatus);
    std::this_thread::sleep_for(milliseconds(20));
    return driver_->GetDriverStatus(1) == DriverStatus::Ready;
  })) << "without the help of the host";
  capture.Stop();
  EXPECT_GE(attempts, 1);
  EXPECT_GE(second - first, milliseconds(950)) << "a pause of one second";
  EXPECT_LT(second - first, milliseconds(1900));
  EXPECT_NE(driver_->GetCanError(), 0U) << "the drive's own socket is the host's to recover";
  EXPECT_EQ(FiltersInTheKernel(), (std::multiset<std::string>{"480/00000780", "700/00000780"}))
      << "those of the start";
}

TEST_F(KincoLoopTest, LinesOfTheRecoveryNameTheLoop) {
  bus::DeletePair();
  driver_.reset();
  driver_ = std::make_unique<KincoDriver>("can0", 10000);
  LogSources sources;
  const auto lines = [&] {
    const std::vector<std::string> heard = sources.Heard();
    return std::count(heard.begin(), heard.end(), "./src/driver/kinco_driver.cpp operator()");
  };
  driver_->StartErrorParsingLoop();
  EXPECT_TRUE(Eventually([&] { return lines() == 3; })) << "started, attempt, failed";
  driver_->StopErrorParsingLoop();
  EXPECT_EQ(lines(), 4) << "stopped";
}

TEST_F(KincoLoopTest, WaitsForAnInterfaceThatIsNotThereYet) {
  bus::DeletePair();
  driver_ = std::make_unique<KincoDriver>("can0", 10000);
  driver_->AddHeartbeatId(0x701);
  driver_->StartErrorParsingLoop();
  std::this_thread::sleep_for(milliseconds(30));
  bus::CreatePair();
  bus::FarEnd far_end;
  EXPECT_TRUE(Eventually([&] {
    far_end.Send(kNode1 + kReadyStatus);
    std::this_thread::sleep_for(milliseconds(20));
    return driver_->GetDriverStatus(1) == DriverStatus::Ready;
  }));
}

TEST_F(KincoLoopTest, StopsQuicklyDuringThePauseAfterAFailedRecovery) {
  bus::DeletePair();
  const auto took = FastestOf5([&] {
    driver_->StartErrorParsingLoop();
    std::this_thread::sleep_for(milliseconds(50));
    return Duration([&] { driver_->StopErrorParsingLoop(); });
  });
  std::printf("stopped after %d ms\n", static_cast<int>(took.count()));
  EXPECT_LT(took, milliseconds(500)) << "the pause lasts a second";
}

}  // namespace
