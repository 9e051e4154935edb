#include <gtest/gtest.h>
#include <tt_driver.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "one_motor_reading.h"
#include "output_capture.h"
#include "tt_script.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

using Texts = std::vector<std::string>;
using SetUpOutcome = std::tuple<int, std::string, Texts>;  // failures, printed, sent

class TtDriverTest : public bus::BusTest {};

TEST_F(TtDriverTest, HasEncodersOf32768Counts) {
  TtDriver driver("can0");
  EXPECT_EQ(driver.GetNumberOfPulsesPerRevolution(), 32768U);
}

TEST_F(TtDriverTest, IsADriveLikeAnyOther) {
  bus::FarEnd far_end;
  const std::unique_ptr<DriverCommon> driver = std::make_unique<TtDriver>("can0");
  far_end.AnswerSdo(1).Object(0x6040, 0, 6, 2).Object(0x1800, 5, 10, 2);
  EXPECT_TRUE(driver->ActiveNode(1)) << "answers already";
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(driver->SetSpeedMode(1), 0);
  EXPECT_EQ(driver->GetTpdo0Period(1), 10);
  EXPECT_TRUE(driver->SaveAllParams(1));
  EXPECT_TRUE(far_end.WaitFrames(1 + 22 + 5 + 1 + 1));
  far_end.ExpectAll({"000#8101", "000#8001", "000#0101", "000#0100", "201#64000000"});
  EXPECT_TRUE(driver->ResetNode(1));
  driver->StartNode(1);
  driver->StartAllNode();
  EXPECT_TRUE(driver->SetSpeed(1, 100));
  EXPECT_FALSE(driver->SetSpeed(1, 100, 200));
  EXPECT_FALSE(driver->SetSpeed(1, 100, 200, 300, 400));
  Queue(*driver, far_end, {"182#00000000"});
  std::uint8_t node = 0;
  double rpm = 0;
  int counts = 0;
  EXPECT_TRUE(driver->GetSpeed(node, rpm, counts));
  EXPECT_EQ(node, 2);
  EXPECT_EQ(driver->GetNumberOfPulsesPerRevolution(), 32768U);
}

TEST_F(TtDriverTest, KeepsTheDefaultsOfWhatItDoesNotOverride) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
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
  EXPECT_TRUE(driver.Init(1, 10));
  EXPECT_TRUE(driver.Init(1, 2, 10));
  EXPECT_EQ(driver.GetErrorCode(1).msg, "unknown");
}

// --- Set-up --------------------------------------------------------------------------------------

TEST_F(TtDriverTest, SetSpeedModeResetsAFaultSelectsVelocityModeAndEnables) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  support::OutputCapture capture;
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.SetSpeedMode(1), 0);
  EXPECT_EQ(far_end.Frames(), FramesOf(tt_script::kSpeedMode));
  EXPECT_EQ(capture.Out(), "");
}

// What in the set-up depends on node and period, after the request identifier.
struct SetUpCase : NodeAndPeriod {
  const char* request;      // identifier
  const char* rpdo1_off;    // frame 6, counted from 0
  const char* rpdo1_on;     // 11
  const char* tpdo1_off;    // 12
  const char* tpdo2_off;    // 13
  const char* tpdo3_off;    // 14
  const char* tpdo4_off;    // 15
  const char* event_timer;  // 17
  const char* tpdo1_on;     // 21
};

class TtSetUpTest : public bus::BusTest, public ::testing::WithParamInterface<SetUpCase> {};

