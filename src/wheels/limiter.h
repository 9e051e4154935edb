// Speeds that approach what is wanted no faster than a vehicle may.
#pragma once

#include <algorithm>
#include <cmath>

namespace motor_driver {

// One step from `speed` towards `goal`: by `up` at most towards higher speed, by `down` at most
// towards zero, and through zero only by way of it.
inline double Approach(double speed, double goal, double up, double down) {
  const bool turns_round = speed * goal < 0;
  const double next = turns_round ? 0 : goal;
  const double step = std::abs(next) > std::abs(speed) ? up : down;
  return speed + std::clamp(next - speed, -step, step);
}

}  // namespace motor_driver
