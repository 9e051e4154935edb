#include <amps_driver.h>
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "amps_script.h"
#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "one_motor_reading.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

using Texts = std::vector<std::string>;
using SetUpOutcome = std::tuple<int, std::string, Texts>;  // failures, printed, sent

class AmpsDriverTest : public bus::BusTest {};

TEST_F(AmpsDriverTest, HasEncodersOf4096Counts) {
  AMPSDriver driver("can0");
  EXPECT_EQ(driver.GetNumberOfPulsesPerRevolution(), 4096U);
}

TEST_F(AmpsDriverTest, IsADriveLikeAnyOther) {
  bus::FarEnd far_end;
  const std::unique_ptr<DriverCommon> driver = std::make_unique<AMPSDriver>("can0");
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(driver->SetSpeedMode(1), 0);
  EXPECT_TRUE(driver->Init(1, 1, 10));
  EXPECT_TRUE(driver->SetSpeed(1, 100));
  EXPECT_TRUE(far_end.WaitFrames(4 + 2 + 8 + 1));
  EXPECT_EQ(far_end.Frames().back(), "601#2BF02F0964000000");
  far_end.ExpectAll({"000#8101", "000#8001", "000#0101", "000#0100"});
  EXPECT_TRUE(driver->ResetNode(1));
  driver->StartNode(1);
  driver->StartAllNode();
  EXPECT_TRUE(driver->ActiveNode(1));
  EXPECT_TRUE(driver->CheckStatus(1));
  EXPECT_TRUE(driver->SaveAllParams(1));
  EXPECT_FALSE(driver->SetSpeed(1, 100, 200));
  EXPECT_FALSE(driver->SetSpeed(1, 100, 200, 300, 400));
  Queue(*driver, far_end, {"181#0000000000000000"});
  std::uint8_t node = 0;
  double rpm = 0;
  int counts = 0;
  EXPECT_TRUE(driver->GetSpeed(node, rpm, counts));
  EXPECT_EQ(node, 1);
  EXPECT_EQ(driver->GetNumberOfPulsesPerRevolution(), 4096U);
}

TEST_F(AmpsDriverTest, KeepsTheDefaultsOfWhatItDoesNotOverride) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
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

TEST_F(AmpsDriverTest, ActivationCheckAndSavingDoNothingAndSucceed) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  support::OutputCapture capture;
  far_end.ExpectSilence();
  EXPECT_TRUE(driver.ActiveNode(1));
  EXPECT_TRUE(driver.CheckStatus(1));
  EXPECT_TRUE(driver.SaveAllParams(1));
  capture.Stop();
  EXPECT_EQ(capture.Out(), "");
  AMPSDriver off("nocan");
  EXPECT_TRUE(off.ActiveNode(1));
  EXPECT_TRUE(off.CheckStatus(1));
  EXPECT_TRUE(off.SaveAllParams(1));
}

// --- Set-up --------------------------------------------------------------------------------------

TEST_F(AmpsDriverTest, SetSpeedModeSelectsVelocityModeAndEnables) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  support::OutputCapture capture;
  Queue(driver, far_end, {"181#01"});
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.SetSpeedMode(1), 0);
  capture.Stop();
  EXPECT_EQ(far_end.Frames(), FramesOf(amps_script::kSpeedMode));
  EXPECT_EQ(capture.Out(), "");
  ExpectHearsEverything(driver, far_end);
}

struct SetUpCase : NodeAndPeriod {
  const char* request;       // identifier
  const char* inhibit_time;  // frame 2, counted from 0
};

class AmpsSetUpTest : public bus::BusTest, public ::testing::WithParamInterface<SetUpCase> {};

