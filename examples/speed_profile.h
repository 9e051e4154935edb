// The motion of the drive cycle.
#pragma once

#include <array>
#include <cstddef>

#include "make.h"

struct ProfilePoint {
  std::size_t phase;
  const char* name;
  TargetRpm target;
  bool settled;  // long enough at this target for the measured speed to be judged
};

// Forward, one wheel slower, backward with the other wheel slower, stop. In each phase the first
// third is a ramp; after it the wheels have kSettling seconds to come to the commanded speed.
class SpeedProfile {
 public:
  static constexpr std::size_t kMovingPhases = 3;
  static constexpr double kSettling = 0.3;
  static constexpr double kShortest = 4.0;

  // `rpm`: highest speed; `seconds`: length of the motion, kShortest or more.
  SpeedProfile(int rpm, double seconds);

  double seconds() const { return seconds_; }

  // `second`: time since the start of the motion.
  ProfilePoint At(double second) const;

 private:
  struct Phase {
    const char* name;
    double length;
    TargetRpm target;
  };

  double seconds_;
  std::array<Phase, kMovingPhases + 1> phases_;
};
