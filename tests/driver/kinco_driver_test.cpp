// Bring-up and motion of the Kinco drive.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "kinco_script.h"
#include "log_sources.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

constexpr unsigned long kPulses = 10000;

class KincoDriverTest : public bus::BusTest {};

// Of a node that refuses everything, an answer that comes too late, because the machine stalled for
// 100 ms, changes nothing but this line.
std::string WithoutTimeouts(const std::string& out) {
  std::string kept;
  for (const std::string& line : support::Lines(WithoutNumbers(out))) {
    if (line.find("[WARN] SDO response timeout") != 0) {
      kept += line + "\n";
    }
  }
  return kept;
}

TEST_F(KincoDriverTest, HasTheResolutionItIsGiven) {
  EXPECT_EQ(KincoDriver("can0", 10000).GetNumberOfPulsesPerRevolution(), 10000U);
  EXPECT_EQ(KincoDriver("can0", 0xFFFFFFFF).GetNumberOfPulsesPerRevolution(), 0xFFFFFFFFU);
  EXPECT_EQ(KincoDriver("can0", 0x100000005).GetNumberOfPulsesPerRevolution(), 5U);
}

TEST_F(KincoDriverTest, IsADriveLikeAnyOther) {
  bus::FarEnd far_end;
  const std::unique_ptr<DriverCommon> driver = std::make_unique<KincoDriver>("can0", kPulses);
  support::OutputCapture capture;
  far_end.AnswerSdo(1).Object(0x603F, 0, 0, 2).Object(0x6041, 0, 0x37, 2);
  EXPECT_TRUE(driver->ActiveNode(1));
  EXPECT_TRUE(driver->CheckStatus(1));
  capture.Clear();
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(driver->SetSpeedMode(1), 0);
  EXPECT_TRUE(driver->ClearDriverError(1));
  far_end.ExpectAll({"000#0101", "201#00000000"});
  EXPECT_TRUE(driver->Init(1, 10));
  EXPECT_TRUE(driver->SetSpeed(1, 100));
  EXPECT_EQ(driver->GetNumberOfPulsesPerRevolution(), 10000U);
  EXPECT_EQ(driver->GetDriverStatus(1), DriverStatus::Unknown);
  EXPECT_EQ(driver->GetErrorCode(1).msg, "unknown");
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(KincoDriverTest, KeepsTheDefaultsOfWhatItDoesNotOverride) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  far_end.ExpectSilence();
  EXPECT_FALSE(driver.SetSpeed(1, 100, 200)) << "two motors: reachable through the derived type";
  EXPECT_FALSE(driver.SetSpeed(1, 100, 200, 300, 400));
  std::uint8_t node = 0;
  double rpm[4] = {};
  int counts[4] = {};
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]));
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2],
                               rpm[3], counts[3]));
  EXPECT_TRUE(driver.Init(1, 2, 10));
}

TEST_F(KincoDriverTest, SaysNothingOnTheBusWhereTheMakeHasNothingToSay) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.ExpectSilence();
  EXPECT_TRUE(driver.ResetNode(1));
  driver.StartAllNode();
  EXPECT_TRUE(driver.SaveAllParams(1));
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(KincoDriverTest, InitStartsTheNodeAndKeepsThePeriod) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  far_end.ExpectAll({"000#0101", "000#017F"});
  EXPECT_TRUE(driver.Init(1, 10));
  EXPECT_EQ(g_period, 10);
  EXPECT_TRUE(driver.Init(127, 65535));
  EXPECT_EQ(g_period, 65535) << "the last period of any object";
}

TEST_F(KincoDriverTest, InitSucceedsEvenWhenTheNodeCannotBeStarted) {
  KincoDriver driver("nocan", kPulses);
  support::OutputCapture capture;
  EXPECT_TRUE(driver.Init(1, 20));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] write error, CAN socket is not initialized\n"
            "[ERROR] failed to start node1\n");
  EXPECT_EQ(g_period, 20);
}

