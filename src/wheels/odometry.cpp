#include "wheels/odometry.h"

#include <algorithm>
#include <cmath>

namespace motor_driver {
namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr double kSpeedWindowMs = 100;
constexpr double kStandingWindowMs = Milliseconds(kStandingTime).count();
constexpr double kMsPerMinute = 60'000;

// No wheel motor is faster. A longer way is a counter that began anew unheard.
constexpr double kImpossibleRpm = 30'000;

// Reports that come closer to each other than this part of a period came together.
constexpr double kTogether = 0.15;
// The drive's clock is not the host's; one late report must not shift the phase much.
constexpr int kPhaseShare = 16;
// How much older than wanted the gaps may be between which speed is measured, if only they are
// complete.
constexpr double kSlackLatest = 8;
constexpr double kSlackBefore = 16;

}  // namespace

void Odometry::Add(std::uint32_t counts, Clock::time_point arrival) {
  const auto way = static_cast<std::int32_t>(counts - last_counts_);
  const auto since_last = arrival - last_arrival_;
  last_counts_ = counts;
  last_arrival_ = arrival;
  if (count_ == 0) {
    restarts_ = false;
    phase_ = arrival;
    return Begin(1, 0, arrival);
  }

  const bool close = Milliseconds(since_last) < kTogether * Milliseconds(period_);
  if (close && way == 0 && std::abs(CountsPerPeriod(rpm_)) >= 1) {
    return;  // the same report twice
  }
  const bool together = close && !Back(0).complete();
  const double late = Milliseconds(arrival - phase_) / Milliseconds(period_);
  const double periods = together ? 0 : std::max(0.0, std::round(late));
  const bool restarted = restarts_ || IsImpossible(way, periods);
  restarts_ = false;
  const std::int64_t position = Back(0).position + (restarted ? 0 : way);

  if (periods > 0) {
    phase_ += std::chrono::duration_cast<Clock::duration>(Milliseconds(period_) * periods);
    Begin(periods, position, arrival);
  } else {
    if (way == 0 && Back(0).complete()) {
      return;  // nothing new of a wheel that stands
    }
    Gap& gap = Latest();
    gap.position = position;
    gap.arrival = arrival;
    ++gap.reports;
    ++gap.reports_end;
  }
  if (periods > 0) {
    phase_ += (arrival - phase_) / kPhaseShare;
  }
  MeasureSpeed();
}

void Odometry::Begin(double periods, std::int64_t position, Clock::time_point arrival) {
  Gap gap;
  gap.periods = periods;
  gap.reports = 1;
  gap.end = periods;
  gap.reports_end = 1;
  gap.position = position;
  gap.arrival = arrival;
  if (count_ > 0) {
    const Gap& before = Back(0);
    lost_ += static_cast<std::uint32_t>(std::max(0.0, before.periods - before.reports));
    gap.end += before.end;
    gap.reports_end += before.reports_end;
  }
  gaps_[next_] = gap;
  next_ = (next_ + 1) % kKept;
  count_ = std::min(count_ + 1, kKept);
}

bool Odometry::IsImpossible(std::int32_t way, double periods) const {
  return std::abs(static_cast<double>(way)) >
         CountsPerPeriod(kImpossibleRpm) * (periods + 1) + counts_per_revolution_;
}

// Between gaps that are complete, unless too many reports are lost for that: where the last report
// of a gap may be missing, its position is of a time that nobody knows.
void Odometry::MeasureSpeed() {
  const double window = std::max(1.0, PeriodsOf(kSpeedWindowMs));
  const std::size_t to = Find(Settled(), 0, std::max(window, kSlackLatest));
  const std::size_t from = Find(to, window, window + kSlackBefore);
  rpm_ = Rpm(Back(from), Back(to));
}

// The youngest gap that ended `after_periods` or longer before the one of `age`, preferably one of
// the complete ones not much older than `within_periods`; the oldest of all if there is none.
std::size_t Odometry::Find(std::size_t age, double after_periods, double within_periods) const {
  const double end = Back(age).end;
  std::size_t found = age;
  while (found + 1 < count_ && end - Back(found).end < after_periods) {
    ++found;
  }
  for (std::size_t other = found; other < count_ && end - Back(other).end <= within_periods;
       ++other) {
    if (Back(other).complete()) {
      return other;
    }
  }
  return found;
}

double Odometry::Rpm(const Gap& from, const Gap& to) const {
  const double periods = to.end - from.end;
  return periods > 0
             ? static_cast<double>(to.position - from.position) / periods / CountsPerPeriod(1)
             : 0;
}

double Odometry::CountsPerPeriod(double rpm) const {
  return rpm / kMsPerMinute * counts_per_revolution_ * static_cast<double>(period_.count());
}

double Odometry::PeriodsOf(double ms) const { return ms / static_cast<double>(period_.count()); }

bool Odometry::StandsSince(Clock::time_point since) const {
  const double window = std::max(1.0, PeriodsOf(kStandingWindowMs));
  const std::size_t latest = Settled();
  const Gap& to = Back(latest);
  for (std::size_t age = latest + 1; age < count_ && Back(age).arrival > since; ++age) {
    const Gap& from = Back(age);
    const double periods = to.end - from.end;
    if (periods >= window - 0.5) {
      // After a pause it may be that nothing was lost, and all of it is late from now on.
      const bool enough = (to.reports_end - from.reports_end) * 2 >= periods;
      return enough && std::abs(Rpm(from, to)) < kStandingRpm;
    }
  }
  return false;
}

}  // namespace motor_driver
