#include "sim/axis.h"

#include <algorithm>
#include <cstdlib>

namespace sim {
namespace {

// Statusword: what is above the low byte, by CiA 402.
constexpr unsigned kRemote = 0x0200;
constexpr unsigned kTargetReached = 0x0400;
constexpr unsigned kSetPointAcknowledged = 0x1000;

}  // namespace

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
  if (!Positions()) positioner_.Abandon();
  if (blocked_) {
    motor_.Halt();
  } else {
    Turn();
  }
  SettleAtRest();
}

void Axis::Turn() {
  const std::int64_t target = TargetSpeed();
  const auto before = static_cast<std::uint32_t>(motor_.position());
  motor_.Step(target, Ramp(target));
  positioner_.Moved(
      static_cast<std::int32_t>(static_cast<std::uint32_t>(motor_.position()) - before));
  if (Positions() && !state_.Halted()) positioner_.Arrive(motor_, Ramp(0));
}

void Axis::SetControlword(std::uint16_t controlword) {
  const std::uint16_t before = state_.controlword();
  if (state_.Control(controlword)) ForgetClearedError();
  SettleAtRest();
  if (Positions()) {
    positioner_.Control(before, controlword, target_position_, motor_.position());
  } else {
    positioner_.Abandon();
  }
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

void Axis::AbortConnection(std::uint16_t error_code) {
  switch (abort_connection_) {
    case AbortConnectionOption::kNoAction:
      break;
    case AbortConnectionOption::kFaultSignal:
      Trip(error_code);
      break;
    case AbortConnectionOption::kDisableVoltage:
      state_.DisableVoltage();
      break;
    case AbortConnectionOption::kQuickStop:
      state_.QuickStop();
      break;
  }
  SettleAtRest();
}

std::uint16_t Axis::Statusword() const {
  unsigned word = state_.Statusword();
  if (traits_.statusword_tells_motion) {
    word |= kRemote;
    if (TargetReached()) word |= kTargetReached;
    if (positioner_.Acknowledges()) word |= kSetPointAcknowledged;
  }
  return static_cast<std::uint16_t>(word);
}

bool Axis::Settled() const {
  return motor_.speed_urpm() == TargetSpeed() && (!positioner_.moving() || state_.Halted());
}

bool Axis::TargetReached() const {
  // CiA 402: with an option to stay, the bit tells that the quick stop is over.
  if (state_.state() == DriveState::State::kQuickStopActive) return motor_.speed_urpm() == 0;
  if (state_.state() != DriveState::State::kOperationEnabled || mode_ == 0) return false;
  return Settled();  // with halt, rest is the target
}

bool Axis::Positions() const {
  return state_.state() == DriveState::State::kOperationEnabled && mode_ == kProfilePosition;
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

std::int64_t Axis::Limited(std::int64_t velocity_units) const {
  const std::int64_t limit = std::int64_t{traits_.max_rpm} * 1'000'000;
  const std::int64_t urpm = velocity_units * traits_.rpm_numerator * 1'000'000 / RpmDenominator();
  return std::clamp(urpm, -limit, limit);
}

std::int64_t Axis::TargetSpeed() const {
  if (state_.state() != DriveState::State::kOperationEnabled || state_.Halted()) return 0;
  if (mode_ == kProfileVelocity || mode_ == traits_.velocity_mode) return Limited(target_velocity_);
  if (mode_ != kProfilePosition) return 0;
  const std::int64_t highest = std::int64_t{traits_.max_rpm} * 1'000'000;
  return positioner_.Speed(motor_, profile_velocity_ == 0 ? highest : Limited(profile_velocity_),
                           Ramp(0));
}

std::uint32_t Axis::Ramp(std::int64_t target_urpm) const {
  const bool quick_stop =
      state_.state() == DriveState::State::kQuickStopActive && !state_.SlowsDown();
  const bool emergency = state_.InFault() || state_.InEmergency() || quick_stop;
  const std::int64_t speed = motor_.speed_urpm();
  const bool turns_back = (target_urpm < 0 && speed > 0) || (target_urpm > 0 && speed < 0);
  const bool faster = !turns_back && std::abs(target_urpm) > std::abs(speed);
  const std::uint32_t ramp = faster ? acceleration_ : deceleration_;
  return emergency || ramp == 0 ? traits_.quick_ramp_rpm_per_s : ramp;
}

}  // namespace sim