TEST_F(KincoDriverTest, ADerivedMakeMayReplaceParts) {
  class OwnParts : public KincoDriver {
   public:
    using KincoDriver::KincoDriver;
    void StartNode(std::uint8_t node) override {
      calls.push_back("start node " + std::to_string(node));
    }
    std::uint16_t SetSpeedMode(std::uint8_t node) override {
      calls.push_back("mode of node " + std::to_string(node));
      return 65535;
    }
    bool SetHeartbeatPacket(std::uint8_t node, std::uint16_t period_ms) override {
      calls.push_back("heartbeat of node " + std::to_string(node) + " every " +
                      std::to_string(period_ms));
      return false;
    }
    std::uint16_t GetTpdo0Period(std::uint8_t node) override {
      calls.push_back("period of node " + std::to_string(node));
      return 12;
    }
    std::vector<std::string> calls;
  };
  bus::FarEnd far_end;
  OwnParts driver("can0", kPulses);
  far_end.AnswerSdo(1).Abort(0).Abort(1);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 1) << "65535 + 2, kept to 16 bits";
  EXPECT_TRUE(driver.Init(2, 12));
  EXPECT_TRUE(driver.CheckReportPeriod(3));
  EXPECT_EQ(driver.calls,
            (std::vector<std::string>{"mode of node 1", "heartbeat of node 1 every 2000",
                                      "start node 2", "period of node 3"}));
  EXPECT_EQ(far_end.Frames().size(), 20U);
}

// --- Set-up --------------------------------------------------------------------------------------

TEST_F(KincoDriverTest, SetSpeedModeSelectsImmediateSpeedAndEnables) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.SetSpeedMode(1), 0);
  EXPECT_EQ(far_end.Frames(), FramesOf(kinco_script::kSpeedMode));
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(KincoDriverTest, SetsUpNode1) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(kinco_script::WholeSetUp().size(), 4U + 20U + 1U);
  EXPECT_TRUE(far_end.WaitFrames(25));
  EXPECT_EQ(far_end.Frames(), FramesOf(kinco_script::WholeSetUp()));
  EXPECT_EQ(capture.Out(), "");
  EXPECT_EQ(capture.Err(), "");
}

// What in the set-up depends on node and period, after the request identifier.
struct SetUpCase : NodeAndPeriod {
  const char* request;       // identifier
  const char* rpdo1;         // write 6, counted from 0
  const char* tpdo1;         // 10
  const char* event_timer;   // 12
  const char* inhibit_time;  // 13
  const char* tpdo4;         // 19
  const char* cob_ids[3];    // as in the failure texts of 6, 10 and 19
};

class KincoSetUpTest : public bus::BusTest, public ::testing::WithParamInterface<SetUpCase> {
 protected:
  static std::vector<SetUpStep> Expected() {
    const SetUpCase& p = GetParam();
    std::vector<SetUpStep> expected = kinco_script::WholeSetUp();
    expected[6] = {p.rpdo1, std::string("write error 0x1400, 0x01, ") + p.cob_ids[0] + "\n"};
    expected[10] = {p.tpdo1, std::string("write error 0x1800, 0x01, ") + p.cob_ids[1] + "\n"};
    expected[12].frame = p.event_timer;
    expected[13].frame = p.inhibit_time;
    expected[19] = {p.tpdo4, std::string("write error 0x1803, 0x01, ") + p.cob_ids[2] + "\n"};
    for (SetUpStep& step : expected) {
      step.frame = p.request + step.frame.substr(step.frame.find('#'));
    }
    return expected;
  }
};

TEST_P(KincoSetUpTest, WritesEveryObject) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.AnswerSdo(GetParam().node);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(GetParam().node, GetParam().period_ms), 0);
  EXPECT_TRUE(far_end.WaitFrames(25));
  EXPECT_EQ(far_end.Frames(), FramesOf(Expected()));
  EXPECT_EQ(capture.Out(), "");
}

