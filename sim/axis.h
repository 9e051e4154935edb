#pragma once

#include <cstdint>

#include "sim/drive_state.h"
#include "sim/motor.h"
#include "sim/positioner.h"

namespace sim {

/// What differs from make to make in one axis.
struct AxisTraits {
  std::int32_t counts_per_revolution = 0;
  // One unit of the target velocity is numerator / denominator rpm (or counts per minute, below).
  std::int64_t rpm_numerator = 1;
  std::int64_t rpm_denominator = 1;
  std::int8_t velocity_mode = 0;  // the mode of operation in which the target velocity counts
  std::uint32_t quick_ramp_rpm_per_s = 0;
  std::int32_t max_rpm = 0;
  StateRules state{};
  bool velocity_in_counts = false;  // velocities are in counts instead of revolutions per minute
  // Bits 9, 10 and 12 of the statusword. Without them its high byte is always 0.
  bool statusword_tells_motion = true;
};

/// Abort connection option code, with the values of 0x6007: what the drive does when its host is
/// gone.
enum class AbortConnectionOption : std::int16_t {
  kNoAction = 0,
  kFaultSignal = 1,
  kDisableVoltage = 2,
  kQuickStop = 3,
};

/// One motor with its CiA 402 objects.
class Axis {
 public:
  static constexpr std::int8_t kProfilePosition = 1;
  static constexpr std::int8_t kProfileVelocity = 3;

  Axis(const AxisTraits& traits, std::int32_t start_position);

  /// A pressed emergency stop stays pressed, a blocked motor blocked.
  void Reset();
  void Step();
  /// Holds the motor still by force; the drive knows nothing of it.
  void Block(bool blocked) { blocked_ = blocked; }

  void SetControlword(std::uint16_t controlword);
  void SetMode(std::int8_t mode) { mode_ = mode; }
  void SetTargetVelocity(std::int32_t units) { target_velocity_ = units; }
  void SetTargetPosition(std::int32_t counts) { target_position_ = counts; }
  /// Of a positioning, in units of the target velocity; 0 stands for the make's highest speed.
  void SetProfileVelocity(std::uint32_t units) { profile_velocity_ = units; }
  void SetQuickStopOption(QuickStopOption option) { state_.SetQuickStopOption(option); }
  void SetAbortConnectionOption(AbortConnectionOption option) { abort_connection_ = option; }
  /// 0 stands for the make's quick ramp.
  void SetAcceleration(std::uint32_t rpm_per_s) { acceleration_ = rpm_per_s; }
  void SetDeceleration(std::uint32_t rpm_per_s) { deceleration_ = rpm_per_s; }
  /// Enters the fault state by way of stopping the motor. A code of 0 keeps the one there is.
  void Trip(std::uint16_t error_code);
  void ResetFault();
  /// An error that is none of the motor's: shown until a fault reset, in whatever state.
  void ShowError(std::uint16_t error_code) { error_code_ = error_code; }
  /// The host is gone: does what the abort connection option says.
  void AbortConnection(std::uint16_t error_code);
  void PressEmergencyStop() { state_.PressEmergencyStop(); }
  void ReleaseEmergencyStop() { state_.ReleaseEmergencyStop(); }

  std::uint16_t Statusword() const;
  /// Nothing changes by itself any more.
  bool Settled() const;
  bool InFault() const { return state_.InFault(); }
  bool emergency_pressed() const { return state_.emergency_pressed(); }
  std::uint16_t error_code() const { return error_code_; }
  std::int8_t mode() const { return mode_; }
  std::int32_t counts_per_revolution() const { return traits_.counts_per_revolution; }
  std::int32_t Position() const { return motor_.position(); }
  std::int32_t VelocityUnits() const;
  double SpeedRpm() const { return static_cast<double>(motor_.speed_urpm()) / 1e6; }

 private:
  void Turn();
  void SettleAtRest();
  void ForgetClearedError();
  bool Positions() const;
  bool TargetReached() const;
  std::int64_t RpmDenominator() const;
  std::int64_t Limited(std::int64_t velocity_units) const;
  std::int64_t TargetSpeed() const;
  std::uint32_t Ramp(std::int64_t target_urpm) const;

  AxisTraits traits_;
  std::int32_t start_position_;
  DriveState state_;
  Motor motor_;
  Positioner positioner_;
  AbortConnectionOption abort_connection_ = AbortConnectionOption::kNoAction;
  std::int8_t mode_ = 0;
  std::int32_t target_velocity_ = 0;
  std::int32_t target_position_ = 0;
  std::uint32_t profile_velocity_ = 0;
  std::uint32_t acceleration_ = 0;
  std::uint32_t deceleration_ = 0;
  std::uint16_t error_code_ = 0;
  bool blocked_ = false;
};

}  // namespace sim
