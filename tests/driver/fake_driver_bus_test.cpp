#include <fake_driver.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"

namespace {

class FakeDriverBusTest : public bus::BusTest {};

TEST_F(FakeDriverBusTest, SendsNothing) {
  bus::FarEnd far_end;
  FakeDriver driver("can0");
  far_end.ExpectSilence();
  Queue(driver, far_end, {"181#0010000000100000"});
  EXPECT_TRUE(driver.Init(1, 2, 10));
  EXPECT_TRUE(driver.ResetNode(1));
  driver.StartNode(1);
  driver.StartAllNode();
  EXPECT_TRUE(driver.ActiveNode(1));
  EXPECT_EQ(driver.SetSpeedMode(1), 0);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_TRUE(driver.CheckStatus(1));
  EXPECT_TRUE(driver.SaveAllParams(1));
  EXPECT_EQ(driver.GetTpdo0Period(1), 10);
  std::uint32_t value = 0;
  EXPECT_EQ(driver.WriteParam(1, 0x2300, 0x23, 1), 0);
  EXPECT_EQ(driver.ReadParam(1, 0x2300, &value), 0);
  EXPECT_TRUE(driver.SetSpeed(1, 60));
  EXPECT_TRUE(driver.SetSpeed(1, 60, 60));
  EXPECT_TRUE(driver.SetSpeed(1, 60, 60, 60, 60));
  std::uint8_t node = 0;
  double rpm[4] = {};
  int counts[4] = {};
  EXPECT_TRUE(driver.GetSpeed(node, rpm[0], counts[0]));
  EXPECT_TRUE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]));
  EXPECT_TRUE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2], rpm[3],
                              counts[3]));
  EXPECT_EQ(far_end.Frames(), std::vector<std::string>{});
  EXPECT_EQ(TakeQueued(driver), std::vector<std::string>{"181#0010000000100000"})
      << "what arrives is left alone";
}

TEST_F(FakeDriverBusTest, KeepsTheDefaultsOfWhatItDoesNotOverride) {
  bus::FarEnd far_end;
  FakeDriver driver("can0");
  far_end.Expect("601#2B171000D0070000");
  EXPECT_TRUE(driver.SetHeartbeatPacket(1, 2000));
  far_end.Expect("601#4040600000000000").Reply("581#4B40600000000000");
  EXPECT_TRUE(driver.IsActived(1));
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_FALSE(driver.CheckReportPeriod(1));
  EXPECT_TRUE(driver.Init(1, 10));
  EXPECT_EQ(driver.GetErrorCode(1).msg, "unknown");
}

}  // namespace
