#pragma once

#include <cstdint>
#include <optional>

#include "sim/motor.h"

namespace sim {

/// Profile position mode of CiA 402: takes set-points by controlword bit 4 (bit 5: at once instead
/// of after the one there is; bit 6: relative) and says how fast to turn. One set-point can wait.
class Positioner {
 public:
  /// To be called with every controlword while positioning.
  void Control(std::uint16_t before, std::uint16_t controlword, std::int32_t target,
               std::int32_t position);
  void Abandon() { *this = Positioner(); }

  /// The highest speed from which the ramp still ends at the target.
  std::int64_t Speed(const Motor& motor, std::int64_t limit_urpm, std::uint32_t ramp) const;
  void Moved(std::int32_t counts) { remaining_ -= counts; }
  /// Brings the motor to rest when it is at the target, and goes on to the set-point that waits.
  void Arrive(Motor& motor, std::uint32_t ramp);

  bool moving() const { return moving_; }
  /// Statusword bit 12: the set-point was taken, and no other can be yet.
  bool Acknowledges() const { return acknowledged_ || next_.has_value(); }

 private:
  struct SetPoint {
    std::int32_t target;
    bool relative;
  };

  void Take(const SetPoint& set_point, std::int32_t position);

  std::optional<SetPoint> next_;
  bool acknowledged_ = false;
  bool moving_ = false;
  std::int64_t remaining_ = 0;  // counts; does not wrap around as positions do
};

}  // namespace sim