TEST_P(KincoSetUpTest, NamesTheIdentifiersOfTheNodeWhereItFails) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.AnswerSdo(GetParam().node).AbortAll();
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(GetParam().node, GetParam().period_ms), 24);
  EXPECT_EQ(WithoutTimeouts(capture.Out()), PrintedBy(Expected()));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    NodesAndPeriods, KincoSetUpTest,
    ::testing::Values(
        SetUpCase{{1, 1}, "601", "#2300140101020000", "#2300180181010000",
                  "#2F00180501000000", "#2F00180301000000", "#2303180181040000", {"201", "181", "481"}},
        SetUpCase{{2, 255}, "602", "#2300140102020000", "#2300180182010000",
                  "#2F001805FF000000", "#2F001803FF000000", "#2303180182040000", {"202", "182", "482"}},
        // The period does not fit the byte: it goes out as it is.
        SetUpCase{{10, 300}, "60A", "#230014010A020000", "#230018018A010000",
                  "#2F0018052C010000", "#2F0018032C010000", "#230318018A040000", {"20a", "18a", "48a"}},
        SetUpCase{{127, 65535}, "67F", "#230014017F020000", "#23001801FF010000",
                  "#2F001805FFFF0000", "#2F001803FFFF0000", "#23031801FF040000", {"27f", "1ff", "4ff"}},
        SetUpCase{{3, 0}, "603", "#2300140103020000", "#2300180183010000",
                  "#2F00180500000000", "#2F00180300000000", "#2303180183040000", {"203", "183", "483"}}),
    [](const ::testing::TestParamInfo<SetUpCase>& test) {
      return NameOf(test.param);
    });
// clang-format on

TEST_F(KincoDriverTest, CountsAndTellsEveryRefusedWrite) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.AnswerSdo(1).AbortAll();
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 24);
  EXPECT_EQ(WithoutTimeouts(capture.Out()), PrintedBy(kinco_script::WholeSetUp()));
  EXPECT_TRUE(far_end.WaitFrames(25));
  EXPECT_EQ(far_end.Frames(), FramesOf(kinco_script::WholeSetUp()));
  capture.Clear();
  EXPECT_EQ(driver.SetSpeedMode(1), 4);
  EXPECT_EQ(WithoutTimeouts(capture.Out()), PrintedBy(kinco_script::kSpeedMode));
  EXPECT_EQ(capture.Err(), "");
}

TEST_F(KincoDriverTest, CountsEveryWriteToASilentNode) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  const auto begin = bus::Clock::now();
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 24);
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(2400));
  EXPECT_LT(took, milliseconds(6000));
  EXPECT_TRUE(far_end.WaitFrames(25));
  EXPECT_EQ(far_end.Frames(), FramesOf(kinco_script::WholeSetUp()));
}

TEST_F(KincoDriverTest, ARefusedHeartbeatIsNotCounted) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.AnswerSdo(1).Abort(24);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(KincoDriverTest, EndsTheSetUpWithAnEmptyQueueButForTheHeartbeatsAnswer) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  Queue(driver, far_end, {"181#01", "481#02"});
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 0);
  ASSERT_TRUE(WaitQueued(driver, 1));
  EXPECT_EQ(TakeQueued(driver), std::vector<std::string>{"581#6017100000000000"});
  ExpectHearsEverything(driver, far_end);
}

// --- ActiveNode ----------------------------------------------------------------------------------

constexpr auto kEnable = "601#2B4060000F000000";
constexpr auto kReadError = "601#403F600000000000";
constexpr auto kResetFault = "601#2B40600086000000";

// ActiveNode(1) of a node with this error, which is told how to answer by `script`.
struct Activation {
  bool result;
  std::vector<std::string> sent;
  std::string out;
};

template <typename Script>
Activation ActiveNode1(std::uint32_t error, Script script) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  script(far_end.AnswerSdo(1).Object(0x603F, 0, error));
  support::OutputCapture capture;
  Activation activation = {driver.ActiveNode(1), {}, ""};
  capture.Stop();
  EXPECT_EQ(capture.Err(), "");
  activation.sent = far_end.Frames();
  activation.out = WithoutNumbers(capture.Out());
  ExpectHearsEverything(driver, far_end);
  return activation;
}

void ConfirmEverything(bus::FarEnd::SdoServer&) {}

std::string TimeoutLine(const char* index) {
  return "[WARN] SDO response timeout, can_id: 0x581, index: " + std::string(index) +
         ", sub: 0x00\n";
}

TEST_F(KincoDriverTest, ActiveNodeTellsThatThereIsNoError) {
  const Activation activation = ActiveNode1(0, ConfirmEverything);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent, (std::vector<std::string>{kEnable, kReadError}));
  EXPECT_EQ(activation.out, "[INFO] node:1 motor no error\n");
}

TEST_F(KincoDriverTest, ActiveNodeClearsAnError) {
  const Activation activation = ActiveNode1(0xFF3A, ConfirmEverything);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent, (std::vector<std::string>{kEnable, kReadError, kResetFault}));
  EXPECT_EQ(activation.out,
            "[ERROR] node:1 motor has error ff3a\n"
            "[INFO] node:1 clear motor error success\n");
}

