#include <gtest/gtest.h>
#include <hls_driver.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "hls_script.h"
#include "log_sources.h"
#include "observed_driver.h"
#include "one_motor_reading.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

using Texts = std::vector<std::string>;
using SetUpOutcome = std::tuple<int, std::string, Texts>;  // failures, printed, sent

class HlsDriverTest : public bus::BusTest {};

TEST_F(HlsDriverTest, HasEncodersOf131072Counts) {
  HlsDriver driver("can0");
  EXPECT_EQ(driver.GetNumberOfPulsesPerRevolution(), 131072U);
}

TEST_F(HlsDriverTest, IsADriveLikeAnyOther) {
  bus::FarEnd far_end;
  const std::unique_ptr<DriverCommon> driver = std::make_unique<HlsDriver>("can0");
  far_end.AnswerSdo(1).Object(0x603F, 0, 0, 2).Object(0x6041, 0, 0x37, 2);
  EXPECT_TRUE(driver->ActiveNode(1));
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(driver->SetSpeedMode(1), 0);
  EXPECT_TRUE(driver->CheckStatus(1));
  far_end.ExpectAll({"000#0101", "000#0102", "201#18FCFFFF"});
  driver->StartNode(1);
  EXPECT_TRUE(driver->Init(5, 6, 7));
  EXPECT_TRUE(driver->ResetNode(1));
  driver->StartAllNode();
  EXPECT_TRUE(driver->SaveAllParams(1));
  EXPECT_TRUE(driver->SetSpeed(1, 100));
  EXPECT_FALSE(driver->SetSpeed(1, 100, 200));
  EXPECT_FALSE(driver->SetSpeed(1, 100, 200, 300, 400));
  driver->ClearReadQueue();
  Queue(*driver, far_end, {"181#00000000"});
  std::uint8_t node = 0;
  double rpm = 0;
  int counts = 0;
  EXPECT_TRUE(driver->GetSpeed(node, rpm, counts));
  EXPECT_EQ(node, 1);
  EXPECT_EQ(driver->GetNumberOfPulsesPerRevolution(), 131072U);
}

TEST_F(HlsDriverTest, KeepsTheDefaultsOfWhatItDoesNotOverride) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.ExpectSilence();
  EXPECT_FALSE(driver.SetSpeed(1, 100, 200)) << "two motors: reachable through the derived type";
  EXPECT_FALSE(driver.SetSpeed(1, 100, 200, 300, 400));
  std::uint8_t node = 0;
  double rpm[4] = {};
  int counts[4] = {};
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0]));
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]));
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2],
                               rpm[3], counts[3]));
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_FALSE(driver.CheckReportPeriod(1));
  EXPECT_TRUE(driver.Init(1, 10)) << "two arguments: nothing on the bus";
  EXPECT_EQ(driver.GetErrorCode(1).msg, "unknown");
}

TEST_F(HlsDriverTest, IsNeitherResetNorStartedAsAWholeNorSaved) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.ExpectSilence();
  EXPECT_TRUE(driver.ResetNode(1));
  driver.StartAllNode();
  EXPECT_TRUE(driver.SaveAllParams(1));
  capture.Stop();
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(HlsDriverTest, InitStartsNode2WhateverTheArguments) {
  class Observed : public HlsDriver {
   public:
    using HlsDriver::HlsDriver;
    void StartNode(std::uint8_t node) override {
      started.push_back(node);
      HlsDriver::StartNode(node);
    }
    std::vector<int> started;
  };
  bus::FarEnd far_end;
  Observed driver("can0");
  far_end.Expect("000#0102");
  EXPECT_TRUE(driver.Init(7, 9, 20));
  EXPECT_EQ(driver.started, std::vector<int>{2});
  HlsDriver off("nocan");
  EXPECT_TRUE(off.Init(1, 2, 10)) << "sent or not";
}

// --- Set-up --------------------------------------------------------------------------------------

TEST_F(HlsDriverTest, SetSpeedModeSelectsVelocityModeAndEnables) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.SetSpeedMode(1), 0);
  EXPECT_EQ(far_end.Frames(), FramesOf(hls_script::kSpeedMode));
  EXPECT_EQ(capture.Out(), "");
}

struct SetUpCase : NodeAndPeriod {
  const char* request;       // identifier
  const char* event_timer;   // frame 12, counted from 0
  const char* inhibit_time;  // 13
};

