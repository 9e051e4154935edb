// The error-parsing loop of the Kinco drive, and what it does about an emergency stop.
#include <gtest/gtest.h>
#include <kinco_driver.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "kinco_fixture.h"
#include "log_sources.h"
#include "observed_driver.h"
#include "output_capture.h"
#include "processes.h"
#include "sim/simulated_drive.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;
using Frames = std::vector<std::string>;

constexpr auto kEnter = "[ERROR] EmergencyStop Enter\n";
constexpr auto kDone = "[INFO] EmergencyStop reset done\n";
constexpr auto kExited = "[INFO] EmergencyStop Exited\n";

std::string TimerLine(int ms) {
  return "[INFO] EmergencyStop reset after " + std::to_string(ms) + "ms\n";
}

Frames ResetOf(const std::string& request_id) {
  return {request_id + "#2B40600000000000", request_id + "#2B40600006000000",
          request_id + "#2B4060000F000000"};
}

void SetWait(KincoDriver& driver, int ms) {
  ASSERT_TRUE(
      driver.LoadConfig(TextFile("emergency_reset_wait: " + std::to_string(ms) + "\n").path()));
}

// A drive whose resets are noted, and fail on demand. Nothing reaches the bus.
class NotedDriver : public KincoDriver {
 public:
  NotedDriver() : KincoDriver("can0", 10000) {
    for (const std::uint32_t id : {0x701U, 0x702U, 0x703U}) {
      AddHeartbeatId(id);
    }
  }
  bool ResetDriverStatus(std::uint8_t node, DriverStatus status) override {
    EXPECT_EQ(status, DriverStatus::EmergencyStop);
    resets.insert(node);
    return refusing.count(node) == 0;
  }
  std::multiset<int> resets;
  std::set<int> refusing;
};

// --- The supervision, pass by pass ---------------------------------------------------------------

class KincoSupervisionTest : public bus::BusTest {
 protected:
  KincoSupervisionTest() { StartSupervisionAnew(); }

  // What one pass logs after these status PDOs.
  static std::string Pass(KincoDriver& driver, const Frames& frames = {}) {
    for (const std::string& frame : frames) {
      Parse(driver, frame);
    }
    support::OutputCapture capture;
    driver.CheckEmergencyStop();
    capture.Stop();
    return WithoutNumbers(capture.Out());
  }

  // Passes every few milliseconds until one says something.
  static std::string NextWords(KincoDriver& driver) {
    std::string words;
    Eventually([&] {
      words = Pass(driver);
      return !words.empty();
    });
    return words;
  }
};

const std::string kNode1 = "481#";
const std::string kNode2 = "482#";
const std::string kNode3 = "483#";

TEST_F(KincoSupervisionTest, NothingIsSaidWhileAllIsWell) {
  NotedDriver driver;
  EXPECT_EQ(Pass(driver), "");
  EXPECT_EQ(Pass(driver, {kNode1 + kReadyStatus, kNode2 + "102318000000"}), "")
      << "an error is no emergency";
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

// --- The loop ------------------------------------------------------------------------------------

// Every filter that is more than one identifier or all of them, as "identifier/mask".
std::multiset<std::string> FiltersInTheKernel() {
  std::multiset<std::string> filters;
  std::ifstream list("/proc/net/can/rcvlist_fil");
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string device;
    std::string can_id;
    std::string mask;
    if (words >> device >> can_id >> mask && device == "can0") {
      filters.insert(can_id + "/" + mask);
    }
  }
  return filters;
}

class KincoLoopTest : public KincoSupervisionTest {
 protected:
  KincoLoopTest() {
    driver_->AddHeartbeatId(0x701);
    driver_->AddHeartbeatId(0x702);
  }

  // Starts the loop and waits until it has said so.
  void StartLoop() {
    support::OutputCapture capture;
    driver_->StartErrorParsingLoop();
    EXPECT_TRUE(
        Eventually([&] { return capture.Out().find("loop started") != std::string::npos; }));
  }

  bool Shows(std::uint8_t node, DriverStatus status) {
    return Eventually([&] { return driver_->GetDriverStatus(node) == status; });
  }

  std::unique_ptr<KincoDriver> driver_ = std::make_unique<KincoDriver>("can0", 10000);
};

constexpr auto kOpened =
    "[INFO] device is can0\n"
    "[INFO] Initializing CAN socket for device: can0\n";