TEST_F(KincoDriverTest, ActiveNodeLooksAt16BitsOfTheError) {
  EXPECT_EQ(ActiveNode1(0xDEAD0000, ConfirmEverything).out, "[INFO] node:1 motor no error\n");
  EXPECT_EQ(ActiveNode1(0xDEAD0010, ConfirmEverything).out,
            "[ERROR] node:1 motor has error 10\n"
            "[INFO] node:1 clear motor error success\n");
}

TEST_F(KincoDriverTest, ActiveNodeTriesAgainToClear) {
  const auto refuse_twice = [](bus::FarEnd::SdoServer& node) { node.Abort(2).Abort(3); };
  const Activation activation = ActiveNode1(0x2310, refuse_twice);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent,
            (std::vector<std::string>{kEnable, kReadError, kResetFault, kResetFault, kResetFault}));
  EXPECT_EQ(activation.out,
            "[ERROR] node:1 motor has error 2310\n"
            "[ERROR] node:1 clear motor err failed. Sdo write err\n"
            "[ERROR] node:1 clear motor err failed. Sdo write err\n"
            "[INFO] node:1 clear motor error success\n");
}

TEST_F(KincoDriverTest, ActiveNodeSucceedsInTheTenthTry) {
  const auto refuse_nine = [](bus::FarEnd::SdoServer& node) {
    for (std::size_t request = 2; request < 11; ++request) {
      node.Abort(request);
    }
  };
  const Activation activation = ActiveNode1(0x2310, refuse_nine);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent.size(), 12U);
}

TEST_F(KincoDriverTest, ActiveNodeGivesUpAfterTenTries) {
  const auto refuse_ten = [](bus::FarEnd::SdoServer& node) {
    for (std::size_t request = 2; request < 12; ++request) {
      node.Abort(request);
    }
  };
  const Activation activation = ActiveNode1(0x2310, refuse_ten);
  EXPECT_FALSE(activation.result);
  std::vector<std::string> sent = {kEnable, kReadError};
  sent.insert(sent.end(), 10, kResetFault);
  EXPECT_EQ(activation.sent, sent);
  std::string out = "[ERROR] node:1 motor has error 2310\n";
  for (int i = 0; i < 10; ++i) {
    out += "[ERROR] node:1 clear motor err failed. Sdo write err\n";
  }
  EXPECT_EQ(activation.out, out + "[ERROR] node:1 clear err failed\n");
}

TEST_F(KincoDriverTest, ActiveNodeGivesUpOnANodeThatFallsSilent) {
  const auto silent_at_reset = [](bus::FarEnd::SdoServer& node) {
    for (std::size_t request = 2; request < 12; ++request) {
      node.Silence(request);
    }
  };
  const auto begin = bus::Clock::now();
  const Activation activation = ActiveNode1(0x2310, silent_at_reset);
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(1000));
  EXPECT_FALSE(activation.result);
  std::string out = "[ERROR] node:1 motor has error 2310\n";
  for (int i = 0; i < 10; ++i) {
    out += TimeoutLine("0x6040") + "[ERROR] node:1 clear motor err failed. Sdo write err\n";
  }
  EXPECT_EQ(activation.out, out + "[ERROR] node:1 clear err failed\n");
}

TEST_F(KincoDriverTest, ActiveNodeEndsWhenTheNodeCannotBeEnabled) {
  const Activation aborted = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Abort(0); });
  EXPECT_FALSE(aborted.result);
  EXPECT_EQ(aborted.sent, std::vector<std::string>{kEnable});
  EXPECT_EQ(aborted.out, "write error 0x6040, 0x00, 0x000F\n");
  const Activation silent = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Silence(0); });
  EXPECT_FALSE(silent.result);
  EXPECT_EQ(silent.sent, std::vector<std::string>{kEnable});
  EXPECT_EQ(silent.out, TimeoutLine("0x6040") + "write error 0x6040, 0x00, 0x000F\n");
}