TEST_P(TtSetUpTest, WritesEveryObject) {
  const SetUpCase& p = GetParam();
  Texts expected = FramesOf(tt_script::WholeSetUp());
  EXPECT_EQ(expected.size(), 1U + 5U + 16U);
  expected[6] = p.rpdo1_off;
  expected[11] = p.rpdo1_on;
  expected[12] = p.tpdo1_off;
  expected[13] = p.tpdo2_off;
  expected[14] = p.tpdo3_off;
  expected[15] = p.tpdo4_off;
  expected[17] = p.event_timer;
  expected[21] = p.tpdo1_on;

  const auto set_up = [&] {
    bus::FarEnd far_end;
    TtDriver driver("can0");
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

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    NodesAndPeriods, TtSetUpTest,
    ::testing::Values(
        SetUpCase{{1, 10}, "601", "#2300140101020080", "#2300140101020000",
                  "#2300180181010080", "#2301180181010080", "#2302180181010080", "#2303180181010080",
                  "#2B0018050A000000", "#2300180181010000"},
        SetUpCase{{2, 1}, "602", "#2300140102020080", "#2300140102020000",
                  "#2300180182010080", "#2301180182010080", "#2302180182010080", "#2303180182010080",
                  "#2B00180501000000", "#2300180182010000"},
        SetUpCase{{127, 65535}, "67F", "#230014017F020080", "#230014017F020000",
                  "#23001801FF010080", "#23011801FF010080", "#23021801FF010080", "#23031801FF010080",
                  "#2B001805FFFF0000", "#23001801FF010000"},
        SetUpCase{{3, 300}, "603", "#2300140103020080", "#2300140103020000",
                  "#2300180183010080", "#2301180183010080", "#2302180183010080", "#2303180183010080",
                  "#2B0018052C010000", "#2300180183010000"},
        SetUpCase{{1, 0}, "601", "#2300140101020080", "#2300140101020000",
                  "#2300180181010080", "#2301180181010080", "#2302180181010080", "#2303180181010080",
                  "#2B00180500000000", "#2300180181010000"}),
    [](const ::testing::TestParamInfo<SetUpCase>& test) {
      return NameOf(test.param);
    });
// clang-format on

TEST_F(TtDriverTest, EndsTheSetUpWithAnEmptyQueueAndHearsEverything) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  Queue(driver, far_end, {"181#01", "481#02"});
  far_end.AnswerSdo(1);
  driver.EnableSpeedModeAndPdoMode(1, 10);
  ExpectHearsEverything(driver, far_end);
}

TEST_F(TtDriverTest, ARefusedHeartbeatIsNotCounted) {
  const std::pair<int, std::string> success = {0, ""};
  EXPECT_EQ(UpToThreeTimes(success,
                           [] {
                             bus::FarEnd far_end;
                             TtDriver driver("can0");
                             far_end.AnswerSdo(1).Abort(0);
                             support::OutputCapture capture;
                             const int failures = driver.EnableSpeedModeAndPdoMode(1, 10);
                             capture.Stop();
                             return std::pair<int, std::string>(failures,
                                                                WithoutNumbers(capture.Out()));
                           }),
            success);
}

TEST_F(TtDriverTest, CountsAndTellsEveryRefusedWriteOnOneLine) {
  const auto refused = [](auto set_up, std::size_t frames) {
    bus::FarEnd far_end;
    TtDriver driver("can0");
    far_end.AnswerSdo(1).AbortAll();
    support::OutputCapture capture;
    const int failures = set_up(driver);
    capture.Stop();
    EXPECT_EQ(capture.Err(), "");
    EXPECT_TRUE(far_end.WaitFrames(frames));
    return SetUpOutcome(failures, WithoutNumbers(capture.Out()), far_end.Frames());
  };
  const auto all = tt_script::WholeSetUp();
  const SetUpOutcome whole = {21, PrintedBy(all), FramesOf(all)};
  EXPECT_EQ(UpToThreeTimes(whole,
                           [&] {
                             return refused(
                                 [](DriverCommon& d) { return d.EnableSpeedModeAndPdoMode(1, 10); },
                                 all.size());
                           }),
            whole);
  const auto& mode = tt_script::kSpeedMode;
  const SetUpOutcome speed_mode = {5, PrintedBy(mode), FramesOf(mode)};
  EXPECT_EQ(
      UpToThreeTimes(
          speed_mode,
          [&] { return refused([](DriverCommon& d) { return d.SetSpeedMode(1); }, mode.size()); }),
      speed_mode);
}

TEST_F(TtDriverTest, CountsEveryWriteToASilentNode) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  const auto begin = bus::Clock::now();
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 21);
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(2100));
  EXPECT_LT(took, milliseconds(5000));
  EXPECT_EQ(far_end.Frames(), FramesOf(tt_script::WholeSetUp()));
}

