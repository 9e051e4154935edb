// The supervision of the Kinco drive pass by pass: when it resets, and what it sends then.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <chrono>
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

TEST_F(KincoSupervisionTest, NothingIsSaidWhileAllIsWell) {
  NotedDriver driver;
  EXPECT_EQ(Pass(driver), "");
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus, kNode2 + "102318000000"}), "")
      << "an error is not an emergency";
  EXPECT_TRUE(driver.resets.empty());
}

TEST_F(KincoSupervisionTest, LogLinesNameThePass) {
  NotedDriver driver;
  driver.refusing = {1};
  SetWait(driver, 0);
  LogSources sources;
  Pass(driver, {kNode1 + kReleasedStatus});
  Pass(driver);
  driver.refusing.clear();
  Pass(driver);
  Pass(driver, {kNode1 + kReadyStatus});
  EXPECT_EQ(sources.Heard(),
            std::vector<std::string>(5, "./src/driver/kinco_driver.cpp CheckEmergencyStop"))
      << "entered, timer, failed, done, exited";
}

TEST_F(KincoSupervisionTest, AnInputEntersTheEmergencyAndStartsNoTimer) {
  NotedDriver driver;
  EXPECT_EQ(Pass(driver, {kNode1 + "000037000100"}), kEnter);
  EXPECT_EQ(Pass(driver), "");
  EXPECT_EQ(Pass(driver, {kNode1 + kPressedStatus}), "");
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus}), kExited);
  EXPECT_EQ(Pass(driver), "");
  EXPECT_TRUE(driver.resets.empty());
}

TEST_F(KincoSupervisionTest, AnInputWithTheEmergencyStateStartsNoTimerEither) {
  NotedDriver driver;
  SetWait(driver, 0);
  EXPECT_EQ(Pass(driver, {kNode1 + kPressedStatus}), kEnter);
  EXPECT_EQ(Pass(driver), "");
  EXPECT_TRUE(driver.resets.empty());
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), TimerLine(0)) << "only the release does";
}

TEST_F(KincoSupervisionTest, AnEmergencyStateWithoutInputStartsTheTimerAtOnce) {
  NotedDriver driver;
  EXPECT_EQ(Pass(driver, {kNode1 + "000070000000"}), kEnter + TimerLine(1000));
  EXPECT_EQ(Pass(driver), "");
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus}), kExited);
}

TEST_F(KincoSupervisionTest, ResetsOneWaitAfterTheRelease) {
  NotedDriver driver;
  SetWait(driver, 150);
  EXPECT_EQ(Pass(driver, {kNode1 + kPressedStatus}), kEnter);
  const auto released = bus::Clock::now();
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), TimerLine(150));
  EXPECT_EQ(NextWords(driver), kDone);
  EXPECT_GE(bus::Clock::now() - released, milliseconds(150));
  EXPECT_EQ(driver.resets, (std::multiset<int>{1}));
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus}), kExited);
  EXPECT_EQ(driver.resets.size(), 1U);
}

TEST_F(KincoSupervisionTest, ResetsAgainWhileTheStateLasts) {
  NotedDriver driver;
  SetWait(driver, 50);
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter + TimerLine(50));
  EXPECT_EQ(NextWords(driver), kDone);
  EXPECT_EQ(NextWords(driver), TimerLine(50)) << "the timer was stopped";
  EXPECT_EQ(NextWords(driver), kDone);
  EXPECT_EQ(driver.resets, (std::multiset<int>{1, 1}));
}

TEST_F(KincoSupervisionTest, AWaitOfZeroOrLessResetsInTheNextPass) {
  for (const int wait : {0, -1000}) {
    StartSupervisionAnew();
    NotedDriver driver;
    SetWait(driver, wait);
    EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter + TimerLine(wait));
    EXPECT_EQ(Pass(driver), kDone);
  }
}

TEST_F(KincoSupervisionTest, AnInputPressedWhileWaitingLeavesTheTimerAsItIs) {
  NotedDriver driver;
  SetWait(driver, 100);
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter + TimerLine(100));
  EXPECT_EQ(Pass(driver, {kNode1 + kPressedStatus}), "");
  std::this_thread::sleep_for(milliseconds(120));
  EXPECT_EQ(Pass(driver), "") << "never while an input is active";
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kDone) << "the wait is over already";
}