TEST_F(KincoDriverTest, ActiveNodeEndsWhenTheErrorCannotBeRead) {
  const Activation aborted = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Abort(1); });
  EXPECT_FALSE(aborted.result);
  EXPECT_EQ(aborted.sent, (std::vector<std::string>{kEnable, kReadError}));
  EXPECT_EQ(aborted.out, "[WARN] node:1 failed to read motor error status\n");
  const Activation silent = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Silence(1); });
  EXPECT_FALSE(silent.result);
  EXPECT_EQ(silent.out,
            TimeoutLine("0x603F") + "[WARN] node:1 failed to read motor error status\n");
}

TEST_F(KincoDriverTest, ActiveNodeAddressesTheNode) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.Expect("67F#2B4060000F000000").Reply("5FF#6040600000000000");
  far_end.Expect("67F#403F600000000000").Reply("5FF#4B3F600000000000");
  EXPECT_TRUE(driver.ActiveNode(127));
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node:127 motor no error\n");
}

TEST_F(KincoDriverTest, LogLinesNameTheOperation) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  far_end.AnswerSdo(1).Object(0x603F, 0, 0x2310, 2).Object(0x6041, 0, 0x37, 2).Abort(2);
  LogSources sources;
  driver.ActiveNode(1);
  driver.CheckStatus(1);
  const std::string source = "./src/driver/kinco_driver.cpp ";
  EXPECT_EQ(
      sources.Heard(),
      (std::vector<std::string>{source + "ActiveNode", source + "ActiveNode", source + "ActiveNode",
                                source + "CheckStatus", source + "CheckStatus"}));
}

// --- CheckStatus and CheckReportPeriod -----------------------------------------------------------

std::string CheckedStatus(std::uint32_t statusword) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  far_end.AnswerSdo(1).Object(0x6041, 0, statusword);
  far_end.ExpectSilence();
  support::OutputCapture capture;
  EXPECT_TRUE(driver.CheckStatus(1));
  capture.Stop();
  EXPECT_EQ(far_end.Frames(), std::vector<std::string>{"601#4041600000000000"});
  return WithoutNumbers(capture.Out());
}

TEST_F(KincoDriverTest, CheckStatusTellsTheStateByTheLowByte) {
  EXPECT_EQ(CheckedStatus(0x37), "[INFO] node: 1 check status: 0x37\n[INFO] node: 1 is ready\n");
  EXPECT_EQ(CheckedStatus(0xAB37),
            "[INFO] node: 1 check status: 0xab37\n[INFO] node: 1 is ready\n");
  EXPECT_EQ(CheckedStatus(0x0250),
            "[INFO] node: 1 check status: 0x250\n[WARN] node: 1 is emergency stop\n");
  EXPECT_EQ(CheckedStatus(0x70),
            "[INFO] node: 1 check status: 0x70\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(CheckedStatus(0), "[INFO] node: 1 check status: 0x0\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(CheckedStatus(0x0218),
            "[INFO] node: 1 check status: 0x218\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(CheckedStatus(0xDEAD0237),
            "[INFO] node: 1 check status: 0x237\n[INFO] node: 1 is ready\n");
}

TEST_F(KincoDriverTest, CheckStatusFailsWhenTheStatusCannotBeRead) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.Expect("602#4041600000000000").Reply("582#8041600000000206");
  EXPECT_FALSE(driver.CheckStatus(2));
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[ERROR] node: 2 failed to read status word\n");
  capture.Clear();
  far_end.Expect("67F#4041600000000000");
  EXPECT_FALSE(driver.CheckStatus(127));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x5FF, index: 0x6041, sub: 0x00\n"
            "[ERROR] node: 127 failed to read status word\n");
  ExpectHearsEverything(driver, far_end);
}

TEST_F(KincoDriverTest, CheckReportPeriodComparesTheEventTimerWithThePeriodOfInit) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  driver.Init(1, 300);
  ASSERT_TRUE(far_end.WaitFrames(1));
  far_end.Expect("601#4000180500000000").Reply("581#4B0018052C010000");
  EXPECT_TRUE(driver.CheckReportPeriod(1));
  far_end.Expect("602#4000180500000000").Reply("582#430018052C010100");
  EXPECT_TRUE(driver.CheckReportPeriod(2)) << "16 bits are kept";
  far_end.Expect("601#4000180500000000").Reply("581#4F0018052C000000");
  EXPECT_FALSE(driver.CheckReportPeriod(1));
  far_end.Expect("601#4000180500000000").Reply("581#8000180500000206");
  EXPECT_FALSE(driver.CheckReportPeriod(1));
}