TEST_F(TtDriverTest, ADerivedMakeMayReplacePartsOfTheSetUp) {
  class OwnMode : public TtDriver {
   public:
    using TtDriver::TtDriver;
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
  far_end.AnswerSdo(1).Abort(0);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 101) << "its count is added";
  EXPECT_EQ(driver.calls, (Texts{"heartbeat of node 1 every 2000", "mode of node 1"}));
  EXPECT_EQ(far_end.Frames(), FramesOf(tt_script::kPdos));
}

// --- ActiveNode ----------------------------------------------------------------------------------

constexpr auto kIsActive = "601#4040600000000000";
constexpr auto kNotActive = "581#8040600000000206";
constexpr auto kActivation = "001#1010";

// Passes the filters of both identifiers, without being one of them.
constexpr auto kSameNumberButExtended = "00000701#00";

// The frames that a node sends once it was activated, and what ActiveNode makes of them.
struct Awakening {
  const char* name;
  Texts frames;
  int confirmations;
  Texts left;  // in the queue
};

void PrintTo(const Awakening& awakening, std::ostream* out) { *out << awakening.name; }

// The same frame several times, then others.
Texts Repeated(std::size_t times, const char* frame, const Texts& then = {}) {
  Texts frames(times, frame);
  frames.insert(frames.end(), then.begin(), then.end());
  return frames;
}

class TtAwakeningTest : public bus::BusTest, public ::testing::WithParamInterface<Awakening> {};

TEST_P(TtAwakeningTest, IsJudgedByTwoConfirmations) {
  const Awakening& p = GetParam();
  bus::FarEnd far_end;
  TtDriver driver("can0");
  far_end.Expect(kIsActive).Reply(kNotActive);
  auto activation = far_end.Expect(kActivation);
  for (const std::string& frame : p.frames) {
    activation.Reply(frame, milliseconds(500));
  }
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  const bool result = driver.ActiveNode(1);
  const auto took = bus::Clock::now() - begin;
  capture.Stop();
  EXPECT_EQ(result, p.confirmations == 2);
  EXPECT_EQ(WithoutNumbers(capture.Out()), p.confirmations == 2
                                               ? "[INFO] Active node id = 1\n"
                                               : "[ERROR] failed to active node1, flag = " +
                                                     std::to_string(p.confirmations) + "\n\n");
  EXPECT_GE(took, milliseconds(2000));
  EXPECT_LT(took, milliseconds(4000));
  EXPECT_EQ(TakeQueued(driver), p.left);

  // Heartbeat and emergency messages of the node stay the only frames heard.
  for (const char* foreign : {"181#01", "481#02", "581#03", "702#00", "082#00", "000#0101"}) {
    far_end.Send(foreign);
  }
  Queue(driver, far_end, {"701#05", "081#0102"});
  EXPECT_EQ(TakeQueued(driver), (Texts{"701#05", "081#0102"}));
}

