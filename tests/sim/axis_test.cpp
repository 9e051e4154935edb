#include "sim/axis.h"

#include <gtest/gtest.h>

#include <limits>

namespace sim {
namespace {

constexpr int kStepsPerSecond = 2000;
constexpr AxisTraits kTraits{4096, 1, 1, 3, 10000, 6000};

void Advance(Axis& axis, int steps) {
  for (int i = 0; i < steps; ++i) axis.Step();
}

Axis Enabled(std::int32_t start_position = 0) {
  Axis axis(kTraits, start_position);
  axis.SetMode(3);
  for (const int word : {0x06, 0x07, 0x0F}) axis.SetControlword(static_cast<std::uint16_t>(word));
  return axis;
}

TEST(MotorTest, CountsExactlyHoweverLongItTurns) {
  Motor motor(4096, 0);
  motor.Step(100'000'000, 1'000'000);  // at speed after one step, half a step's way behind
  for (int i = 1; i < 60 * kStepsPerSecond; ++i) motor.Step(100'000'000, 1'000'000);
  // A minute at 100 rpm less that half a step: 409600 - 1.7 counts.
  EXPECT_EQ(motor.position(), 409598);
}

TEST(MotorTest, CountsTheSameBothWays) {
  Motor forward(4096, 0);
  Motor backward(4096, 0);
  for (int i = 0; i < 12345; ++i) {
    forward.Step(77'000'000, 300);
    backward.Step(-77'000'000, 300);
  }
  EXPECT_NEAR(forward.position(), -backward.position(), 1);
  EXPECT_GT(forward.position(), 1000);
}

TEST(MotorTest, WrapsAroundAt32Bits) {
  Motor forward(4096, std::numeric_limits<std::int32_t>::max());
  Motor backward(4096, std::numeric_limits<std::int32_t>::min());
  for (int i = 0; i < 10; ++i) {
    forward.Step(60'000'000, 1'000'000);
    backward.Step(-60'000'000, 1'000'000);
  }
  EXPECT_LT(forward.position(), -2'147'483'000);
  EXPECT_GT(backward.position(), 2'147'483'000);
}

TEST(MotorTest, FollowsItsRamp) {
  Motor motor(4096, 0);
  for (int i = 0; i < kStepsPerSecond / 2; ++i) motor.Step(1'000'000'000, 100);
  EXPECT_EQ(motor.speed_urpm(), 50'000'000);
  // Half a second at 25 rpm in the mean.
  EXPECT_EQ(motor.position(), 4096 * 25 / 120);
}

TEST(AxisTest, TurnsAtTheTargetVelocityWhenEnabled) {
  Axis axis = Enabled();
  axis.SetTargetVelocity(-100);
  Advance(axis, 100);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), -100.0);
  EXPECT_EQ(axis.VelocityUnits(), -100);
  EXPECT_LT(axis.Position(), 0);
}

TEST(AxisTest, RestsUnlessEnabledAndInVelocityMode) {
  Axis disabled(kTraits, 0);
  disabled.SetMode(3);
  disabled.SetTargetVelocity(100);
  Advance(disabled, 100);
  EXPECT_EQ(disabled.Position(), 0);

  Axis other_mode = Enabled();
  other_mode.SetMode(1);
  other_mode.SetTargetVelocity(100);
  Advance(other_mode, 100);
  EXPECT_EQ(other_mode.Position(), 0);
}

TEST(AxisTest, UsesAccelerationAndDecelerationOfItsObjects) {
  Axis axis = Enabled();
  axis.SetAcceleration(100);
  axis.SetDeceleration(200);
  axis.SetTargetVelocity(50);
  Advance(axis, kStepsPerSecond / 4);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 25.0);
  Advance(axis, kStepsPerSecond / 4);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 50.0);
  axis.SetTargetVelocity(0);
  Advance(axis, kStepsPerSecond / 8);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 25.0);
}

TEST(AxisTest, DeceleratesToRestBeforeItTurnsBack) {
  Axis axis = Enabled();
  axis.SetAcceleration(100);
  axis.SetDeceleration(200);
  axis.SetTargetVelocity(50);
  Advance(axis, kStepsPerSecond / 2);
  axis.SetTargetVelocity(-500);
  Advance(axis, kStepsPerSecond / 4);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 0.0);
  Advance(axis, kStepsPerSecond / 4);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), -25.0);
}