TEST_P(AmpsSetUpTest, WritesEveryObjectAndHearsEverythingAfterwards) {
  const SetUpCase& p = GetParam();
  Texts expected = FramesOf(amps_script::WholeSetUp());
  EXPECT_EQ(expected.size(), 4U);
  expected[2] = p.inhibit_time;

  const auto set_up = [&] {
    bus::FarEnd far_end;
    AMPSDriver driver("can0");
    far_end.AnswerSdo(p.node);
    support::OutputCapture capture;
    const int failures = driver.EnableSpeedModeAndPdoMode(p.node, p.period_ms);
    capture.Stop();
    EXPECT_TRUE(far_end.WaitFrames(expected.size()));
    const SetUpOutcome outcome = {failures, WithoutNumbers(capture.Out()), far_end.Frames()};
    ExpectHearsEverything(driver, far_end);
    return outcome;
  };
  const SetUpOutcome success = {0, "", ToNode(p.request, expected)};
  EXPECT_EQ(UpToThreeTimes(success, set_up), success);
}

INSTANTIATE_TEST_SUITE_P(NodesAndPeriods, AmpsSetUpTest,
                         ::testing::Values(SetUpCase{{1, 10}, "601", "#2B0018030A000000"},
                                           SetUpCase{{2, 300}, "602", "#2B0018032C010000"},
                                           SetUpCase{{127, 65535}, "67F", "#2B001803FFFF0000"},
                                           SetUpCase{{3, 0}, "603", "#2B00180300000000"}),
                         [](const ::testing::TestParamInfo<SetUpCase>& test) {
                           return NameOf(test.param);
                         });

TEST_F(AmpsDriverTest, CountsAndTellsEveryRefusedWriteOnOneLine) {
  const auto refused = [](auto set_up, std::size_t frames) {
    bus::FarEnd far_end;
    AMPSDriver driver("can0");
    far_end.AnswerSdo(1).AbortAll();
    support::OutputCapture capture;
    const int failures = set_up(driver);
    capture.Stop();
    EXPECT_EQ(capture.Err(), "");
    EXPECT_TRUE(far_end.WaitFrames(frames));
    return SetUpOutcome(failures, WithoutNumbers(capture.Out()), far_end.Frames());
  };
  const auto all = amps_script::WholeSetUp();
  const SetUpOutcome whole = {4, PrintedBy(all), FramesOf(all)};
  EXPECT_EQ(UpToThreeTimes(whole,
                           [&] {
                             return refused(
                                 [](DriverCommon& d) { return d.EnableSpeedModeAndPdoMode(1, 10); },
                                 all.size());
                           }),
            whole);
  const auto& mode = amps_script::kSpeedMode;
  const SetUpOutcome speed_mode = {2, PrintedBy(mode), FramesOf(mode)};
  EXPECT_EQ(
      UpToThreeTimes(
          speed_mode,
          [&] { return refused([](DriverCommon& d) { return d.SetSpeedMode(1); }, mode.size()); }),
      speed_mode);
}

TEST_F(AmpsDriverTest, CountsEveryWriteToASilentNode) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 4);
  EXPECT_EQ(far_end.Frames(), FramesOf(amps_script::WholeSetUp()));
  ExpectHearsEverything(driver, far_end);
}

TEST_F(AmpsDriverTest, InitSetsUpBothNodesAndHearsOnlyTheirPositions) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  support::OutputCapture capture;
  far_end.AnswerSdo(1);
  far_end.AnswerSdo(2);
  Queue(driver, far_end, {"181#01", "182#02"});
  EXPECT_TRUE(driver.Init(1, 2, 10));
  capture.Stop();
  Texts expected = FramesOf(amps_script::WholeSetUp());
  const Texts second = ToNode("602", expected);
  expected.insert(expected.end(), second.begin(), second.end());
  EXPECT_EQ(far_end.Frames(), expected);
  EXPECT_EQ(capture.Out(), "");
  EXPECT_EQ(TakeQueued(driver), Texts{});

  for (const char* foreign : {"183#01", "701#05", "581#6000", "582#6000", "281#01", "081#02"}) {
    far_end.Send(foreign);
  }
  Queue(driver, far_end, {"181#03", "182#04"});
  EXPECT_EQ(TakeQueued(driver), (Texts{"181#03", "182#04"}));
  // Nor do the answers to speed commands come in.
  EXPECT_TRUE(driver.SetSpeed(1, 5));
  Queue(driver, far_end, {"182#05"});
  EXPECT_EQ(TakeQueued(driver), Texts{"182#05"});
}