TEST_F(KincoSupervisionTest, ATimerLeftStartedLetsTheNextEmergencyResetAtOnce) {
  NotedDriver driver;
  SetWait(driver, 100);
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter + TimerLine(100));
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus}), kExited);
  std::this_thread::sleep_for(milliseconds(120));
  EXPECT_EQ(Pass(driver, {kNode1 + kPressedStatus}), kEnter);
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kDone);
  EXPECT_EQ(driver.resets, (std::multiset<int>{1}));
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus}), kExited);
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter + TimerLine(100))
      << "a reset that succeeded stopped it";
}

TEST_F(KincoSupervisionTest, ATimerLeftStartedIsComparedWithItsOldStart) {
  NotedDriver driver;
  SetWait(driver, 300);
  const auto begin = bus::Clock::now();
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter + TimerLine(300));
  const auto started = bus::Clock::now();
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus}), kExited);
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter) << "no new timer";
  EXPECT_EQ(NextWords(driver), kDone);
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(300));
  EXPECT_LT(bus::Clock::now() - started, milliseconds(480)) << "200 ms of the wait had passed";
}

TEST_F(KincoSupervisionTest, AnInputOfAnyNodeHoldsEveryReset) {
  NotedDriver driver;
  SetWait(driver, 0);
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus, kNode3 + "000037000080"}), kEnter);
  EXPECT_EQ(Pass(driver), "");
  EXPECT_EQ(Pass(driver, {kNode3 + kReadyStatus}), TimerLine(0));
  EXPECT_EQ(Pass(driver), kDone);
  EXPECT_EQ(driver.resets, (std::multiset<int>{1}));
}

TEST_F(KincoSupervisionTest, EveryNodeInTheEmergencyStateIsReset) {
  NotedDriver driver;
  SetWait(driver, 0);
  Pass(driver, {kNode1 + "000050000000", kNode2 + "000037000000", kNode3 + "000070000000"});
  EXPECT_EQ(Pass(driver), kDone);
  EXPECT_EQ(driver.resets, (std::multiset<int>{1, 3}));
}

TEST_F(KincoSupervisionTest, AnErrorDoesNotKeepANodeFromBeingReset) {
  NotedDriver driver;
  SetWait(driver, 0);
  Pass(driver, {kNode1 + "102350000000"});
  EXPECT_EQ(driver.GetDriverStatus(1), DriverStatus::Fault);
  EXPECT_EQ(Pass(driver), kDone);
  EXPECT_EQ(driver.resets, (std::multiset<int>{1}));
}

TEST_F(KincoSupervisionTest, AResetThatFailsIsTriedAgainOneWaitLater) {
  NotedDriver driver;
  SetWait(driver, 100);
  driver.refusing = {2};
  Pass(driver, {kNode1 + kReleasedStatus, kNode2 + kReleasedStatus, kNode3 + kReleasedStatus});
  EXPECT_EQ(NextWords(driver), "[ERROR] EmergencyStop reset failed. node: 2\n");
  const auto failed = bus::Clock::now();
  EXPECT_EQ(driver.resets, (std::multiset<int>{1, 2, 3})) << "the others are reset";
  Pass(driver, {kNode1 + kReadyStatus, kNode3 + kReadyStatus});
  EXPECT_EQ(NextWords(driver), "[ERROR] EmergencyStop reset failed. node: 2\n");
  EXPECT_GE(bus::Clock::now() - failed, milliseconds(90));
  driver.refusing.clear();
  EXPECT_EQ(NextWords(driver), kDone);
  EXPECT_EQ(driver.resets, (std::multiset<int>{1, 2, 2, 2, 3}));
}

// One object per process is the intended use: this is what two of them do to each other.
TEST_F(KincoSupervisionTest, AllObjectsShareTheState) {
  NotedDriver first;
  NotedDriver second;
  EXPECT_EQ(Pass(first, {kNode1 + kReleasedStatus}), kEnter + TimerLine(1000));
  EXPECT_EQ(Pass(second), kExited) << "it sees no emergency of its own";
  EXPECT_EQ(Pass(first), kEnter);
  EXPECT_EQ(Pass(second, {kNode2 + kReleasedStatus}), "") << "timer started by the other";
}

// --- The resets ----------------------------------------------------------------------------------