class HlsSetUpTest : public bus::BusTest, public ::testing::WithParamInterface<SetUpCase> {};

TEST_P(HlsSetUpTest, WritesEveryObject) {
  const SetUpCase& p = GetParam();
  Texts expected = FramesOf(hls_script::WholeSetUp());
  EXPECT_EQ(expected.size(), 6U + 16U + 1U);
  expected[12] = p.event_timer;
  expected[13] = p.inhibit_time;

  const auto set_up = [&] {
    bus::FarEnd far_end;
    HlsDriver driver("can0");
    far_end.AnswerSdo(p.node);
    support::OutputCapture capture;
    const int failures = driver.EnableSpeedModeAndPdoMode(p.node, p.period_ms);
    capture.Stop();
    EXPECT_TRUE(far_end.WaitFrames(expected.size()));
    const SetUpOutcome outcome = {failures, WithoutNumbers(capture.Out()), far_end.Frames()};
    return outcome;
  };
  const SetUpOutcome success = {0, "", ToNode(p.request, expected)};
  EXPECT_EQ(UpToThreeTimes(success, set_up), success);
}

// The period is cut to one byte before it is sent: deliberate.
INSTANTIATE_TEST_SUITE_P(
    NodesAndPeriods, HlsSetUpTest,
    ::testing::Values(SetUpCase{{1, 10}, "601", "#2F0018050A000000", "#2F0018030A000000"},
                      SetUpCase{{2, 300}, "602", "#2F0018052C000000", "#2F0018032C000000"},
                      SetUpCase{{127, 255}, "67F", "#2F001805FF000000", "#2F001803FF000000"},
                      SetUpCase{{3, 65535}, "603", "#2F001805FF000000", "#2F001803FF000000"},
                      SetUpCase{{1, 256}, "601", "#2F00180500000000", "#2F00180300000000"}),
    [](const ::testing::TestParamInfo<SetUpCase>& test) { return NameOf(test.param); });

TEST_F(HlsDriverTest, EndsTheSetUpWithAnEmptyQueueButForTheHeartbeatsAnswer) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  Queue(driver, far_end, {"181#01", "481#02"});
  far_end.AnswerSdo(1);
  driver.EnableSpeedModeAndPdoMode(1, 10);
  ASSERT_TRUE(WaitQueued(driver, 1));
  EXPECT_EQ(TakeQueued(driver), Texts{"581#6017100000000000"});
  ExpectHearsEverything(driver, far_end);
}

TEST_F(HlsDriverTest, ARefusedHeartbeatIsNotCounted) {
  const std::pair<int, std::string> success = {0, ""};
  EXPECT_EQ(UpToThreeTimes(success,
                           [] {
                             bus::FarEnd far_end;
                             HlsDriver driver("can0");
                             far_end.AnswerSdo(1).Abort(22);
                             support::OutputCapture capture;
                             const int failures = driver.EnableSpeedModeAndPdoMode(1, 10);
                             capture.Stop();
                             return std::pair<int, std::string>(failures,
                                                                WithoutNumbers(capture.Out()));
                           }),
            success);
}

TEST_F(HlsDriverTest, CountsAndTellsEveryRefusedWrite) {
  const auto refused = [](auto set_up, std::size_t frames) {
    bus::FarEnd far_end;
    HlsDriver driver("can0");
    far_end.AnswerSdo(1).AbortAll();
    support::OutputCapture capture;
    const int failures = set_up(driver);
    capture.Stop();
    EXPECT_EQ(capture.Err(), "");
    EXPECT_TRUE(far_end.WaitFrames(frames));
    return SetUpOutcome(failures, WithoutNumbers(capture.Out()), far_end.Frames());
  };
  const auto all = hls_script::WholeSetUp();
  const SetUpOutcome whole = {22, PrintedBy(all), FramesOf(all)};
  EXPECT_EQ(UpToThreeTimes(whole,
                           [&] {
                             return refused(
                                 [](DriverCommon& d) { return d.EnableSpeedModeAndPdoMode(1, 10); },
                                 all.size());
                           }),
            whole);
  const auto& mode = hls_script::kSpeedMode;
  const SetUpOutcome speed_mode = {6, PrintedBy(mode), FramesOf(mode)};
  EXPECT_EQ(
      UpToThreeTimes(
          speed_mode,
          [&] { return refused([](DriverCommon& d) { return d.SetSpeedMode(1); }, mode.size()); }),
      speed_mode);
}

