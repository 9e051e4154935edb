// Speeds that the Kinco drive is commanded and that it tells: what depends on the resolution that
// the host gives, and on the node.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "one_motor_reading.h"

namespace {

constexpr unsigned long kPulses = 10000;

class KincoSpeedsTest : public bus::BusTest {};

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

TEST_F(KincoSpeedsTest, SpeedsAreZeroUntilTheyAreEnabled) {
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

TEST_F(KincoSpeedsTest, SpeedsAreConvertedToTheUnitOfTheDrive) {
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

TEST_F(KincoSpeedsTest, ACoarseEncoderMayLeaveNothing) {
  EXPECT_EQ(Commanded(0, 1000), "00000000");
  EXPECT_EQ(Commanded(3, 1000), "00000000") << "less than one unit per rpm";
  EXPECT_EQ(Commanded(4, 1000), "E8030000");
  EXPECT_EQ(Commanded(1UL << 55U, 1000), "00000000") << "times 512 is 0 in 64 bits";
}

TEST_F(KincoSpeedsTest, SpeedsHaveThePrecisionOfAFloat) {
  EXPECT_EQ(Commanded(10000, 12347), "30550202") << "33707312 instead of 33707310";
  EXPECT_EQ(Commanded(10000, -12347), "D0AAFDFD");
  EXPECT_EQ(Commanded(4, 16777217), "00000001") << "so has the speed in rpm";
  EXPECT_EQ(Commanded(100000003, 1), "ACAAA001") << "and the units per rpm: 27306668";
}

TEST_F(KincoSpeedsTest, SpeedsBeyondTheRangeSaturate) {
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

// --- Measured speeds -----------------------------------------------------------------------------

// To the last bits but two: the counts of a revolution are not a power of two.
void ExpectSpeed(const Reading& reading, int node, double rpm, int counts) {
  EXPECT_TRUE(reading.result);
  EXPECT_EQ(reading.node, node);
  EXPECT_DOUBLE_EQ(reading.rpm, rpm);
  EXPECT_EQ(reading.counts, counts);
}

void SetUpNode1(KincoDriver& driver, bus::FarEnd& far_end, std::uint16_t period_ms) {
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.EnableSpeedModeAndPdoMode(1, period_ms), 0);
  ASSERT_TRUE(WaitQueued(driver, 1));
  driver.ClearReadQueue();
}

TEST_F(KincoSpeedsTest, EachOfTheFirstFourNodesHasItsOwnPosition) {
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

TEST_F(KincoSpeedsTest, GetSpeedDividesByResolutionAndPeriod) {
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

TEST_F(KincoSpeedsTest, GetSpeedWithoutPeriodOrResolutionIsNotFinite) {
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

}  // namespace