// clang-format off
const Awakening kAwakenings[] = {
    {"BootUpThenNoError", {"701#00", "081#0000000000000000"}, 2, {}},
    {"NoErrorThenBootUp", {"081#0000000000000000", "701#00"}, 2, {}},
    {"TwoBootUps", {"701#00", "701#00"}, 2, {}},
    {"TwoNoErrorsAndAThirdLeftUnread",
     {"081#0000000000000000", "081#0000000000000000", "081#0000000000000000"}, 2,
     {"081#0000000000000000"}},
    {"Nothing", {}, 0, {}},
    {"BootUpOnly", {"701#00"}, 1, {}},
    {"NoErrorOnly", {"081#0000000000000000"}, 1, {}},
    {"HeartbeatsThatAreNoBootUp", {"701#05", "701#7F", "701#04", "701#0000", "701#", "701#00"}, 1, {}},
    {"EmergenciesWithAnError",
     {"081#0100000000000000", "081#0001000000000000", "081#0000010000000000", "081#0000000100000000",
      "081#0000000001000000", "081#0000000000010000", "081#0000000000000100", "081#0000000000000001"},
     0, {}},
    {"EmergenciesThatAreShort", {"081#00000000000000", "081#00", "081#", "701#00"}, 1, {}},
    {"OtherKindsOfFrame",
     {kSameNumberButExtended, "701#R1", "081#R8", "00000081#0000000000000000"}, 0, {}},
    {"ForeignFramesCostNoPass",
     Repeated(12, "702#00", {"082#0000000000000000", "581#00", "181#0000000000000000", "701#00",
                             "081#0000000000000000"}),
     2, {}},
    {"InTheLastTwoPasses", Repeated(8, "701#05", {"701#00", "081#0000000000000000"}), 2, {}},
    {"OnePassTooLate", Repeated(9, kSameNumberButExtended, {"701#00", "081#0000000000000000"}), 1,
     {"081#0000000000000000"}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Frames, TtAwakeningTest, ::testing::ValuesIn(kAwakenings),
                         [](const ::testing::TestParamInfo<Awakening>& test) {
                           return std::string(test.param.name);
                         });

TEST_F(TtDriverTest, ActiveNodeTellsThatTheNodeIsActiveAlready) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect(kIsActive).Reply("581#4B40600006000000");
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(driver.ActiveNode(1));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(1000));
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 has been actived\n\n");
  ExpectHearsEverything(driver, far_end);
}

// A node that is asked over the bus nothing but to become active.
class Inactive : public TtDriver {
 public:
  using TtDriver::TtDriver;
  bool IsActived(std::uint8_t node) override {
    asked.push_back(node);
    return active;
  }
  bool active = false;
  std::vector<int> asked;
};

TEST_F(TtDriverTest, ADerivedMakeMayTellWhetherTheNodeIsActive) {
  bus::FarEnd far_end;
  Inactive driver("can0");
  driver.active = true;
  far_end.ExpectSilence();
  EXPECT_TRUE(driver.ActiveNode(127));
  EXPECT_EQ(driver.asked, std::vector<int>{127});
}

TEST_F(TtDriverTest, ActiveNodeForgetsWhatCameBeforeAndAddressesTheNode) {
  bus::FarEnd far_end;
  Inactive driver("can0");
  Queue(driver, far_end, {"77F#00", "0FF#0000000000000000"});
  far_end.Expect("07F#1010").Reply("77F#00", milliseconds(500));
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(driver.ActiveNode(127));
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(2000 + 9 * 10)) << "a pause in each other pass";
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[ERROR] failed to active node127, flag = 1\n\n");
}

TEST_F(TtDriverTest, ActiveNodeTellsThatItCouldNotSend) {
  Inactive driver("can0");
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  // The second frame that waits fails with ENOBUFS; the receive thread notices nothing.
  bus::TrafficControl("netem limit 1 delay 10s");
  EXPECT_TRUE(driver.SetSpeed(1, 0));
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(driver.ActiveNode(1));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(1000)) << "nothing to wait for";
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] write error, nbytes = -1, sys errno: 105\n"
            "[WARN] node1 write command failed\n");
  // The filters are in force all the same.
  far_end.Send("181#01");
  Queue(driver, far_end, {"701#05", "081#0102"});
  EXPECT_EQ(TakeQueued(driver), (Texts{"701#05", "081#0102"}));
}

// --- Speeds --------------------------------------------------------------------------------------

TEST_F(TtDriverTest, SetSpeedSendsTheVelocityUnchanged) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  far_end.ExpectAll({"201#E8030000", "202#18FCFFFF", "27F#FFFFFF7F", "201#00000080", "2FF#78563412",
                     "201#00000000"});
  EXPECT_TRUE(driver.SetSpeed(1, 1000));
  EXPECT_TRUE(driver.SetSpeed(2, -1000));
  EXPECT_TRUE(driver.SetSpeed(127, INT_MAX));
  EXPECT_TRUE(driver.SetSpeed(1, INT_MIN));
  EXPECT_TRUE(driver.SetSpeed(255, 0x12345678));
  EXPECT_TRUE(driver.SetSpeed(1, 0));
}

TEST_F(TtDriverTest, SetSpeedTellsThatNothingWasSent) {
  TtDriver driver("nocan");
  EXPECT_FALSE(driver.SetSpeed(1, 1));
}