TEST_F(HlsDriverTest, CountsEveryWriteToASilentNode) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 22);
  EXPECT_TRUE(far_end.WaitFrames(23));
  EXPECT_EQ(far_end.Frames(), FramesOf(hls_script::WholeSetUp()));
}

TEST_F(HlsDriverTest, ADerivedMakeMayReplacePartsOfTheSetUp) {
  class OwnMode : public HlsDriver {
   public:
    using HlsDriver::HlsDriver;
    std::uint16_t SetSpeedMode(std::uint8_t node) override {
      calls.push_back("mode of node " + std::to_string(node));
      return 100;
    }
    bool SetHeartbeatPacket(std::uint8_t node, std::uint16_t period_ms) override {
      calls.push_back("heartbeat of node " + std::to_string(node) + " every " +
                      std::to_string(period_ms));
      return false;
    }
    Texts calls;
  };
  bus::FarEnd far_end;
  OwnMode driver("can0");
  far_end.AnswerSdo(1).Abort(15);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 101) << "its count is added";
  EXPECT_EQ(driver.calls, (Texts{"mode of node 1", "heartbeat of node 1 every 2000"}));
  EXPECT_EQ(far_end.Frames(), FramesOf(hls_script::kPdos));
}

// --- ActiveNode ----------------------------------------------------------------------------------

constexpr auto kReadError = "601#433F600000000000";
constexpr auto kClear = "601#2B03460001000000";
constexpr auto kCleared = "581#6003460000000000";
constexpr auto kRefused = "581#8003460022000008";

constexpr auto kSuccess = "[INFO] node:1 clear motor error success\n";
constexpr auto kFailed = "[ERROR] node:1 clear motor err failed. Sdo write err\n";

struct Activation {
  bool result;
  std::chrono::nanoseconds took;
  std::string out;
};

// ActiveNode(1), after which everything is heard again.
Activation ActiveNode1(HlsDriver& driver, bus::FarEnd& far_end) {
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  const bool result = driver.ActiveNode(1);
  const auto took = bus::Clock::now() - begin;
  capture.Stop();
  EXPECT_TRUE(far_end.WaitScript());
  ExpectHearsEverything(driver, far_end);
  return {result, took, WithoutNumbers(capture.Out())};
}

std::string Got(const std::string& can_id, const std::string& index) {
  return "[INFO] node:1 get frame can_id:0x" + can_id + " read_index:0x" + index + "\n";
}

TEST_F(HlsDriverTest, ActiveNodeOfANodeWithoutErrorClearsNothing) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  Queue(driver, far_end, {"581#433F600010230000"});  // from before: not looked at
  far_end.Expect(kReadError).Reply("581#433F600000000000");
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, Got("581", "603f") + "[INFO] node:1 motor no error\n");
  EXPECT_GE(activation.took, milliseconds(100));
}

TEST_F(HlsDriverTest, ActiveNodeClearsAnError) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#4B3F600010230000");
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out,
            Got("581", "603f") + "[ERROR] node:1 motor has error 2310\n" + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeLooksAtAllBitsOfTheErrorAndNotAtTheCommand) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#803F6005EFBEADDE");
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out,
            Got("581", "603f") + "[ERROR] node:1 motor has error deadbeef\n" + kSuccess);
}

TEST_F(HlsDriverTest, LogLinesOfActiveNodeNameIt) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#4B3F600010230000");
  far_end.Expect(kClear).Reply(kRefused);
  far_end.Expect(kClear).Reply(kCleared);
  LogSources sources;
  driver.ActiveNode(1);
  EXPECT_EQ(sources.Heard(), std::vector<std::string>(4, "./src/driver/hls_driver.cpp ActiveNode"));
}

TEST_F(HlsDriverTest, ActiveNodeOfASilentNodeClearsAtOnce) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError);
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, Got("0", "0") + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeTakesAFrameTooShortForAnObjectAsSilence) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#433F60");
  far_end.Expect(kClear).Reply(kCleared);
  EXPECT_EQ(ActiveNode1(driver, far_end).out, Got("0", "0") + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeAsksAgainAfterAnAnswerThatIsNotIt) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  // One frame is taken per request: the third request finds the answer to the second.
  far_end.Expect(kReadError).Reply("581#4341600000000000");
  far_end.Expect(kReadError).Reply("00000581#433F600000000000").Reply("581#433F600000000000");
  far_end.Expect(kReadError);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, Got("581", "6041") + Got("80000581", "603f") + Got("581", "603f") +
                                "[INFO] node:1 motor no error\n");
  EXPECT_GE(activation.took, milliseconds(300));
}