TEST_F(AmpsDriverTest, InitForgetsWhatCameBefore) {
  class NoSetUp : public AMPSDriver {
   public:
    using AMPSDriver::AMPSDriver;
    std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t, std::uint16_t) override { return 7; }
  };
  bus::FarEnd far_end;
  NoSetUp driver("can0");
  far_end.ExpectSilence();
  Queue(driver, far_end, {"181#01", "581#02"});
  EXPECT_TRUE(driver.Init(1, 2, 10));
  EXPECT_EQ(TakeQueued(driver), Texts{});
}

TEST_F(AmpsDriverTest, InitSucceedsEvenIfNobodyAgrees) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  support::OutputCapture capture;
  far_end.AnswerSdo(5).AbortAll();
  far_end.AnswerSdo(127).AbortAll();
  EXPECT_TRUE(driver.Init(5, 127, 10));
  capture.Stop();
  EXPECT_EQ(capture.Out(),
            PrintedBy(amps_script::WholeSetUp()) + PrintedBy(amps_script::WholeSetUp()));
  for (const char* foreign : {"181#01", "182#02", "585#6000"}) {
    far_end.Send(foreign);
  }
  Queue(driver, far_end, {"185#03", "1FF#04"});
  EXPECT_EQ(TakeQueued(driver), (Texts{"185#03", "1FF#04"}));
}

TEST_F(AmpsDriverTest, ADerivedMakeMayReplacePartsOfTheSetUp) {
  class OwnParts : public AMPSDriver {
   public:
    using AMPSDriver::AMPSDriver;
    std::uint16_t SetSpeedMode(std::uint8_t node) override {
      calls.push_back("mode of node " + std::to_string(node));
      return 100;
    }
    std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) override {
      calls.push_back("node " + std::to_string(node) + " every " + std::to_string(period_ms));
      return AMPSDriver::EnableSpeedModeAndPdoMode(node, period_ms);
    }
    bool SetHeartbeatPacket(std::uint8_t, std::uint16_t) override {
      calls.emplace_back("heartbeat");
      return true;
    }
    Texts calls;
  };
  bus::FarEnd far_end;
  OwnParts driver("can0");
  far_end.AnswerSdo(1).Abort(1);
  far_end.AnswerSdo(3);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 101) << "its count is added";
  EXPECT_TRUE(driver.Init(3, 1, 20));
  EXPECT_EQ(driver.calls, (Texts{"node 1 every 10", "mode of node 1", "node 3 every 20",
                                 "mode of node 3", "node 1 every 20", "mode of node 1"}));
}

// --- Speeds --------------------------------------------------------------------------------------

TEST_F(AmpsDriverTest, SetSpeedWritesAllFourBytesUnderATwoByteCommand) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  far_end.ExpectAll({"601#2BF02F0970110100", "602#2BF02F09C4FFFFFF", "67F#2BF02F0900000000",
                     "601#2BF02F09FFFFFF7F", "6FF#2BF02F0900000080"});
  EXPECT_TRUE(driver.SetSpeed(1, 70000));
  EXPECT_TRUE(driver.SetSpeed(2, -60));
  EXPECT_TRUE(driver.SetSpeed(127, 0));
  EXPECT_TRUE(driver.SetSpeed(1, INT_MAX));
  EXPECT_TRUE(driver.SetSpeed(255, INT_MIN));
}

TEST_F(AmpsDriverTest, SetSpeedWaitsForNoAnswerAndLeavesItInTheQueue) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  far_end.Expect("601#2BF02F0901000000").Reply("581#60F02F0900000000", milliseconds(300));
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(driver.SetSpeed(1, 1));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(200));
  ASSERT_TRUE(WaitQueued(driver, 1));
  ExpectReading(Read(driver), 99, 0.5, 1111);  // consumed, nothing written
  ExpectEmptyQueue(Read(driver));
  far_end.Expect("601#2BF02F0902000000").Reply("581#80F02F0922000008");
  EXPECT_TRUE(driver.SetSpeed(1, 2)) << "refused, and never known";
}