TEST_F(TtDriverTest, GetSpeedTurnsPositionsOfTwoNodesIntoRpm) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  StartFrom(driver, far_end, "181#00000000");
  StartFrom(driver, far_end, "182#00000000");
  // Bytes behind the position are none of its business.
  Queue(driver, far_end,
        {"181#00800000FFFFFFFF", "182#0080FFFF", "181#00800000", "182#0180FFFF", "181#00000100"});
  ExpectReading(Read(driver), 1, 6000.0, 32768);
  ExpectReading(Read(driver), 2, -6000.0, -32768);
  ExpectReading(Read(driver), 1, 0.0, 32768);
  ExpectReading(Read(driver), 2, 0.18310546875, -32767);
  ExpectReading(Read(driver), 1, 6000.0, 65536);
  ExpectEmptyQueue(Read(driver));
}

TEST_F(TtDriverTest, GetSpeedSurvivesTheWrapAroundOfAPosition) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  StartFrom(driver, far_end, "181#F0FFFFFF");
  StartFrom(driver, far_end, "182#FFFFFF7F");
  Queue(driver, far_end, {"181#10000000", "182#00000080"});
  ExpectReading(Read(driver), 1, 5.859375, 16);
  ExpectReading(Read(driver), 2, 0.18310546875, INT_MIN);
}

TEST_F(TtDriverTest, GetSpeedDividesByThePeriodOfTheSetUp) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  far_end.AnswerSdo(2);
  driver.EnableSpeedModeAndPdoMode(2, 7);
  StartFrom(driver, far_end, "182#00000000");
  Queue(driver, far_end, {"182#43420F00"});
  ExpectReading(Read(driver), 2, 1'000'003 * (1.0 / 32768) / 7 * 60.0 * 1000.0, 1'000'003);
  driver.EnableSpeedModeAndPdoMode(2, 0);
  Queue(driver, far_end, {"182#42420F00"});
  ExpectReading(Read(driver), 2, -HUGE_VAL, 1'000'002);
}

TEST_F(TtDriverTest, GetSpeedOfAnyOtherFrameIsTrueAndWritesNothing) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  StartFrom(driver, far_end, "181#00000000");
  const Texts others = {"183#00800000", "180#00800000", "281#00800000", "00000181#00800000",
                        "181#R8",       "581#",         "001#"};
  Queue(driver, far_end, others);
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    ExpectReading(Read(driver), 99, 0.5, 1111);
  }
  Queue(driver, far_end, {"181#00800000"});
  ExpectReading(Read(driver), 1, 6000.0, 32768);
}

TEST_F(TtDriverTest, GetSpeedReadsMissingBytesAsZero) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  StartFrom(driver, far_end, "181#00000000");
  Queue(driver, far_end, {"181#0080", "181#"});
  ExpectReading(Read(driver), 1, 6000.0, 32768);
  ExpectReading(Read(driver), 1, -6000.0, 0);
}

TEST_F(TtDriverTest, AllObjectsShareThePreviousPositions) {
  bus::FarEnd far_end;
  far_end.AnswerSdo(1);
  {
    TtDriver driver("can0");
    StartFrom(driver, far_end, "181#00800000");
    StartFrom(driver, far_end, "182#00000000");
    driver.EnableSpeedModeAndPdoMode(1, 10);
  }
  TtDriver driver("can0");
  Queue(driver, far_end, {"181#00000100", "182#00800000"});
  ExpectReading(Read(driver), 1, 6000.0, 65536);
  ExpectReading(Read(driver), 2, 6000.0, 32768);
}

// --- CheckStatus ---------------------------------------------------------------------------------

struct Checked {
  bool result;
  std::chrono::nanoseconds took;
  std::string out;
};