TEST_F(HlsDriverTest, ActiveNodeClearsAtOnceWhenTheSecondRequestIsNotAnswered) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#4341600000000000");
  far_end.Expect(kReadError);
  far_end.Expect(kClear).Reply(kCleared);
  EXPECT_EQ(ActiveNode1(driver, far_end).out, Got("581", "6041") + Got("0", "0") + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeAsksTenTimesAtMost) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  std::string expected;
  for (int i = 0; i < 10; ++i) {
    far_end.Expect(kReadError).Reply("581#4341600000000000");
    expected += Got("581", "6041");
  }
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, expected + kSuccess);
  EXPECT_GE(activation.took, milliseconds(1000));
}

TEST_F(HlsDriverTest, ActiveNodeHearsOnlyTheNodesAnswers) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError)
      .Reply("181#433F600009000000")
      .Reply("582#433F600009000000")
      .Reply("701#05")
      .Reply("581#433F600000000000");
  EXPECT_EQ(ActiveNode1(driver, far_end).out,
            Got("581", "603f") + "[INFO] node:1 motor no error\n");
}

TEST_F(HlsDriverTest, ActiveNodeClearsAgainUntilItIsConfirmed) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError);
  far_end.Expect(kClear).Reply(kRefused);
  far_end.Expect(kClear);
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out,
            Got("0", "0") + kFailed +
                "[WARN] SDO response timeout, can_id: 0x581, index: 0x4603, sub: 0x00\n" + kFailed +
                kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeGivesUpAfterTenRefusedClearings) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#433F600001000000");
  std::string expected = Got("581", "603f") + "[ERROR] node:1 motor has error 1\n";
  for (int i = 0; i < 10; ++i) {
    far_end.Expect(kClear).Reply(kRefused);
    expected += kFailed;
  }
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_FALSE(activation.result);
  EXPECT_EQ(activation.out, expected + "[ERROR] node:1 clear err failed\n");
  EXPECT_LT(activation.took, milliseconds(1000)) << "no pause between clearings";
}

TEST_F(HlsDriverTest, ActiveNodeAddressesTheNode) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("67F#433F600000000000").Reply("5FF#433F600009000000");
  far_end.Expect("67F#2B03460001000000").Reply("5FF#6003460000000000");
  EXPECT_TRUE(driver.ActiveNode(127));
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node:127 get frame can_id:0x5ff read_index:0x603f\n"
            "[ERROR] node:127 motor has error 9\n"
            "[INFO] node:127 clear motor error success\n");
}

// --- Parameters ----------------------------------------------------------------------------------

TEST_F(HlsDriverTest, ParametersOfAllAxesGoThroughTheChannelOfNode0) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#2300530078563412").Reply("580#6000530000000000");
  EXPECT_EQ(driver.WriteParam(3, 0x2300, 0x23, 0x12345678), 0);
  far_end.Expect("600#2B00330001000000").Reply("580#6000330000000000");
  EXPECT_EQ(driver.WriteParam(17, 0x2300, 0x2B, 1), 0) << "axis 1: four bits name the axis";
  far_end.Expect("600#2F00100002000000").Reply("580#6000100000000000");
  EXPECT_EQ(driver.WriteParam(2, 0xF000, 0x2F, 2), 0) << "wraps around at 16 bits";
  far_end.Expect("600#2F34120003000000").Reply("580#6034120000000000");
  EXPECT_EQ(driver.WriteParam(0, 0x1234, 0x2F, 3), 0);
  far_end.Expect("600#2BFFF00070110100").Reply("580#60FFF00000000000");
  EXPECT_EQ(driver.WriteParam(15, 0x00FF, 0x2B, 70000), 0) << "all four bytes are sent";
  std::uint32_t value = 7;
  far_end.Expect("600#4034720000000000").Reply("580#4334720078563412");
  EXPECT_EQ(driver.ReadParam(5, 0x2234, &value), 0);
  EXPECT_EQ(value, 0x12345678U);
  far_end.Expect("600#4000100000000000").Reply("580#4F00100009000000");
  EXPECT_EQ(driver.ReadParam(255, 0x2000, &value), 0);
  EXPECT_EQ(value, 9U);
  capture.Stop();
  EXPECT_EQ(capture.Out(), "");
  ExpectHearsEverything(driver, far_end);
}