// --- Speed commands ------------------------------------------------------------------------------

// The data of the frame that SetSpeed(1, rpm) sends.
std::string Commanded(unsigned long pulses_per_revolution, int rpm) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", pulses_per_revolution);
  driver.set_speed_command_enabled(true);
  EXPECT_TRUE(driver.SetSpeed(1, rpm));
  EXPECT_TRUE(far_end.WaitFrames(1));
  const std::vector<std::string> frames = far_end.Frames();
  return frames.size() == 1 && frames[0].substr(0, 4) == "201#" ? frames[0].substr(4) : "wrong";
}

TEST_F(KincoDriverTest, SpeedsAreZeroUntilTheyAreEnabled) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  far_end.ExpectAll({"201#00000000", "201#00000000", "201#30F87C00", "201#00000000"});
  EXPECT_TRUE(driver.SetSpeed(1, 3000));
  EXPECT_TRUE(driver.SetSpeed(1, INT_MIN));
  driver.set_speed_command_enabled(true);
  EXPECT_TRUE(driver.SetSpeed(1, 3000));
  driver.set_speed_command_enabled(false);
  EXPECT_TRUE(driver.SetSpeed(1, 3000));
}

TEST_F(KincoDriverTest, SpeedsAreConvertedToTheUnitOfTheDrive) {
  EXPECT_EQ(Commanded(10000, 0), "00000000");
  EXPECT_EQ(Commanded(10000, 1), "AA0A0000") << "2730, the fraction is dropped first";
  EXPECT_EQ(Commanded(10000, -1), "56F5FFFF");
  EXPECT_EQ(Commanded(10000, 3000), "30F87C00");
  EXPECT_EQ(Commanded(10000, -3000), "D00783FF");
  EXPECT_EQ(Commanded(65536, 1), "E7450000") << "17895";
  EXPECT_EQ(Commanded(65536, -100), "C4B1E4FF");
  EXPECT_EQ(Commanded(10001, 1), "AA0A0000");
  EXPECT_EQ(Commanded(12345, 7), "2D5C0000") << "7 x 3371";
}

TEST_F(KincoDriverTest, ACoarseEncoderMayLeaveNothing) {
  EXPECT_EQ(Commanded(0, 1000), "00000000");
  EXPECT_EQ(Commanded(3, 1000), "00000000") << "less than one unit per rpm";
  EXPECT_EQ(Commanded(4, 1000), "E8030000");
  EXPECT_EQ(Commanded(1UL << 55U, 1000), "00000000") << "times 512 is 0 in 64 bits";
}

TEST_F(KincoDriverTest, SpeedsHaveThePrecisionOfAFloat) {
  EXPECT_EQ(Commanded(10000, 12347), "30550202") << "33707312 instead of 33707310";
  EXPECT_EQ(Commanded(10000, -12347), "D0AAFDFD");
  EXPECT_EQ(Commanded(4, 16777217), "00000001") << "so has the speed in rpm";
  EXPECT_EQ(Commanded(100000003, 1), "ACAAA001") << "and the units per rpm: 27306668";
}

TEST_F(KincoDriverTest, SpeedsBeyondTheRangeSaturate) {
  EXPECT_EQ(Commanded(10000, 786624), "80FFFF7F") << "the largest that fits: 2147483520";
  EXPECT_EQ(Commanded(10000, 786625), "FFFFFF7F");
  EXPECT_EQ(Commanded(10000, -786625), "00000080");
  EXPECT_EQ(Commanded(10000, INT_MAX), "FFFFFF7F");
  EXPECT_EQ(Commanded(10000, INT_MIN), "00000080");
  EXPECT_EQ(Commanded(4, INT_MAX), "FFFFFF7F");
  EXPECT_EQ(Commanded(4, INT_MIN), "00000080");
  EXPECT_EQ(Commanded(ULONG_MAX, 1), "FFFFFF7F");
  EXPECT_EQ(Commanded(ULONG_MAX, -1), "00000080");
}

TEST_F(KincoDriverTest, SetSpeedAddressesTheNode) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  driver.set_speed_command_enabled(true);
  far_end.ExpectAll({"204#AA0A0000", "27F#AA0A0000", "2FF#AA0A0000"});
  EXPECT_TRUE(driver.SetSpeed(4, 1));
  EXPECT_TRUE(driver.SetSpeed(127, 1));
  EXPECT_TRUE(driver.SetSpeed(255, 1));
}