TEST_F(AmpsDriverTest, SetSpeedSucceedsEvenIfNothingWasSent) {
  AMPSDriver driver("nocan");
  EXPECT_TRUE(driver.SetSpeed(1, 1));
}

TEST_F(AmpsDriverTest, GetSpeedTurnsTheSecondHalfIntoRpm) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  StartFrom(driver, far_end, "181#0000000000000000");
  StartFrom(driver, far_end, "182#0000000000000000");
  Queue(driver, far_end,
        {"181#3700000000100000", "182#3700000000F0FFFF", "181#FFFFFFFF00100000",
         "182#0000000001F0FFFF", "181#0000000000200000"});
  ExpectReading(Read(driver), 1, 6000.0, 4096);
  ExpectReading(Read(driver), 2, -6000.0, -4096);
  ExpectReading(Read(driver), 1, 0.0, 4096);
  ExpectReading(Read(driver), 2, 1.46484375, -4095);
  ExpectReading(Read(driver), 1, 6000.0, 8192);
  ExpectEmptyQueue(Read(driver));
}

TEST_F(AmpsDriverTest, GetSpeedSurvivesTheWrapAroundOfAPosition) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  StartFrom(driver, far_end, "181#00000000F0FFFFFF");
  StartFrom(driver, far_end, "182#00000000FFFFFF7F");
  Queue(driver, far_end, {"181#0000000010000000", "182#0000000000000080"});
  ExpectReading(Read(driver), 1, 46.875, 16);
  ExpectReading(Read(driver), 2, 1.46484375, INT_MIN);
}

TEST_F(AmpsDriverTest, GetSpeedDividesByThePeriodOfTheSetUp) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  far_end.AnswerSdo(2);
  driver.EnableSpeedModeAndPdoMode(2, 7);
  StartFrom(driver, far_end, "182#0000000000000000");
  Queue(driver, far_end, {"182#0000000043420F00"});
  ExpectReading(Read(driver), 2, 1'000'003 * (1.0 / 4096) / 7 * 60.0 * 1000.0, 1'000'003);
  driver.EnableSpeedModeAndPdoMode(2, 0);
  Queue(driver, far_end, {"182#0000000042420F00"});
  ExpectReading(Read(driver), 2, -HUGE_VAL, 1'000'002);
}

TEST_F(AmpsDriverTest, GetSpeedOfAnyOtherFrameIsTrueAndWritesNothing) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  StartFrom(driver, far_end, "181#0000000000000000");
  const Texts others = {"183#0000000000100000",
                        "180#0000000000100000",
                        "281#0000000000100000",
                        "00000181#0000000000100000",
                        "181#R8",
                        "581#",
                        "001#"};
  Queue(driver, far_end, others);
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    ExpectReading(Read(driver), 99, 0.5, 1111);
  }
  Queue(driver, far_end, {"181#0000000000100000"});
  ExpectReading(Read(driver), 1, 6000.0, 4096);
}

TEST_F(AmpsDriverTest, GetSpeedReadsMissingBytesAsZero) {
  bus::FarEnd far_end;
  AMPSDriver driver("can0");
  StartFrom(driver, far_end, "181#0000000000000000");
  Queue(driver, far_end, {"181#FFFFFFFF0010", "181#0000"});
  ExpectReading(Read(driver), 1, 6000.0, 4096);
  ExpectReading(Read(driver), 1, -6000.0, 0);
}

TEST_F(AmpsDriverTest, AllObjectsShareThePreviousPositions) {
  bus::FarEnd far_end;
  far_end.AnswerSdo(1);
  {
    AMPSDriver driver("can0");
    StartFrom(driver, far_end, "181#0000000000100000");
    StartFrom(driver, far_end, "182#0000000000000000");
    driver.EnableSpeedModeAndPdoMode(1, 10);
  }
  AMPSDriver driver("can0");
  Queue(driver, far_end, {"181#0000000000200000", "182#0000000000100000"});
  ExpectReading(Read(driver), 1, 6000.0, 8192);
  ExpectReading(Read(driver), 2, 6000.0, 4096);
}

}  // namespace
