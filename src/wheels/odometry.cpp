#include "wheels/odometry.h"

#include <algorithm>
#include <cmath>

namespace motor_driver {
namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr double kSpeedWindowMs = 100;
constexpr double kStandingWindowMs = 200;
constexpr double kStandingRpm = 1.0;
constexpr double kMsPerMinute = 60'000;

// No wheel motor is faster. A longer way is a counter that began anew unheard.
constexpr double kImpossibleRpm = 30'000;

// The host's clock and the drive's are not the same; a late report must not shift much.
constexpr int kPhaseShare = 16;

}  // namespace

void Odometry::Add(std::uint32_t counts, Clock::time_point arrival) {
  if (count_ == 0) {
    restarts_ = false;
    last_counts_ = counts;
    BeginGroup(1);
    Push(0, 0, arrival);
    phase_ = arrival;
    return;
  }
  const double late = Milliseconds(arrival - phase_) / Milliseconds(period_);
  const double periods = std::max(0.0, std::round(late));
  auto delta = static_cast<std::int32_t>(counts - last_counts_);
  last_counts_ = counts;

  const double longest = kImpossibleRpm / kMsPerMinute * counts_per_revolution_ *
                         static_cast<double>(period_.count()) * (periods + 1);
  if (restarts_ || std::abs(static_cast<double>(delta)) > longest + counts_per_revolution_) {
    restarts_ = false;
    delta = 0;
  }

  if (periods > 0) {
    phase_ += std::chrono::duration_cast<Clock::duration>(Milliseconds(period_) * periods);
    BeginGroup(periods);
  } else {
    const bool should_have_moved = std::abs(rpm_) / kMsPerMinute * counts_per_revolution_ *
                                       static_cast<double>(period_.count()) >=
                                   1;
    if (delta == 0) {
      // The same report twice; or, of a wheel that stands, one of a burst, which adds nothing.
      if (!should_have_moved && LostInGroup() > 0) {
        ++group_reports_;
      }
      return;
    }
    ++group_reports_;
  }
  // An early report shows that the ones before were late.
  const auto error = arrival - phase_;
  phase_ += error < Clock::duration::zero() ? error : error / kPhaseShare;

  Push(group_begin_ + group_periods_, Latest().position + delta, arrival);
  ShareGroup();
  MeasureSpeed();
}

void Odometry::BeginGroup(double periods) {
  lost_ += LostInGroup();
  group_begin_ = count_ == 0 ? -periods : Latest().time;
  group_periods_ = periods;
  group_reports_ = 1;
  group_samples_ = 0;
}

std::uint32_t Odometry::LostInGroup() const {
  const double missing = group_periods_ - static_cast<double>(group_reports_);
  return missing > 0 ? static_cast<std::uint32_t>(missing) : 0;
}

void Odometry::Push(double time, std::int64_t position, Clock::time_point arrival) {
  samples_[next_] = {time, position, arrival};
  next_ = (next_ + 1) % kKept;
  count_ = std::min(count_ + 1, kKept);
  ++group_samples_;
}

// Reports that arrive together were sent one period after the other.
void Odometry::ShareGroup() {
  const std::size_t samples = std::min(group_samples_, count_);
  for (std::size_t age = 1; age < samples; ++age) {
    samples_[(next_ + kKept - 1 - age) % kKept].time =
        group_begin_ + group_periods_ * static_cast<double>(group_reports_ - age) /
                           static_cast<double>(group_reports_);
  }
}

void Odometry::MeasureSpeed() {
  const double window = std::max(1.0, kSpeedWindowMs / static_cast<double>(period_.count()));
  std::size_t age = 1;
  while (age + 1 < count_ && Latest().time - Back(age).time < window) {
    ++age;
  }
  rpm_ = Rpm(Back(age), Latest());
}

double Odometry::Rpm(const Sample& from, const Sample& to) const {
  const double ms = (to.time - from.time) * static_cast<double>(period_.count());
  if (ms <= 0) {
    return 0;
  }
  return static_cast<double>(to.position - from.position) / counts_per_revolution_ / ms *
         kMsPerMinute;
}

bool Odometry::StandsSince(Clock::time_point since) const {
  const double window = std::max(1.0, kStandingWindowMs / static_cast<double>(period_.count()));
  // A burst after a pause tells of earlier: what counts has arrived in as long a time.
  const auto arrivals = Milliseconds(kStandingWindowMs) - 2 * Milliseconds(period_);
  for (std::size_t age = 1; age < count_ && Back(age).arrival > since; ++age) {
    if (Latest().time - Back(age).time >= window - 0.5 &&
        Latest().arrival - Back(age).arrival >= arrivals) {
      return std::abs(Rpm(Back(age), Latest())) < kStandingRpm;
    }
  }
  return false;
}

}  // namespace motor_driver