TEST_F(KincoDriverTest, SetSpeedTellsThatNothingWasSent) {
  KincoDriver driver("nocan", kPulses);
  EXPECT_FALSE(driver.SetSpeed(1, 1));
}

// --- Measured speeds -----------------------------------------------------------------------------

struct Speed {
  bool result;
  int node;
  double rpm;
  int counts;
};

Speed Read(KincoDriver& driver) {
  std::uint8_t node = 99;
  Speed s = {true, 0, 0.5, 1111};
  s.result = driver.GetSpeed(node, s.rpm, s.counts);
  s.node = node;
  return s;
}

void ExpectSpeed(const Speed& s, int node, double rpm, int counts) {
  EXPECT_TRUE(s.result);
  EXPECT_EQ(s.node, node);
  EXPECT_DOUBLE_EQ(s.rpm, rpm);
  EXPECT_EQ(s.counts, counts);
}

void ExpectNoSpeed(const Speed& s) {
  EXPECT_FALSE(s.result);
  EXPECT_EQ(s.node, 0);
  EXPECT_EQ(s.rpm, 0.0);
  EXPECT_EQ(s.counts, 0);
}

// The previous positions are the whole process's: this puts them to known values.
void StartFrom(KincoDriver& driver, bus::FarEnd& far_end, const std::string& position_frame) {
  Queue(driver, far_end, {position_frame});
  EXPECT_TRUE(Read(driver).result);
}

void SetUpNode1(KincoDriver& driver, bus::FarEnd& far_end, std::uint16_t period_ms) {
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, period_ms), 0);
  ASSERT_TRUE(WaitQueued(driver, 1));
  driver.ClearReadQueue();
}

TEST_F(KincoDriverTest, GetSpeedTurnsPositionsIntoRpm) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  StartFrom(driver, far_end, "181#00000000");
  Queue(driver, far_end, {"181#E8030000", "181#E8030000", "181#18FCFFFF", "181#18FCFFFFFFFFFFFF"});
  ExpectSpeed(Read(driver), 1, 600.0, 1000);
  ExpectSpeed(Read(driver), 1, 0.0, 1000);
  ExpectSpeed(Read(driver), 1, -1200.0, -1000);
  ExpectSpeed(Read(driver), 1, 0.0, -1000);
}

TEST_F(KincoDriverTest, EachOfTheFirstFourNodesHasItsOwnPosition) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  for (const char* frame : {"181#E8030000", "182#D0070000", "183#B80B0000", "184#A00F0000"}) {
    StartFrom(driver, far_end, frame);
  }
  Queue(driver, far_end, {"184#A10F0000", "183#BA0B0000", "182#D3070000", "181#EC030000"});
  ExpectSpeed(Read(driver), 4, 0.6, 4001);
  ExpectSpeed(Read(driver), 3, 1.2, 3002);
  ExpectSpeed(Read(driver), 2, 1.8, 2003);
  ExpectSpeed(Read(driver), 1, 2.4, 1004);
}

TEST_F(KincoDriverTest, GetSpeedSurvivesTheWrapAroundOfAPosition) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  StartFrom(driver, far_end, "182#F0FFFFFF");
  Queue(driver, far_end,
        {"182#10000000", "182#F0FFFFFF", "182#FFFFFF7F", "182#00000080", "182#FFFFFF7F"});
  ExpectSpeed(Read(driver), 2, 19.2, 16);
  ExpectSpeed(Read(driver), 2, -19.2, -16);
  ExpectSpeed(Read(driver), 2, (INT_MIN + 15.0) / 10000 / 10 * 60 * 1000, INT_MAX);
  ExpectSpeed(Read(driver), 2, 0.6, INT_MIN);
  ExpectSpeed(Read(driver), 2, -0.6, INT_MAX);
}

TEST_F(KincoDriverTest, GetSpeedDividesByResolutionAndPeriod) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", 65536);
  SetUpNode1(driver, far_end, 7);
  StartFrom(driver, far_end, "181#00000000");
  Queue(driver, far_end, {"181#43420F00"});
  ExpectSpeed(Read(driver), 1, 1'000'003 / 65536.0 / 7 * 60 * 1000, 1'000'003);
  SetUpNode1(driver, far_end, 40000);
  StartFrom(driver, far_end, "181#00000000");
  Queue(driver, far_end, {"181#00000100"});
  ExpectSpeed(Read(driver), 1, 1.5, 65536);
}

