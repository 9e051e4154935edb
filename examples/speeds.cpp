#include "speeds.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

void SpeedVerdict::Add(std::size_t phase, std::size_t wheel,
                       const motor_driver::WheelReport& report) {
  Record& record = At(phase, wheel);
  if (record.n == 0) {
    record.target = report.target_rpm;
    record.begin = report.measured_at;
    record.first = report.revolutions;
  } else if (record.closed || report.measured_at == record.latest) {
    return;
  }
  record.latest = report.measured_at;
  const double t =
      std::chrono::duration<double, std::ratio<60>>(report.measured_at - record.begin).count();
  const double x = report.revolutions - record.first;
  ++record.n;
  record.t += t;
  record.x += x;
  record.tt += t * t;
  record.tx += t * x;
}

void SpeedVerdict::Leave(std::size_t phase, std::size_t wheel) {
  Record& record = At(phase, wheel);
  if (record.Judged()) {
    record.closed = true;
  } else {
    record = {};
  }
}

std::size_t SpeedVerdict::Judged() const {
  std::size_t judged = 0;
  for (std::size_t phase = 0; phase < phases_; ++phase) {
    bool all = true;
    for (std::size_t wheel = 0; wheel < wheels_.size(); ++wheel) {
      all = all && records_[wheel * phases_ + phase].Judged();
    }
    judged += all ? 1 : 0;
  }
  return judged;
}

bool SpeedVerdict::WithinTolerance() const {
  return std::all_of(records_.begin(), records_.end(), [](const Record& record) {
    return !record.Judged() || std::abs(record.OffPercent()) <= kTolerancePercent;
  });
}

std::string SpeedVerdict::Summary() const {
  std::string summary = WithinTolerance() ? "speeds within 2 %" : "SPEEDS OFF BY MORE THAN 2 %";
  if (!Complete()) {
    summary = "NOT MEASURED: speeds were held long enough in " + std::to_string(Judged()) + " of " +
              std::to_string(phases_) + " phases";
  }
  for (std::size_t wheel = 0; wheel < wheels_.size(); ++wheel) {
    const auto begin = records_.begin() + static_cast<std::ptrdiff_t>(wheel * phases_);
    const Record& worst = *std::max_element(
        begin, begin + static_cast<std::ptrdiff_t>(phases_), [](const Record& a, const Record& b) {
          return b.Judged() && (!a.Judged() || std::abs(a.OffPercent()) < std::abs(b.OffPercent()));
        });
    if (worst.Judged()) {
      char text[80];
      std::snprintf(text, sizeof(text), " %+.2f %% (%.1f of %.0f rpm)", worst.OffPercent(),
                    worst.Rpm(), worst.target);
      summary += (wheel == 0 ? ": " : ", ") + wheels_[wheel] + text;
    }
  }
  return summary;
}

void SpeedTable::Show(double second, const char* phase, const motor_driver::Wheels& wheels) {
  if (second < next_) {
    return;
  }
  next_ = second + (in_place_ ? 0.1 : 0.5);
  if (in_place_) {
    if (drawn_) {
      std::printf("\x1b[%zuA", 2 + wheels_.size());
    }
    std::printf("\r\x1b[K  %4.1f of %.1f s   %s\n", second, seconds_, phase);
    std::puts("\x1b[K            target    measured");
    drawn_ = true;
  } else {
    std::printf("%5.1f s  %-8s", second, phase);
  }
  for (std::size_t wheel = 0; wheel < wheels_.size(); ++wheel) {
    const motor_driver::WheelReport report = wheels.GetWheel(wheel);
    std::printf(in_place_ ? "\x1b[K  %s %5.0f rpm %7.1f rpm\n" : " %s: %5.0f rpm, measured %7.1f ",
                wheels_[wheel].c_str(), report.target_rpm, report.measured_rpm);
  }
  if (!in_place_) {
    std::puts("");
  }
  std::fflush(stdout);
}
