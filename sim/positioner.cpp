#include "sim/positioner.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "sim/frame.h"

namespace sim {
namespace {

constexpr unsigned kNewSetPoint = 0x10;
constexpr unsigned kAtOnce = 0x20;
constexpr unsigned kRelative = 0x40;

double Rpm(const Motor& motor) { return std::abs(static_cast<double>(motor.speed_urpm())) / 1e6; }

// Of one step, in counts; never less than one count, because less cannot be told apart.
double StepWay(const Motor& motor) {
  constexpr double kStepsPerMinute = 60e6 / static_cast<double>(kStep.count());
  return std::max(1.0, Rpm(motor) * motor.counts_per_revolution() / kStepsPerMinute);
}

// A ramp of `ramp` rpm/s leads from v rpm to rest in v * v / (120 * ramp) revolutions.
constexpr double kTwiceSecondsPerMinute = 120;

}  // namespace

void Positioner::Control(std::uint16_t before, std::uint16_t controlword, std::int32_t target,
                         std::int32_t position) {
  if ((controlword & kNewSetPoint) == 0) acknowledged_ = false;
  if ((controlword & ~before & kNewSetPoint) == 0) return;
  const SetPoint set_point{target, (controlword & kRelative) != 0};
  if (!moving_ || (controlword & kAtOnce) != 0) {
    next_.reset();
    Take(set_point, position);
  } else if (!next_) {
    next_ = set_point;
  } else {
    return;
  }
  acknowledged_ = true;
}

void Positioner::Take(const SetPoint& set_point, std::int32_t position) {
  // What is relative is so to the target before, which has been reached when nothing remains.
  const std::int64_t from = set_point.relative ? -remaining_ : position;
  remaining_ = set_point.target - from;
  moving_ = true;
}

std::int64_t Positioner::Speed(const Motor& motor, std::int64_t limit_urpm,
                               std::uint32_t ramp) const {
  if (!moving_) return 0;
  const double way = std::max(0.0, static_cast<double>(std::abs(remaining_)) - StepWay(motor) + 1);
  const double rpm = std::sqrt(kTwiceSecondsPerMinute * ramp * way / motor.counts_per_revolution());
  const auto urpm = static_cast<std::int64_t>(std::min(rpm * 1e6, static_cast<double>(limit_urpm)));
  return remaining_ < 0 ? -urpm : urpm;
}

void Positioner::Arrive(Motor& motor, std::uint32_t ramp) {
  if (!moving_) return;
  // Passing the target at a speed that the ramp cannot take away is not an arrival.
  const double way = StepWay(motor);
  const double stopping =
      Rpm(motor) * Rpm(motor) / (kTwiceSecondsPerMinute * ramp) * motor.counts_per_revolution();
  if (static_cast<double>(std::abs(remaining_)) > way || stopping > 2 * way) return;
  motor.RestAt(static_cast<std::int32_t>(motor.position() + remaining_));
  remaining_ = 0;
  moving_ = false;
  if (next_) Take(*next_, motor.position());
  next_.reset();
}

}  // namespace sim