TEST_F(KincoSupervisionTest, ResetEmergencyStatusSendsThreeControlwordsAndAwaitsNothing) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", 10000);
  support::OutputCapture capture;
  far_end.ExpectAll(ResetOf("601"));
  far_end.ExpectAll(ResetOf("67F"));
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(driver.ResetEmergencyStatus(1));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(90));
  EXPECT_TRUE(driver.ResetDriverStatus(127, DriverStatus::EmergencyStop));
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(KincoSupervisionTest, ResetDriverStatusKnowsTheEmergencyStopOnly) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", 10000);
  far_end.ExpectSilence();
  support::OutputCapture capture;
  EXPECT_FALSE(driver.ResetDriverStatus(1, DriverStatus::Unknown));
  EXPECT_FALSE(driver.ResetDriverStatus(2, DriverStatus::BootUp));
  EXPECT_FALSE(driver.ResetDriverStatus(3, DriverStatus::Ready));
  EXPECT_FALSE(driver.ResetDriverStatus(127, DriverStatus::Fault));
  EXPECT_FALSE(driver.ResetDriverStatus(1, static_cast<DriverStatus>(5)));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] Node 1: Unknown driver status type: 0\n"
            "[ERROR] Node 2: Unknown driver status type: 1\n"
            "[ERROR] Node 3: Unknown driver status type: 2\n"
            "[ERROR] Node 127: Unknown driver status type: 3\n"
            "[ERROR] Node 1: Unknown driver status type: 5\n");
}

// A queue that holds `length` frames for ten seconds: the next write fails.
std::string OutputOfAResetThatFailsAfter(int length) {
  bus::FreshPair();
  KincoDriver driver("can0", 10000);
  bus::TrafficControl("netem limit " + std::to_string(length) + " delay 10s");
  support::OutputCapture capture;
  EXPECT_FALSE(driver.ResetEmergencyStatus(1));
  capture.Stop();
  EXPECT_EQ(driver.GetWriteErrorCount(), 1U) << "nothing is sent after the first failure";
  return WithoutNumbers(capture.Out());
}

TEST_F(KincoSupervisionTest, ResetEmergencyStatusEndsWithTheFirstFrameThatCannotBeSent) {
  const std::string enobufs = "[ERROR] write error, nbytes = -1, sys errno: 105\n";
  EXPECT_EQ(OutputOfAResetThatFailsAfter(1), enobufs + "write error 0x6040, 0x00, 0x0006\n");
  EXPECT_EQ(OutputOfAResetThatFailsAfter(2), enobufs + "write error 0x6040, 0x00, 0x000F\n");
  KincoDriver driver("nocan", 10000);
  support::OutputCapture capture;
  EXPECT_FALSE(driver.ResetEmergencyStatus(1));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] write error, CAN socket is not initialized\n"
            "write error 0x6040, 0x00, 0x0000\n");
}

TEST_F(KincoSupervisionTest, AResetThatCannotBeSentIsSentOneWaitLater) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", 10000);
  driver.AddHeartbeatId(0x701);
  SetWait(driver, 200);
  EXPECT_EQ(Pass(driver, {kNode1 + kReleasedStatus}), kEnter + TimerLine(200));
  bus::SetDown("can0");
  ASSERT_TRUE(Eventually([&] { return driver.GetCanError() == 3; }));
  std::this_thread::sleep_for(milliseconds(200));
  std::string words = NextWords(driver);
  // The receive thread of the drive complains in between.
  std::string without_reads;
  for (const std::string& line : support::Lines(words)) {
    if (line.find("read failed") == std::string::npos) {
      without_reads += line + "\n";
    }
  }
  EXPECT_EQ(without_reads,
            "[ERROR] write error, nbytes = -1, sys errno: 100\n"
            "write error 0x6040, 0x00, 0x0000\n"
            "[ERROR] EmergencyStop reset failed. node: 1\n");
  const auto failed = bus::Clock::now();
  bus::SetUp("can0");
  far_end.Forget();
  ASSERT_TRUE(Eventually([&] { return Pass(driver).find(kDone) != std::string::npos; }));
  EXPECT_GE(bus::Clock::now() - failed, milliseconds(190));
  EXPECT_TRUE(far_end.WaitFrames(3));
  EXPECT_EQ(far_end.Frames(), ResetOf("601"));
}

}  // namespace