TEST_F(HlsDriverTest, WriteParamTellsAFailureWithTheIndexAsASum) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#2300530078563412").Reply("580#8000530000000206");
  EXPECT_EQ(driver.WriteParam(3, 0x2300, 0x23, 0x12345678), 1);
  EXPECT_EQ(capture.Out(), "write param: node=3 addr=0x5300 value=0x12345678\n");
  capture.Clear();
  far_end.Expect("600#2B000000FFFFFFFF");
  EXPECT_EQ(driver.WriteParam(241, 0xF000, 0x2B, 0xFFFFFFFF), 1);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x580, index: 0x0000, sub: 0x00\n"
            "write param: node=241 addr=0x0 value=0xffffffff\n");
  capture.Clear();
  // Not a command of a write: sent as the caller asks, and never taken as confirmed.
  far_end.Expect("600#2202200000000000").Reply("580#6002200000000000");
  EXPECT_EQ(driver.WriteParam(0, 0x2002, 0x22, 0), 1);
  EXPECT_EQ(capture.Out(), "write param: node=0 addr=0x2002 value=0x0\n");
  EXPECT_EQ(capture.Err(), "");
}

TEST_F(HlsDriverTest, ReadParamTellsAFailureWithWhatTheValueHoldsThen) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  std::uint32_t value = 7;
  far_end.Expect("600#4000530000000000").Reply("580#8000530000000206");
  EXPECT_EQ(driver.ReadParam(3, 0x2300, &value), 1);
  EXPECT_EQ(value, 0x06020000U);
  EXPECT_EQ(capture.Out(), "read param: node=3 addr=0x5300 value=0x6020000\n");
  capture.Clear();
  far_end.Expect("600#4000530000000000");
  EXPECT_EQ(driver.ReadParam(19, 0x2300, &value), 1);
  EXPECT_EQ(value, 0U);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x580, index: 0x5300, sub: 0x00\n"
            "read param: node=19 addr=0x5300 value=0x0\n");
}

TEST_F(HlsDriverTest, SetMotorCurrentWritesBothLimits) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#2B023000E8030000").Reply("580#6002300000000000");
  far_end.Expect("600#2B2A340070110100").Reply("580#602A340000000000");
  EXPECT_EQ(driver.SetMotorCurrent(1, 1000, 70000), 0);
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 set current:1000 max current:70000\n");
  capture.Clear();
  far_end.Expect("600#2B02400001000000").Reply("580#8002400030000906");
  far_end.Expect("600#2B2A440002000000").Reply("580#602A440000000000");
  EXPECT_EQ(driver.SetMotorCurrent(2, 1, 2), 1);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node2 set current:1 max current:2\n"
            "write param: node=2 addr=0x4002 value=0x1\n");
  capture.Clear();
  far_end.Expect("600#2B0240000A000000").Reply("580#8002400030000906");
  far_end.Expect("600#2B2A44000B000000").Reply("580#802A440030000906");
  EXPECT_EQ(driver.SetMotorCurrent(2, 10, 11), 2);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node2 set current:10 max current:11\n"
            "write param: node=2 addr=0x4002 value=0xa\n"
            "write param: node=2 addr=0x442a value=0xb\n");
}

TEST_F(HlsDriverTest, SetPidParamWritesThreeGains) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#23003300FFFFFFFF").Reply("580#6000330000000000");
  far_end.Expect("600#2301330002000000").Reply("580#6001330000000000");
  far_end.Expect("600#2302330003000000").Reply("580#6002330000000000");
  EXPECT_EQ(driver.SetPIDParam(1, 4294967295, 2, 3), 0);
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 set pid p:4294967295 i:2 d:3\n");
  capture.Clear();
  far_end.Expect("600#2300330010000000").Reply("580#8000330030000906");
  far_end.Expect("600#2301330020000000").Reply("580#8001330030000906");
  far_end.Expect("600#2302330030000000").Reply("580#8002330030000906");
  EXPECT_EQ(driver.SetPIDParam(1, 16, 32, 48), 3);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node1 set pid p:16 i:32 d:48\n"
            "write param: node=1 addr=0x3300 value=0x10\n"
            "write param: node=1 addr=0x3301 value=0x20\n"
            "write param: node=1 addr=0x3302 value=0x30\n");
}

