#pragma once

#include <cstdint>

namespace sim {

/// A motor with its encoder. Speeds are in millionths of a revolution per minute, so that every
/// ramp of whole rpm/s and every position is exact: nothing is rounded from step to step.
class Motor {
 public:
  Motor(std::int32_t counts_per_revolution, std::int32_t start_position)
      : counts_per_revolution_(counts_per_revolution),
        position_(static_cast<std::uint32_t>(start_position)) {}

  /// Advances by kStep towards the target speed, which may change by `ramp_rpm_per_s`.
  void Step(std::int64_t target_urpm, std::uint32_t ramp_rpm_per_s);

  /// Stands still at once, and during the step.
  void Halt() { speed_urpm_ = 0; }
  /// Comes to rest exactly there, for what is left of a positioning: less than one can see.
  void RestAt(std::int32_t position) {
    position_ = static_cast<std::uint32_t>(position);
    fraction_ = 0;
    speed_urpm_ = 0;
  }

  std::int64_t speed_urpm() const { return speed_urpm_; }
  double counts_per_revolution() const { return static_cast<double>(counts_per_revolution_); }
  /// Wraps around at 32 bits, as an encoder counter does.
  std::int32_t position() const { return static_cast<std::int32_t>(position_); }

 private:
  std::int64_t counts_per_revolution_;
  std::int64_t speed_urpm_ = 0;
  std::uint32_t position_;
  std::int64_t fraction_ = 0;  // of a count, in units of 1/kFractionsPerCount (motor.cpp)
};

}  // namespace sim
