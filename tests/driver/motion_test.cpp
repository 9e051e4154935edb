#include "driver/motion.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using motion::Rpm;

TEST(MotionTest, OneRevolutionInTenMillisecondsIs6000Rpm) {
  EXPECT_EQ(Rpm(4096, 0, 4096, 10), 6000.0);
  EXPECT_EQ(Rpm(0, 4096, 4096, 10), -6000.0);
  EXPECT_EQ(Rpm(1000, 1000, 4096, 10), 0.0);
}

TEST(MotionTest, OneCountIsNotLost) {
  EXPECT_EQ(Rpm(1, 0, 4096, 10), 1.46484375);
  EXPECT_EQ(Rpm(0, 1, 4096, 10), -1.46484375);
}

TEST(MotionTest, APositionThatWrapsAroundKeepsItsSmallStep) {
  EXPECT_EQ(Rpm(16, 0xFFFFFFF0, 4096, 10), 46.875);  // +32 counts
  EXPECT_EQ(Rpm(0xFFFFFFF0, 16, 4096, 10), -46.875);
  EXPECT_EQ(Rpm(0x80000000, 0x7FFFFFFF, 4096, 10), 1.46484375);
}

TEST(MotionTest, TheLargestStepsAreSigned) {
  EXPECT_EQ(Rpm(0x7FFFFFFF, 0, 1, 1), 2'147'483'647 * 60'000.0);
  EXPECT_EQ(Rpm(0x80000000, 0, 1, 1), -2'147'483'648 * 60'000.0);
}

TEST(MotionTest, RoundsInTheOrderDistanceRevolutionPeriodMinute) {
  EXPECT_EQ(Rpm(1'000'003, 0, 4096, 7), 1'000'003 * (1.0 / 4096) / 7 * 60.0 * 1000.0);
  EXPECT_EQ(Rpm(77, 0, 10'000, 3), 77.0 / 10'000 / 3 * 60.0 * 1000.0);
}

TEST(MotionTest, WithoutAPeriodTheSpeedIsNotFinite) {
  EXPECT_EQ(Rpm(1, 0, 4096, 0), HUGE_VAL);
  EXPECT_EQ(Rpm(0, 1, 4096, 0), -HUGE_VAL);
  EXPECT_TRUE(std::isnan(Rpm(5, 5, 4096, 0)));
}

}  // namespace