constexpr auto kStarted = "[INFO] Error parsing loop started\n";
constexpr auto kStopped = "[INFO] Error parsing loop stopped\n";
constexpr auto kSocketGone = "[INFO] DriverCan destroyed successfully\n";
constexpr auto kRunning = "[WARN] Error parsing loop already running\n";

// What `capture` holds once the text is in it.
std::string WaitForText(support::OutputCapture& capture, const std::string& text) {
  Eventually([&] { return capture.Out().find(text) != std::string::npos; });
  return WithoutNumbers(capture.Out());
}

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

// --- Ends ----------------------------------------------------------------------------------------

template <typename Operation>
milliseconds FastestOf5(Operation operation) {
  auto fastest = milliseconds::max();
  for (int i = 0; i < 5; ++i) {
    fastest = std::min(fastest, operation());
  }
  return fastest;
}

template <typename Operation>
milliseconds Duration(Operation operation) {
  const auto begin = bus::Clock::now();
  operation();
  return std::chrono::duration_cast<milliseconds>(bus::Clock::now() - begin);
}

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

// --- A socket that is lost -----------------------------------------------------------------------

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

// --- Against simulated drives --------------------------------------------------------------------

class KincoEmergencyTest : public KincoLoopTest {
 protected:
  static sim::SimulatedDrive::Options Node(std::uint8_t node) {
    sim::SimulatedDrive::Options options;
    options.make = "kinco";
    options.node_id = node;
    return options;
  }

  void BringUp(std::uint8_t node) {
    EXPECT_TRUE(driver_->Init(node, 10));
    EXPECT_TRUE(driver_->ActiveNode(node));
    EXPECT_EQ(driver_->EnableSpeedModeAndPdoMode(node, 10), 0);
  }

  bool Turns(sim::SimulatedDrive& drive, double rpm) {
    return Eventually(
        [&] { return std::abs(drive.SpeedRpm() - rpm) < std::abs(rpm) * 0.01 + 0.1; });
  }
};

TEST_F(KincoEmergencyTest, DrivesRunAgainOneWaitAfterTheRelease) {
  sim::SimulatedDrive first(Node(1));
  sim::SimulatedDrive second(Node(2));
  SetWait(*driver_, 500);
  driver_->StartErrorParsingLoop();
  BringUp(1);
  BringUp(2);
  driver_->set_speed_command_enabled(true);
  EXPECT_TRUE(driver_->SetSpeed(1, 100));
  EXPECT_TRUE(driver_->SetSpeed(2, -100));
  EXPECT_TRUE(Turns(first, 100));
  EXPECT_TRUE(Turns(second, -100));
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  EXPECT_TRUE(Shows(2, DriverStatus::Ready));

  first.PressEmergencyStop();
  second.PressEmergencyStop();
  EXPECT_TRUE(Shows(1, DriverStatus::EmergencyStop));
  EXPECT_TRUE(Shows(2, DriverStatus::EmergencyStop));
  EXPECT_TRUE(Turns(first, 0));
  EXPECT_TRUE(Turns(second, 0));
  std::this_thread::sleep_for(milliseconds(600));
  EXPECT_EQ(driver_->GetDriverStatus(1), DriverStatus::EmergencyStop) << "never while held";

  const auto released = bus::Clock::now();
  first.ReleaseEmergencyStop();
  second.ReleaseEmergencyStop();
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  const auto took = bus::Clock::now() - released;
  EXPECT_TRUE(Shows(2, DriverStatus::Ready));
  EXPECT_GE(took, milliseconds(500));
  EXPECT_LT(took, milliseconds(1200));
  EXPECT_EQ(first.Statusword() & 0xFF, 0x37);
  EXPECT_EQ(second.Statusword() & 0xFF, 0x37);
}

TEST_F(KincoEmergencyTest, ADriveThatTripsIsNamedAndCleared) {
  ASSERT_TRUE(driver_->LoadDriverConfig(PACKAGED_CONFIG));
  sim::SimulatedDrive drive(Node(1));
  driver_->StartErrorParsingLoop();
  BringUp(1);
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  drive.LatchError(0x2310);
  EXPECT_TRUE(Shows(1, DriverStatus::Fault));
  EXPECT_EQ(driver_->GetErrorCode(1).msg, "Continuous over current");
  EXPECT_TRUE(driver_->ClearDriverError(1));
  EXPECT_TRUE(Shows(1, DriverStatus::Ready));
  EXPECT_EQ(driver_->GetErrorCode(1).msg, "unknown");
}

}  // namespace