TEST_F(HlsDriverTest, GetPidParamReadsThreeGainsAndTellsThemLast) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  std::uint32_t p = 0;
  std::uint32_t i = 0;
  std::uint32_t d = 0;
  far_end.Expect("600#4000330000000000").Reply("580#43003300FFFFFFFF");
  far_end.Expect("600#4001330000000000").Reply("580#4B01330002000000");
  far_end.Expect("600#4002330000000000").Reply("580#4302330003000000");
  EXPECT_EQ(driver.GetPIDParam(1, &p, &i, &d), 0);
  EXPECT_EQ(p, 4294967295U);
  EXPECT_EQ(i, 2U);
  EXPECT_EQ(d, 3U);
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 get pid p:4294967295 i:2 d:3\n");
  capture.Clear();
  far_end.Expect("600#4000430000000000").Reply("580#8000430000000206");
  far_end.Expect("600#4001430000000000").Reply("580#4301430005000000");
  far_end.Expect("600#4002430000000000").Reply("580#8002430000000000");
  EXPECT_EQ(driver.GetPIDParam(2, &p, &i, &d), 2);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "read param: node=2 addr=0x4300 value=0x6020000\n"
            "read param: node=2 addr=0x4302 value=0x0\n"
            "[INFO] node2 get pid p:100794368 i:5 d:0\n");
}

// --- Speeds --------------------------------------------------------------------------------------

TEST_F(HlsDriverTest, SetSpeedSendsMirroredTenthsAndWrapsAround) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.ExpectAll({"201#18FCFFFF", "202#E8030000", "27F#00000000", "201#0A000000", "201#00000000",
                     "2FF#509FF449"});
  EXPECT_TRUE(driver.SetSpeed(1, 100));
  EXPECT_TRUE(driver.SetSpeed(2, -100));
  EXPECT_TRUE(driver.SetSpeed(127, 0));
  EXPECT_TRUE(driver.SetSpeed(1, INT_MAX));
  EXPECT_TRUE(driver.SetSpeed(1, INT_MIN));
  EXPECT_TRUE(driver.SetSpeed(255, 0x12345678));
}

TEST_F(HlsDriverTest, SetSpeedTellsThatNothingWasSent) {
  HlsDriver driver("nocan");
  EXPECT_FALSE(driver.SetSpeed(1, 1));
}

TEST_F(HlsDriverTest, GetSpeedTurnsPositionsOfNodes0And1IntoMirroredRpm) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  StartFrom(driver, far_end, "180#00000000");
  StartFrom(driver, far_end, "181#00000000");
  Queue(driver, far_end,
        {"180#00000200FFFFFFFF", "181#0000FEFF", "180#00000200", "181#0100FEFF", "180#00000400"});
  ExpectReading(Read(driver), 0, -6000.0, 131072);
  ExpectReading(Read(driver), 1, 6000.0, -131072);
  ExpectReading(Read(driver), 0, 0.0, 131072);
  ExpectReading(Read(driver), 1, -0.0457763671875, -131071);
  ExpectReading(Read(driver), 0, -6000.0, 262144);
  ExpectEmptyQueue(Read(driver));
}

TEST_F(HlsDriverTest, GetSpeedSurvivesTheWrapAroundOfAPosition) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  StartFrom(driver, far_end, "180#F0FFFFFF");
  StartFrom(driver, far_end, "181#FFFFFF7F");
  Queue(driver, far_end, {"180#10000000", "181#00000080"});
  ExpectReading(Read(driver), 0, -1.46484375, 16);
  ExpectReading(Read(driver), 1, -0.0457763671875, INT_MIN);
}

TEST_F(HlsDriverTest, GetSpeedDividesByTheWholePeriodOfTheSetUp) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.AnswerSdo(1);
  driver.EnableSpeedModeAndPdoMode(1, 300);
  ASSERT_TRUE(WaitQueued(driver, 1));
  driver.ClearReadQueue();
  StartFrom(driver, far_end, "181#00000000");
  Queue(driver, far_end, {"181#43420F00"});
  ExpectReading(Read(driver), 1, -(1'000'003 * (1.0 / 131072) / 300 * 60.0 * 1000.0), 1'000'003);
  driver.EnableSpeedModeAndPdoMode(1, 0);
  ASSERT_TRUE(WaitQueued(driver, 1));
  driver.ClearReadQueue();
  Queue(driver, far_end, {"181#42420F00"});
  ExpectReading(Read(driver), 1, HUGE_VAL, 1'000'002);
}