TEST_F(KincoDriverTest, GetSpeedWithoutPeriodOrResolutionIsNotFinite) {
  bus::FarEnd far_end;
  {
    KincoDriver driver("can0", kPulses);
    SetUpNode1(driver, far_end, 0);
    StartFrom(driver, far_end, "181#00000000");
    Queue(driver, far_end, {"181#01000000", "181#00000000", "181#00000000"});
    EXPECT_EQ(Read(driver).rpm, HUGE_VAL);
    EXPECT_EQ(Read(driver).rpm, -HUGE_VAL);
    EXPECT_TRUE(std::isnan(Read(driver).rpm));
  }
  KincoDriver driver("can0", 0);
  Queue(driver, far_end, {"181#01000000"});
  EXPECT_EQ(Read(driver).rpm, HUGE_VAL);
}

TEST_F(KincoDriverTest, GetSpeedOfAnEmptyQueueGivesZeroes) {
  KincoDriver driver("can0", kPulses);
  ExpectNoSpeed(Read(driver));
}

TEST_F(KincoDriverTest, GetSpeedDropsEveryOtherFrame) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  StartFrom(driver, far_end, "181#00000000");
  const std::vector<std::string> others = {
      "180#E8030000",      "185#E8030000", "281#E8030000", "481#E8030000",
      "00000181#E8030000", "181#R4",       "581#",         "001#"};
  Queue(driver, far_end, others);
  Queue(driver, far_end, {"181#E8030000"});
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    const std::uint32_t before = driver.GetReadQueueSize();
    ExpectNoSpeed(Read(driver));
    EXPECT_EQ(driver.GetReadQueueSize(), before - 1);
  }
  ExpectSpeed(Read(driver), 1, 600.0, 1000);
}

TEST_F(KincoDriverTest, GetSpeedReadsMissingBytesAsZero) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  StartFrom(driver, far_end, "183#00000000");
  Queue(driver, far_end, {"183#E803", "183#"});
  ExpectSpeed(Read(driver), 3, 600.0, 1000);
  ExpectSpeed(Read(driver), 3, -600.0, 0);
}

TEST_F(KincoDriverTest, AllObjectsShareThePreviousPositions) {
  bus::FarEnd far_end;
  KincoDriver first("can0", kPulses);
  KincoDriver second("can0", kPulses);
  StartFrom(first, far_end, "181#00000000");
  ASSERT_TRUE(WaitQueued(second, 1));
  second.ClearReadQueue();
  far_end.Send("181#E8030000");
  ASSERT_TRUE(WaitQueued(first, 1));
  ASSERT_TRUE(WaitQueued(second, 1));
  ExpectSpeed(Read(first), 1, 600.0, 1000);
  ExpectSpeed(Read(second), 1, 0.0, 1000);
}

// --- Faults --------------------------------------------------------------------------------------

TEST_F(KincoDriverTest, ClearDriverErrorResetsAndEnables) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.Expect(kResetFault).Reply("581#6040600000000000");
  far_end.Expect(kEnable).Reply("581#6040600000000000");
  EXPECT_TRUE(driver.ClearDriverError(1));
  EXPECT_EQ(capture.Out(), "");
  far_end.Expect("67F#2B40600086000000").Reply("5FF#6040600000000000");
  far_end.Expect("67F#2B4060000F000000").Reply("5FF#6040600000000000");
  EXPECT_TRUE(driver.ClearDriverError(127));
}

TEST_F(KincoDriverTest, ClearDriverErrorEndsWithTheFirstFailure) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.Expect(kResetFault).Reply("581#8040600022000008");
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_EQ(capture.Out(), "write error 0x6040, 0x00, 0x0086\n");
  capture.Clear();
  far_end.Expect(kResetFault);
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            TimeoutLine("0x6040") + "write error 0x6040, 0x00, 0x0086\n");
  capture.Clear();
  far_end.Expect(kResetFault).Reply("581#6040600000000000");
  far_end.Expect(kEnable).Reply("581#8040600022000008");
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_EQ(capture.Out(), "write error 0x6040, 0x00, 0x000F\n");
}

}  // namespace
