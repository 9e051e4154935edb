#include <amps_driver.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "amps_script.h"
#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "one_motor_reading.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;

using Texts = std::vector<std::string>;

class AmpsDriverTest : public bus::BusTest {};

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

}  // namespace
