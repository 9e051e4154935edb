// What only the Kinco drive does: its resolution, its Init and its checks.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using support::WithoutNumbers;

constexpr unsigned long kPulses = 10000;

class KincoDriverTest : public bus::BusTest {};

TEST_F(KincoDriverTest, HasTheResolutionItIsGiven) {
  EXPECT_EQ(KincoDriver("can0", 10000).GetNumberOfPulsesPerRevolution(), 10000U);
  EXPECT_EQ(KincoDriver("can0", 0xFFFFFFFF).GetNumberOfPulsesPerRevolution(), 0xFFFFFFFFU);
  EXPECT_EQ(KincoDriver("can0", 0x100000005).GetNumberOfPulsesPerRevolution(), 5U);
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
            (std::vector<std::string>{"mode of node 1", "start node 2", "period of node 3"}));
  EXPECT_EQ(far_end.Frames().size(), 20U + 1U) << "and the heartbeat";
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

}  // namespace
