// Commanded and measured speeds of the wheels, as a log has them.
#include <algorithm>
#include <deque>

#include "identifiers.h"
#include "pdo_fields.h"
#include "report.h"
#include "target_velocities.h"

namespace motorctl {
namespace {

// A measured speed is the mean of so long before it; of less it would be coarse.
constexpr std::int64_t kMean = 100'000'000;
constexpr std::int64_t kShortest = 45'000'000;
// After so long without a report it begins anew: what happened meanwhile is not known.
constexpr std::int64_t kLongest = 1'000'000'000;

struct Position {
  std::int64_t nanoseconds = 0;
  std::uint32_t counts = 0;
};

class Follower {
 public:
  Follower(const ReportSetup& setup, const Report& report,
           const std::function<void(const SpeedPoint&, const WheelReport&)>& take)
      : make_(*setup.make),
        report_(report),
        take_(take),
        units_(motor_driver::UnitsPerRpm(make_, setup.vehicle.counts_per_revolution)),
        counts_(static_cast<double>(
            motor_driver::CountsPerRevolution(make_, setup.vehicle.counts_per_revolution))),
        positions_(report.wheels.size()) {
    for (auto& motors : wheels_) std::fill(std::begin(motors), std::end(motors), -1);
    for (std::size_t wheel = 0; wheel < report.wheels.size(); ++wheel) {
      const motor_driver::Wheel& each = report.wheels[wheel].wheel;
      if (each.node < 0 || each.node > 127 || each.motor < 1) continue;
      if (each.motor > static_cast<int>(motor_driver::kMaxMotors)) continue;
      wheels_[each.node][each.motor - 1] = static_cast<int>(wheel);
    }
  }

  void Hear(const KeptFrame& frame) {
    if (frame.kind != LoggedFrame::Kind::kData || frame.extended || frame.segment) return;
    const std::uint32_t base = frame.id & ~0x7FU;
    const std::uint32_t node = frame.id & 0x7FU;
    if (base == kHeartbeat && frame.data[0] == 0) {
      for (const int wheel : wheels_[node]) {
        if (wheel >= 0) positions_[static_cast<std::size_t>(wheel)].clear();
      }
    } else {
      ForEachTarget(make_, base, frame.data, frame.length,
                    [&](int motor, double units) { Command(wheels_[node][motor], frame, units); });
      ForEachMotor(
          make_, make_.position, base, frame.data, frame.length,
          [&](int motor, std::uint32_t value) { Measure(wheels_[node][motor], frame, value); });
    }
  }

 private:
  // Of the motor, in rpm of the wheel.
  double OfWheel(int wheel, double value) const {
    const motor_driver::Wheel& each = report_.wheels[static_cast<std::size_t>(wheel)].wheel;
    return make_.direction * value / each.gear_ratio * (each.mirrored ? -1 : 1);
  }

  void Tell(int wheel, const KeptFrame& frame, bool measured, double rpm, std::int64_t mean_of) {
    SpeedPoint point;
    point.wheel = static_cast<std::size_t>(wheel);
    point.nanoseconds = frame.nanoseconds;
    point.line = frame.line;
    point.measured = measured;
    point.rpm = rpm == 0 ? 0 : rpm;  // no zero with a sign
    point.mean_of = mean_of;
    take_(point, report_.wheels[point.wheel]);
  }

  void Command(int wheel, const KeptFrame& frame, double units) {
    if (wheel < 0) return;
    Tell(wheel, frame, false, OfWheel(wheel, units / units_), 0);
  }

  void Measure(int wheel, const KeptFrame& frame, std::uint32_t counts) {
    if (wheel < 0) return;
    const std::int64_t now = frame.nanoseconds;
    std::deque<Position>& positions = positions_[static_cast<std::size_t>(wheel)];
    if (!positions.empty() && now - positions.back().nanoseconds > kLongest) positions.clear();
    while (positions.size() > 1 && now - positions[1].nanoseconds >= kMean) positions.pop_front();
    if (!positions.empty() && now - positions.front().nanoseconds >= kShortest) {
      const Position& before = positions.front();
      const auto moved = static_cast<std::int32_t>(counts - before.counts);
      const double minutes = static_cast<double>(now - before.nanoseconds) / 60e9;
      Tell(wheel, frame, true, OfWheel(wheel, moved / counts_ / minutes), now - before.nanoseconds);
    }
    // Of reports at once the last one counts, and there are no more than the mean is of.
    constexpr std::size_t kMostPositions = 256;
    if (positions.size() == kMostPositions) positions.pop_front();
    positions.push_back({now, counts});
  }

  const Make& make_;
  const Report& report_;
  const std::function<void(const SpeedPoint&, const WheelReport&)>& take_;
  const double units_;
  const double counts_;
  int wheels_[128][motor_driver::kMaxMotors] = {};
  std::vector<std::deque<Position>> positions_;
};

}  // namespace

void FollowSpeeds(const ReportLog& log, const ReportSetup& setup, const Report& report,
                  const std::function<void(const SpeedPoint&, const WheelReport&)>& take) {
  if (setup.make == nullptr || report.wheels.empty()) return;
  Follower follower(setup, report, take);
  for (const KeptFrame& frame : log.frames) follower.Hear(frame);
}

}  // namespace motorctl
