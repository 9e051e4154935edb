#include "wheels/judge.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "wheels/troubles.h"

namespace motor_driver {
namespace {

using std::chrono::nanoseconds;

constexpr double kFollows = 0.5;  // of the target
constexpr double kFollowsRpm = 5;
constexpr auto kFollowTime = std::chrono::seconds(1);
// A supervision hears the same frame a little later, and knows more: an emergency stop is not an
// error.
constexpr auto kSupervisionLag = std::chrono::milliseconds(100);

bool IsDisabled(const HeardOfNode& heard, std::size_t motors) {
  return heard.has_statusword &&
         !std::all_of(heard.statuswords.begin(),
                      heard.statuswords.begin() + static_cast<std::ptrdiff_t>(motors), IsEnabled);
}

}  // namespace

double WheelRpm(const Wheel& wheel, double motor_rpm) {
  return (wheel.mirrored ? -motor_rpm : motor_rpm) / wheel.gear_ratio;
}

double MotorRpmOf(const Wheel& wheel, double wheel_rpm) {
  return (wheel.mirrored ? -wheel_rpm : wheel_rpm) * wheel.gear_ratio;
}

Judge::Judge(Drives& drives)
    : drives_(drives), silences_(drives.nodes().size()), off_(drives.vehicle().wheels.size()) {}

void Judge::Restart() {
  for (std::size_t node = 0; node < silences_.size(); ++node) {
    const HeardOfNode heard = drives_.watch().Node(node);
    silences_[node] = {};
    silences_[node].absences = heard.absences;
    silences_[node].errors = heard.errors;
  }
  std::fill(off_.begin(), off_.end(), nanoseconds(0));
}

bool Judge::Listen(nanoseconds passed) {
  if (drives_.make().simulated) {
    return false;
  }
  bool gone = drives_.BusFailed();
  for (std::size_t node = 0; node < silences_.size(); ++node) {
    const HeardOfNode heard = drives_.watch().Node(node);
    Silence& silence = silences_[node];
    silence.without_heartbeat += passed;
    silence.without_report += passed;
    if (heard.heartbeats != silence.heartbeats) {
      silence.heartbeats = heard.heartbeats;
      silence.without_heartbeat = nanoseconds(0);
    }
    if (heard.reports != silence.reports) {
      silence.reports = heard.reports;
      silence.without_report = nanoseconds(0);
    }
    silence.disabled =
        IsDisabled(heard, drives_.make().motors) ? silence.disabled + passed : nanoseconds(0);
    silence.left = heard.nmt_state != kNotHeard && heard.nmt_state != kOperational;
    silence.silent = silence.without_heartbeat > drives_.vehicle().heartbeat_timeout;
    silence.blind = silence.without_report > drives_.vehicle().feedback_timeout;
    const bool deaf = silence.left || silence.silent || silence.blind;
    drives_.SetDeaf(node, deaf);
    gone = gone || deaf;
  }
  return gone;
}

Trouble Judge::Look(const std::vector<double>& target_rpm, nanoseconds passed) {
  Trouble trouble = drives_.BusTrouble();
  if (drives_.make().simulated) {
    return trouble;
  }
  for (std::size_t node = 0; node < silences_.size() && !trouble; ++node) {
    trouble = LookAtNode(node);
    if (!trouble) {
      trouble = LookAtWheels(node, target_rpm, passed);
    }
  }
  return trouble;
}

Trouble Judge::LookAtNode(std::size_t node) const {
  const Node& which = drives_.nodes()[node];
  const HeardOfNode heard = drives_.watch().Node(node);
  const Silence& silence = silences_[node];
  // Before the state that follows from it: a drive that trips may leave the operational state.
  if (heard.ErrorCode() != 0) {
    return DriveErrorTrouble(drives_, node, heard.ErrorCode());
  }
  if (heard.errors != silence.errors) {
    return DriveErrorTrouble(drives_, node, heard.latest_error);
  }
  if (silence.left || heard.absences != silence.absences) {
    return {Fault::kNodeRestarted, which.id,
            fmt::format("{} is not operational any more (NMT state 0x{:02X}): did it restart, or "
                        "did another program stop it?",
                        which.name(), heard.absent_state)};
  }
  if (!IsSupervisedReady(drives_, node)) {
    return SupervisionTrouble(drives_, node);
  }
  const bool counts = drives_.make().supervise == nullptr || silence.disabled > kSupervisionLag;
  for (std::size_t motor = 0; motor < drives_.make().motors && heard.has_statusword; ++motor) {
    if (counts && !IsEnabled(heard.statuswords[motor])) {
      return NotEnabledTrouble(drives_, node, heard.statuswords[motor]);
    }
  }
  if (silence.silent) {
    return {Fault::kNodeSilent, which.id,
            which.name() + " sends no heartbeat any more: look at its supply and its cable"};
  }
  if (silence.blind) {
    return {Fault::kNoFeedback, which.id,
            which.name() + " sends no position reports any more: look at its supply and its cable"};
  }
  return {};
}

Trouble Judge::LookAtWheels(std::size_t node, const std::vector<double>& target_rpm,
                            nanoseconds passed) {
  const Node& which = drives_.nodes()[node];
  for (std::size_t motor = 0; motor < which.wheels.size(); ++motor) {
    if (!which.wheels[motor]) {
      continue;
    }
    const std::size_t wheel = *which.wheels[motor];
    const double target = target_rpm[wheel];
    const double measured =
        WheelRpm(drives_.vehicle().wheels[wheel], drives_.watch().Motor(node, motor).rpm);
    const double allowed = std::max(kFollows * std::abs(target), kFollowsRpm);
    off_[wheel] = std::abs(measured - target) > allowed ? off_[wheel] + passed : nanoseconds(0);
    if (off_[wheel] > kFollowTime) {
      return {Fault::kNotFollowing, which.id,
              fmt::format("wheel \"{}\" turns at {:.0f} rpm instead of {:.0f}: is it blocked, or "
                          "out of control?",
                          drives_.vehicle().wheels[wheel].name, measured, target)};
    }
  }
  return {};
}

}  // namespace motor_driver
