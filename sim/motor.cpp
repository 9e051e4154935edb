#include "sim/motor.h"

#include <algorithm>

#include "sim/frame.h"

namespace sim {
namespace {

constexpr std::int64_t kStepsPerMinute = Time(std::chrono::minutes(1)) / kStep;
// Twice, because a step adds the speeds at its two ends instead of their mean.
constexpr std::int64_t kFractionsPerCount = 2 * kStepsPerMinute * 1'000'000;

}  // namespace

void Motor::Step(std::int64_t target_urpm, std::uint32_t ramp_rpm_per_s) {
  const std::int64_t change = std::int64_t{ramp_rpm_per_s} * kStep.count();
  const std::int64_t before = speed_urpm_;
  speed_urpm_ = std::clamp(target_urpm, before - change, before + change);

  fraction_ += (before + speed_urpm_) * counts_per_revolution_;
  std::int64_t counts = fraction_ / kFractionsPerCount;
  fraction_ %= kFractionsPerCount;
  if (fraction_ < 0) {
    fraction_ += kFractionsPerCount;
    --counts;
  }
  position_ += static_cast<std::uint32_t>(counts);
}

}  // namespace sim