TEST(AxisTest, UsesTheQuickRampWhenTheObjectsAreZero) {
  Axis axis = Enabled();
  axis.SetTargetVelocity(1000);
  Advance(axis, 20);  // 10 ms at 10000 rpm/s
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 100.0);
}

TEST(AxisTest, RampsDownWhenDisabled) {
  Axis axis = Enabled();
  axis.SetTargetVelocity(100);
  Advance(axis, 100);
  axis.SetControlword(0x06);
  Advance(axis, 10);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 50.0);
  Advance(axis, 10);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 0.0);
}

TEST(AxisTest, QuickStopIgnoresASlowDeceleration) {
  Axis axis = Enabled();
  axis.SetDeceleration(1);
  axis.SetTargetVelocity(100);
  Advance(axis, 100);
  axis.SetControlword(0x02);
  EXPECT_EQ(axis.Statusword(), 0x217);
  Advance(axis, 20);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 0.0);
  EXPECT_EQ(axis.Statusword(), 0x250);
}

TEST(AxisTest, StopsOnAFaultAndKeepsTheCodeUntilItIsReset) {
  Axis axis = Enabled();
  axis.SetTargetVelocity(100);
  Advance(axis, 100);
  axis.Trip(0x2310);
  EXPECT_EQ(axis.Statusword(), 0x21F);
  Advance(axis, 20);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 0.0);
  EXPECT_EQ(axis.Statusword(), 0x218);
  axis.SetControlword(0x0F);
  EXPECT_EQ(axis.error_code(), 0x2310);
  axis.SetControlword(0x80);
  EXPECT_EQ(axis.Statusword(), 0x250);
  EXPECT_EQ(axis.error_code(), 0);
}

TEST(AxisTest, AFaultAtRestNeedsNoReactionTime) {
  Axis axis(kTraits, 0);
  axis.Trip(0x3210);
  EXPECT_EQ(axis.Statusword(), 0x218);
}

TEST(AxisTest, NeverExceedsItsHighestSpeed) {
  Axis axis = Enabled();
  axis.SetTargetVelocity(std::numeric_limits<std::int32_t>::min());
  Advance(axis, 2 * kStepsPerSecond);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), -6000.0);
}

TEST(AxisTest, ConvertsTheUnitsOfItsMake) {
  // Counts per minute: 512 * 10000 / 1875 units are one rpm.
  Axis axis({10000, 1875, 512, -3, 10000, 3000, {}, true}, 0);
  axis.SetMode(-3);
  for (const int word : {0x06, 0x07, 0x0F}) axis.SetControlword(static_cast<std::uint16_t>(word));
  axis.SetTargetVelocity(2731);
  Advance(axis, 10);
  EXPECT_NEAR(axis.SpeedRpm(), 1.0001, 0.0001);
  axis.SetTargetVelocity(std::numeric_limits<std::int32_t>::max());
  Advance(axis, 2 * kStepsPerSecond);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 3000.0);
  EXPECT_EQ(axis.VelocityUnits(), 8192000);
}

TEST(AxisTest, AnEmergencyStopStopsOnTheQuickRampAndOutlastsAReset) {
  Axis axis = Enabled();
  axis.SetDeceleration(1);
  axis.SetTargetVelocity(100);
  Advance(axis, 100);
  axis.PressEmergencyStop();
  EXPECT_EQ(axis.Statusword(), 0x250);
  Advance(axis, 20);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 0.0);
  axis.Reset();
  EXPECT_TRUE(axis.emergency_pressed());
  axis.ReleaseEmergencyStop();
  EXPECT_FALSE(axis.emergency_pressed());
}

TEST(AxisTest, AFaultCanBeResetWithoutAControlword) {
  Axis axis(kTraits, 0);
  axis.Trip(0x2310);
  axis.ResetFault();
  EXPECT_EQ(axis.Statusword(), 0x250);
  EXPECT_EQ(axis.error_code(), 0);
}

TEST(AxisTest, ResetGoesBackToTheStartPositionAtRest) {
  Axis axis = Enabled(-5);
  axis.SetTargetVelocity(100);
  Advance(axis, 100);
  axis.Reset();
  EXPECT_EQ(axis.Position(), -5);
  EXPECT_DOUBLE_EQ(axis.SpeedRpm(), 0.0);
  EXPECT_EQ(axis.Statusword(), 0x250);
}

}  // namespace
}  // namespace sim
