// The error-parsing loop of the Kinco drive, and what it does about an emergency stop.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "eventually.h"
#include "far_end.h"
#include "kinco_fixture.h"
#include "kinco_supervision_fixture.h"
#include "log_sources.h"
#include "observed_driver.h"
#include "output_capture.h"
#include "processes.h"

namespace {

constexpr auto kOpened =
    "[INFO] device is can0\n"
    "[INFO] Initializing CAN socket for device: can0\n";
constexpr auto kStarted = "[INFO] Error parsing loop started\n";
constexpr auto kStopped = "[INFO] Error parsing loop stopped\n";
constexpr auto kSocketGone = "[INFO] DriverCan destroyed successfully\n";
constexpr auto kRunning = "[WARN] Error parsing loop already running\n";

TEST_F(KincoLoopTest, StartsAndStops) {
  const std::size_t threads = support::Threads();
  const std::size_t descriptors = support::OpenDescriptors();
  support::OutputCapture capture;
  driver_->StartErrorParsingLoop();
  const std::string started = WaitForText(capture, "loop started");
  const std::size_t running = support::Threads();
  capture.Clear();
  driver_->StopErrorParsingLoop();
  capture.Stop();
  EXPECT_EQ(started, std::string(kOpened) + kStarted);
  EXPECT_EQ(running, threads + 2) << "the loop, and the reader of its socket";
  EXPECT_EQ(WithoutNumbers(capture.Out()), std::string(kStopped) + kSocketGone + kStopped)
      << "its thread, its socket, the host's call";
  EXPECT_TRUE(support::WaitThreads(threads));
  EXPECT_EQ(support::OpenDescriptors(), descriptors);
}

TEST_F(KincoLoopTest, LogLinesOfTheLoopNameItsBody) {
  LogSources sources;
  driver_->StartErrorParsingLoop();
  ASSERT_TRUE(Eventually([&] { return sources.Heard().size() >= 3; }));
  driver_->StartErrorParsingLoop();
  driver_->StopErrorParsingLoop();
  const std::string source = "./src/driver/kinco_driver.cpp ";
  const std::vector<std::string> heard = sources.Heard();
  ASSERT_EQ(heard.size(), 7U);
  EXPECT_EQ(heard[2], source + "operator()");
  EXPECT_EQ(heard[3], source + "StartErrorParsingLoop");
  EXPECT_EQ(heard[4], source + "operator()");
  EXPECT_EQ(heard[6], source + "StopErrorParsingLoop");
}

TEST_F(KincoLoopTest, ASecondStartOnlyWarns) {
  const std::size_t threads = support::Threads();
  support::OutputCapture capture;
  driver_->StartErrorParsingLoop();
  WaitForText(capture, "loop started");
  capture.Clear();
  driver_->StartErrorParsingLoop();
  const std::size_t running = support::Threads();
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()), kRunning);
  EXPECT_EQ(running, threads + 2);
}

TEST_F(KincoLoopTest, AStopWithoutStartSaysNothing) {
  support::OutputCapture capture;
  driver_->StopErrorParsingLoop();
  driver_->StartErrorParsingLoop();
  driver_->StopErrorParsingLoop();
  capture.Clear();
  driver_->StopErrorParsingLoop();
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(KincoLoopTest, StopsAndStartsAgainAndKeepsWhatItKnew) {
  bus::FarEnd far_end;
  driver_->StartErrorParsingLoop();
  far_end.Send(kNode1 + kReadyStatus);
  ASSERT_TRUE(Shows(1, DriverStatus::Ready));
  driver_->StopErrorParsingLoop();
  far_end.Send(kNode1 + "102318000000");
  std::this_thread::sleep_for(milliseconds(30));
  EXPECT_EQ(driver_->GetDriverStatus(1), DriverStatus::Ready) << "nobody listens";
  driver_->StartErrorParsingLoop();
  std::this_thread::sleep_for(milliseconds(30));
  EXPECT_EQ(driver_->GetDriverStatus(1), DriverStatus::Ready) << "only what comes from now on";
  far_end.Send(kNode2 + kReadyStatus);
  EXPECT_TRUE(Shows(2, DriverStatus::Ready));
}

TEST_F(KincoLoopTest, KeepsTheStateOfEveryNode) {
  bus::FarEnd far_end;
  driver_->StartErrorParsingLoop();
  far_end.Send("701#00");
  EXPECT_TRUE(Shows(1, DriverStatus::BootUp));
  for (const char* frame : {"701#05", "481#000037020000", "702#7F", "482#102318000000"}) {
    far_end.Send(frame);
  }
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  EXPECT_TRUE(Shows(2, DriverStatus::Fault));
  EXPECT_EQ(driver_->GetDriverStatusDetails(1),
            "heartbeat=0x0005 status_6041=0x0037 motor_status=0x0002 error_603F=0x0000 "
            "input_2010_0A=0x0000 ");
  EXPECT_EQ(driver_->GetDriverStatusDetails(2),
            "heartbeat=0x007F status_6041=0x0018 motor_status=0x0000 error_603F=0x2310 "
            "input_2010_0A=0x0000 ");
}

TEST_F(KincoLoopTest, ListensToHeartbeatsAndStatusPdosOnly) {
  bus::FarEnd far_end;
  StartLoop();
  support::OutputCapture capture;
  // Taken for a status PDO, each of these would make node 1 ready or be told to be short.
  for (const char* frame : {"381#000037000000", "501#000037000000", "081#000037000000", "181#00",
                            "581#00", "601#00", "001#00", "681#00"}) {
    far_end.Send(frame);
  }
  far_end.Send("702#05");
  EXPECT_TRUE(
      Eventually([&] { return driver_->GetDriverStatusDetails(2).find("heartbeat=0x0005") == 0; }));
  capture.Stop();
  EXPECT_EQ(capture.Out(), "");
  EXPECT_EQ(driver_->GetDriverStatus(1), DriverStatus::Unknown);
  // The loop's socket does not even see the others.
  EXPECT_EQ(FiltersInTheKernel(), (std::multiset<std::string>{"480/00000780", "700/00000780"}));
}

TEST_F(KincoLoopTest, LooksAtTheLowBitsOfAnIdentifierOnly) {
  bus::FarEnd far_end;
  driver_->StartErrorParsingLoop();
  far_end.Send("00000481#000037000000");
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  far_end.Send("1FFFF702#00");
  EXPECT_TRUE(Shows(2, DriverStatus::BootUp));
}

TEST_F(KincoLoopTest, TellsShortStatusPdosAndErrors) {
  bus::FarEnd far_end;
  StartLoop();
  support::OutputCapture capture;
  far_end.Send("481#0000370200");
  far_end.Send("482#102318000000");
  WaitForText(capture, "node: 2");
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] Invalid TPDO3 frame size: 5, can_id: 0x481, node: 1\n"
            "[DEBUG] Kinco driver error code: 0x2310, node: 2\n");
}

