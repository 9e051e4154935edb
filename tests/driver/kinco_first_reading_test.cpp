// A binary of its own: positions and period are zero only until they are set in a process.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"

namespace {

class KincoFirstReadingTest : public bus::BusTest {};

TEST_F(KincoFirstReadingTest, StartsFromZero) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", 10000);
  // A frame of another node is not a reading.
  Queue(driver, far_end, {"185#00000100", "182#E8030000", "182#E8030000"});
  std::uint8_t node = 0;
  double rpm = 0;
  int counts = 0;
  EXPECT_FALSE(driver.GetSpeed(node, rpm, counts));
  EXPECT_TRUE(driver.GetSpeed(node, rpm, counts));
  EXPECT_EQ(node, 2);
  EXPECT_DOUBLE_EQ(rpm, 600.0);
  EXPECT_TRUE(driver.GetSpeed(node, rpm, counts));
  EXPECT_EQ(rpm, 0.0);
}

TEST_F(KincoFirstReadingTest, ThePeriodIsZeroUntilInit) {
  EXPECT_EQ(g_period, 0);
  bus::FarEnd far_end;
  KincoDriver driver("can0", 10000);
  far_end.Expect("601#4000180500000000").Reply("581#4F00180500000000");
  EXPECT_TRUE(driver.CheckReportPeriod(1));
  far_end.Expect("601#4000180500000000").Reply("581#8000180500000206");
  EXPECT_TRUE(driver.CheckReportPeriod(1)) << "what cannot be read counts as zero";
}

}  // namespace
