// A binary of its own: the previous positions are zero only until the first reading of a process.
#include <gtest/gtest.h>
#include <zl_driver.h>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"

namespace {

class ZlFirstReadingTest : public bus::BusTest {};

TEST_F(ZlFirstReadingTest, StartsFromZero) {
  bus::FarEnd far_end;
  ZlDriver driver("can0");
  // A frame of another node is not a reading.
  Queue(driver, far_end, {"182#0100000001000000", "181#00000100000000C0", "181#00000100001000C0"});
  std::uint8_t node = 0;
  double rpm1 = 0;
  double rpm2 = 0;
  int counts1 = 0;
  int counts2 = 0;
  EXPECT_FALSE(driver.GetSpeed(node, rpm1, counts1, rpm2, counts2));
  EXPECT_TRUE(driver.GetSpeed(node, rpm1, counts1, rpm2, counts2));
  EXPECT_EQ(rpm1, 96000.0);
  EXPECT_EQ(rpm2, -1572864000.0);
  EXPECT_TRUE(driver.GetSpeed(node, rpm1, counts1, rpm2, counts2));
  EXPECT_EQ(rpm1, 0.0);
  EXPECT_EQ(rpm2, 6000.0);
}

}  // namespace