TEST_F(KincoLoopTest, LeavesTheQueueAndTheTransfersOfTheHostAlone) {
  bus::FarEnd far_end;
  driver_->StartErrorParsingLoop();
  Queue(*driver_, far_end, {"181#01", "481#000037020000", "182#02"});
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  EXPECT_EQ(TakeQueued(*driver_), (Frames{"181#01", "481#000037020000", "182#02"}));
  // During a transfer of the host, whose own socket then hears the answer only.
  far_end.Expect("601#4041600000000000")
      .Reply("481#000050000100")
      .Reply("701#05")
      .Reply("581#4B41600050000000", milliseconds(60));
  EXPECT_TRUE(driver_->CheckStatus(1));
  EXPECT_EQ(driver_->GetDriverStatus(1), DriverStatus::EmergencyStop);
  ExpectHearsEverything(*driver_, far_end);
}

TEST_F(KincoLoopTest, BringsANodeBackOneWaitAfterTheRelease) {
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  driver_->AddHeartbeatId(0x703);
  SetWait(*driver_, 300);
  StartLoop();
  support::OutputCapture capture;
  far_end.Send(kNode2 + kReadyStatus);
  far_end.Send(kNode1 + kPressedStatus);
  WaitForText(capture, "Enter");
  std::this_thread::sleep_for(milliseconds(350));
  const std::string held = WithoutNumbers(capture.Out());
  far_end.ExpectAll(ResetOf("601"));
  const auto released = bus::Clock::now();
  far_end.Send(kNode1 + kReleasedStatus);
  EXPECT_TRUE(far_end.WaitScript());
  WaitForText(capture, "done");
  far_end.Send(kNode1 + kReadyStatus);
  WaitForText(capture, "Exited");
  capture.Stop();
  EXPECT_EQ(held, kEnter) << "never while the input is held";
  const std::string told = WithoutNumbers(capture.Out());
  if (told != kEnter + TimerLine(300) + kDone + TimerLine(300) + kExited) {
    EXPECT_EQ(told, kEnter + TimerLine(300) + kDone + kExited)
        << "a pass between the reset and what the node says of it may start the timer again";
  }
  const auto took = far_end.Records().front().time - released;
  std::printf("controlwords %.1f ms after the release, of which 300 ms are the wait\n",
              std::chrono::duration<double, std::milli>(took).count());
  EXPECT_GE(took, milliseconds(300));
  EXPECT_LT(took, milliseconds(600));
}

TEST_F(KincoLoopTest, WaitsOneSecondUnlessToldOtherwise) {
  bus::FarEnd far_end;
  driver_->StartErrorParsingLoop();
  far_end.ExpectAll(ResetOf("601"));
  const auto released = bus::Clock::now();
  far_end.Send(kNode1 + "000070000000");
  EXPECT_TRUE(far_end.WaitScript(milliseconds(5000)));
  const auto took = far_end.Records().front().time - released;
  EXPECT_GE(took, milliseconds(1000));
  EXPECT_LT(took, milliseconds(1500));
}

TEST_F(KincoLoopTest, NeverResetsWhileAnInputIsHeld) {
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  SetWait(*driver_, 20);
  driver_->StartErrorParsingLoop();
  for (int i = 0; i < 20; ++i) {
    far_end.Send(kNode1 + kPressedStatus);
    far_end.Send(kNode2 + kReleasedStatus);
    std::this_thread::sleep_for(milliseconds(50));
  }
  EXPECT_EQ(driver_->GetDriverStatus(1), DriverStatus::EmergencyStop);
}

}  // namespace