TEST_F(HlsDriverTest, GetSpeedOfAnyOtherFrameTurnsTheSignOfTheCallersRpm) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  StartFrom(driver, far_end, "181#00000000");
  const Texts others = {"185#00000200", "182#00000200", "281#00000200", "00000181#00000200",
                        "181#R8",       "581#",         "001#"};
  Queue(driver, far_end, others);
  std::uint8_t node = 99;
  double rpm = 0.5;
  int counts = 1111;
  double expected = -0.5;
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    EXPECT_TRUE(driver.GetSpeed(node, rpm, counts));
    EXPECT_EQ(rpm, expected);
    EXPECT_EQ(node, 99);
    EXPECT_EQ(counts, 1111);
    expected = -expected;
  }
  Queue(driver, far_end, {"181#00000200"});
  ExpectReading(Read(driver), 1, -6000.0, 131072);
}

TEST_F(HlsDriverTest, GetSpeedReadsMissingBytesAsZero) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  StartFrom(driver, far_end, "180#00000000");
  Queue(driver, far_end, {"180#000002", "180#"});
  ExpectReading(Read(driver), 0, -6000.0, 131072);
  ExpectReading(Read(driver), 0, 6000.0, 0);
}

TEST_F(HlsDriverTest, AllObjectsShareThePreviousPositions) {
  bus::FarEnd far_end;
  far_end.AnswerSdo(1);
  {
    HlsDriver driver("can0");
    StartFrom(driver, far_end, "180#00000200");
    StartFrom(driver, far_end, "181#00000000");
    driver.EnableSpeedModeAndPdoMode(1, 10);
  }
  HlsDriver driver("can0");
  Queue(driver, far_end, {"180#00000400", "181#00000200"});
  ExpectReading(Read(driver), 0, -6000.0, 262144);
  ExpectReading(Read(driver), 1, -6000.0, 131072);
}

// --- CheckStatus ---------------------------------------------------------------------------------

TEST_F(HlsDriverTest, CheckStatusWantsExactly37) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.ExpectSilence();
  bus::FarEnd::SdoServer& node = far_end.AnswerSdo(1);
  support::OutputCapture capture;
  const auto check = [&](std::uint32_t statusword, unsigned size) {
    node.Object(0x6041, 0, statusword, size);
    capture.Clear();
    const bool ready = driver.CheckStatus(1);
    return std::to_string(ready) + " " + WithoutNumbers(capture.Out());
  };
  const std::string ready = check(0x37, 2);
  const std::string ready4 = check(0x37, 4);
  const std::string with_high_bits = check(0x0237, 2);
  const std::string enabled_no_more = check(0x33, 2);
  const std::string wide = check(0x00010037, 4);
  capture.Stop();
  EXPECT_EQ(ready, "1 [INFO] node: 1 check status: 0x37\n[INFO] node: 1 is ready\n");
  EXPECT_EQ(ready4, ready);
  EXPECT_EQ(with_high_bits, "0 [INFO] node: 1 check status: 0x237\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(enabled_no_more, "0 [INFO] node: 1 check status: 0x33\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(wide, "0 [INFO] node: 1 check status: 0x10037\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(far_end.Frames(), Texts(5, "601#4041600000000000"));
}

TEST_F(HlsDriverTest, CheckStatusOfANodeThatRefusesOrIsSilentIsNotReady) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("67F#4041600000000000").Reply("5FF#8041600000000206");
  EXPECT_FALSE(driver.CheckStatus(127));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node: 127 check status: 0x6020000\n[ERROR] node: 127 is not ready\n");
  capture.Clear();
  far_end.Expect("602#4041600000000000");
  EXPECT_FALSE(driver.CheckStatus(2));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x582, index: 0x6041, sub: 0x00\n"
            "[INFO] node: 2 check status: 0x0\n[ERROR] node: 2 is not ready\n");
  capture.Stop();
  ExpectHearsEverything(driver, far_end);
}

}  // namespace