// CheckStatus(1) with frames that arrive while it sleeps for the first time.
Checked CheckStatusOfNode1(TtDriver& driver, bus::FarEnd& far_end, const Texts& frames) {
  for (int attempt = 1;; ++attempt) {
    support::OutputCapture capture;
    const auto begin = bus::Clock::now();
    bus::Clock::time_point sent;
    std::thread node([&] {
      std::this_thread::sleep_for(milliseconds(30));
      for (const std::string& frame : frames) {
        far_end.Send(frame);
      }
      sent = bus::Clock::now();
    });
    const bool result = driver.CheckStatus(1);
    const auto took = bus::Clock::now() - begin;
    node.join();
    capture.Stop();
    // On a machine that stalled the frames may have come after the first look at the queue.
    if (sent - begin < milliseconds(80) || attempt == 5) {
      return {result, took, WithoutNumbers(capture.Out())};
    }
    driver.ClearReadQueue();
  }
}

void ExpectHearsOnlyReportsOfNode1(TtDriver& driver, bus::FarEnd& far_end) {
  for (const char* foreign : {"182#01", "701#05", "581#03", "481#02"}) {
    far_end.Send(foreign);
  }
  Queue(driver, far_end, {"181#0102"});
  EXPECT_EQ(TakeQueued(driver), Texts{"181#0102"});
}

constexpr auto kWorks = "[INFO] node1 motor works\n\n";
constexpr auto kFails = "[ERROR] node1 motor error\r\n\n";
constexpr auto kNoReport = "00000181#00000000";  // passes the filter as an extended identifier

TEST_F(TtDriverTest, CheckStatusSucceedsWithTheFirstPositionReport) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  far_end.ExpectSilence();
  const Checked checked = CheckStatusOfNode1(driver, far_end, {"181#", "181#01"});
  EXPECT_TRUE(checked.result);
  EXPECT_EQ(checked.out, kWorks);
  EXPECT_GE(checked.took, milliseconds(100)) << "ten periods, then the first look";
  EXPECT_EQ(TakeQueued(driver), Texts{"181#01"});
  ExpectHearsOnlyReportsOfNode1(driver, far_end);
}

TEST_F(TtDriverTest, CheckStatusSucceedsInTheTenthAttempt) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  const Checked checked = CheckStatusOfNode1(driver, far_end, Repeated(9, kNoReport, {"181#"}));
  EXPECT_TRUE(checked.result);
  EXPECT_EQ(checked.out, kWorks);
  EXPECT_GE(checked.took, milliseconds(1000));
}

TEST_F(TtDriverTest, CheckStatusFailsAfterTenAttempts) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  Queue(driver, far_end, {"181#00000000"});  // from before: proves nothing
  const Checked checked = CheckStatusOfNode1(driver, far_end, Repeated(10, kNoReport, {"181#"}));
  EXPECT_FALSE(checked.result);
  EXPECT_EQ(checked.out, kFails);
  EXPECT_GE(checked.took, milliseconds(1000));
  EXPECT_LT(checked.took, milliseconds(2500));
  EXPECT_EQ(TakeQueued(driver), Texts{"181#"});
  ExpectHearsOnlyReportsOfNode1(driver, far_end);
}

TEST_F(TtDriverTest, CheckStatusWaitsTenOfThePeriodsThatWereSetUp) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  far_end.AnswerSdo(127);
  driver.EnableSpeedModeAndPdoMode(127, 2);
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(driver.CheckStatus(127));
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(200));
  EXPECT_LT(took, milliseconds(1000));
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[ERROR] node127 motor error\r\n\n");
}

// --- SaveAllParams -------------------------------------------------------------------------------

TEST_F(TtDriverTest, SaveAllParamsTellsWhetherTheDriveConfirmed) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  support::OutputCapture capture;
  Queue(driver, far_end, {"181#01"});
  far_end.Expect("601#2310100173617665").Reply("181#02").Reply("581#6010100100000000");
  EXPECT_TRUE(driver.SaveAllParams(1));
  ExpectHearsEverything(driver, far_end);
  far_end.Expect("67F#2310100173617665").Reply("5FF#8010100120000008");
  EXPECT_FALSE(driver.SaveAllParams(127));
  ExpectHearsEverything(driver, far_end);
  EXPECT_EQ(capture.Out(), "");
  far_end.Expect("602#2310100173617665");
  EXPECT_FALSE(driver.SaveAllParams(2));
  ExpectHearsEverything(driver, far_end);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x582, index: 0x1010, sub: 0x01\n");
}

}  // namespace
