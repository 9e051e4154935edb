#include "sim/axis.h"

#include <algorithm>
#include <cstdlib>

namespace sim {

Axis::Axis(const AxisTraits& traits, std::int32_t start_position)
    : traits_(traits),
      start_position_(start_position),
      state_(traits.state),
      motor_(traits.counts_per_revolution, start_position) {}

void Axis::Reset() {
  const bool pressed = emergency_pressed();
  const bool blocked = blocked_;
  *this = Axis(traits_, start_position_);
  if (pressed) PressEmergencyStop();
  blocked_ = blocked;
}

void Axis::Step() {
  const std::int64_t target = TargetSpeed();
  if (blocked_) {
    motor_.Halt();
  } else {
    motor_.Step(target, Ramp(target));
  }
  SettleAtRest();
}

void Axis::SetControlword(std::uint16_t controlword) {
  state_.Control(controlword);
  SettleAtRest();
  ForgetClearedError();
}

void Axis::ResetFault() {
  state_.ResetFault();
  ForgetClearedError();
}

void Axis::Trip(std::uint16_t error_code) {
  if (error_code != 0) error_code_ = error_code;
  state_.Fault();
  SettleAtRest();
}

void Axis::SettleAtRest() {
  if (motor_.speed_urpm() == 0) state_.Stopped();
}

void Axis::ForgetClearedError() {
  if (!state_.InFault()) error_code_ = 0;
}

std::int64_t Axis::RpmDenominator() const {
  return traits_.velocity_in_counts ? traits_.rpm_denominator * traits_.counts_per_revolution
                                    : traits_.rpm_denominator;
}

std::int32_t Axis::VelocityUnits() const {
  return static_cast<std::int32_t>(motor_.speed_urpm() * RpmDenominator() /
                                   (traits_.rpm_numerator * 1'000'000));
}

std::int64_t Axis::TargetSpeed() const {
  if (state_.state() != DriveState::State::kOperationEnabled || mode_ != traits_.velocity_mode) {
    return 0;
  }
  const std::int64_t limit = std::int64_t{traits_.max_rpm} * 1'000'000;
  const std::int64_t urpm = target_velocity_ * traits_.rpm_numerator * 1'000'000 / RpmDenominator();
  return std::clamp(urpm, -limit, limit);
}

std::uint32_t Axis::Ramp(std::int64_t target_urpm) const {
  const bool emergency = state_.InFault() || state_.InEmergency() ||
                         state_.state() == DriveState::State::kQuickStopActive;
  const bool faster = std::abs(target_urpm) > std::abs(motor_.speed_urpm());
  const std::uint32_t ramp = faster ? acceleration_ : deceleration_;
  return emergency || ramp == 0 ? traits_.quick_ramp_rpm_per_s : ramp;
}

}  // namespace sim
