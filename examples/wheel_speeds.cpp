#include "wheel_speeds.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

void LatestSpeeds::Add(const MeasuredRpm& rpm) { readings_[count_++ % kWindow] = rpm; }

MeasuredRpm LatestSpeeds::Mean() const {
  MeasuredRpm mean = {};
  const std::size_t present = std::min(count_, kWindow);
  for (std::size_t i = 0; i < present; ++i) {
    for (std::size_t wheel = 0; wheel < mean.size(); ++wheel) {
      mean[wheel] += readings_[i][wheel] / static_cast<double>(present);
    }
  }
  return mean;
}

bool LatestSpeeds::Standing() const {
  const MeasuredRpm mean = Mean();
  return count_ >= kWindow && std::abs(mean[0]) < kStandingRpm && std::abs(mean[1]) < kStandingRpm;
}

void SpeedVerdict::Add(const ProfilePoint& point, const MeasuredRpm& rpm) {
  if (!point.settled) {
    return;
  }
  for (std::size_t wheel = 0; wheel < wheels_; ++wheel) {
    Record& record = records_[wheel][point.phase];
    record.target = point.target[wheel];
    record.sum += rpm[wheel];
    ++record.count;
  }
}

std::size_t SpeedVerdict::judged() const {
  return static_cast<std::size_t>(std::count_if(records_[0].begin(), records_[0].end(),
                                                [](const Record& r) { return r.count > 0; }));
}

bool SpeedVerdict::WithinTolerance() const {
  for (const auto& wheel : records_) {
    for (const Record& record : wheel) {
      if (record.count > 0 && !(std::abs(record.OffPercent()) <= kTolerancePercent)) {
        return false;
      }
    }
  }
  return true;
}

const SpeedVerdict::Record& SpeedVerdict::Worst(std::size_t wheel) const {
  return *std::max_element(records_[wheel].begin(), records_[wheel].end(),
                           [](const Record& a, const Record& b) {
                             if (a.count == 0 || b.count == 0) return b.count > 0;
                             return std::abs(a.OffPercent()) < std::abs(b.OffPercent());
                           });
}

std::string SpeedVerdict::Summary() const {
  if (judged() == 0) {
    return "no speed was held long enough to be judged";
  }
  std::string summary = WithinTolerance() ? "speeds within 2 %" : "SPEEDS OFF BY MORE THAN 2 %";
  for (std::size_t wheel = 0; wheel < wheels_; ++wheel) {
    const Record& worst = Worst(wheel);
    char text[80];
    std::snprintf(text, sizeof(text), "%s wheel %zu %+.2f %% (%.1f of %d rpm)",
                  wheel == 0 ? ":" : ",", wheel + 1, worst.OffPercent(), worst.Mean(),
                  worst.target);
    summary += text;
  }
  return summary;
}

void SpeedTable::Show(double second, const ProfilePoint& point, const MeasuredRpm& measured) {
  if (second < next_) {
    return;
  }
  if (in_place_) {
    next_ = second + 0.1;
    if (drawn_) {
      std::printf("\x1b[%zuA", 2 + wheels_);
    }
    std::printf("\r\x1b[K  %4.1f of %.1f s   %s\n", second, seconds_, point.name);
    std::puts("\x1b[K            target    measured");
    for (std::size_t wheel = 0; wheel < wheels_; ++wheel) {
      std::printf("\x1b[K  wheel %zu %5d rpm %7.1f rpm\n", wheel + 1, point.target[wheel],
                  measured[wheel]);
    }
    drawn_ = true;
  } else {
    next_ = second + 0.5;
    std::printf("%5.1f s  %-8s", second, point.name);
    for (std::size_t wheel = 0; wheel < wheels_; ++wheel) {
      std::printf("%s wheel %zu: %5d rpm, measured %7.1f", wheel == 0 ? "" : "  ", wheel + 1,
                  point.target[wheel], measured[wheel]);
    }
    std::puts("");
  }
  std::fflush(stdout);
}
