#include "speed_profile.h"

#include <algorithm>
#include <cmath>

namespace {

int Between(int from, int to, double share) {
  return static_cast<int>(std::lround(from + (to - from) * share));
}

}  // namespace

SpeedProfile::SpeedProfile(int rpm, double seconds)
    : seconds_(seconds),
      phases_{{{"forward", 0.3 * seconds, {rpm, rpm}},
               {"curve", 0.3 * seconds, {rpm, rpm / 2}},
               {"reverse", 0.3 * seconds, {-rpm / 2, -rpm}},
               {"stop", 0.1 * seconds, {0, 0}}}} {}

ProfilePoint SpeedProfile::At(double second) const {
  std::size_t phase = 0;
  while (phase < kMovingPhases && second >= phases_[phase].length) {
    second -= phases_[phase].length;
    ++phase;
  }
  const Phase& now = phases_[phase];
  const TargetRpm from = phase == 0 ? TargetRpm{0, 0} : phases_[phase - 1].target;
  const double ramp = now.length / 3;
  const double share = std::clamp(second / ramp, 0.0, 1.0);
  const TargetRpm target = {Between(from[0], now.target[0], share),
                            Between(from[1], now.target[1], share)};
  return {phase, now.name, target, phase < kMovingPhases && second >= ramp + kSettling};
}
