// The end of a bring-up: nothing counts but what is observed.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "driver/canopen.h"
#include "wheels/bring_up.h"
#include "wheels/troubles.h"

namespace motor_driver {
namespace {

using std::chrono::milliseconds;

constexpr auto kSupervisionTime = std::chrono::seconds(3);
constexpr auto kEnableTime = std::chrono::seconds(1);
constexpr auto kMotionlessTime = std::chrono::seconds(5);  // or longer, for a heartbeat of each
constexpr auto kPause = milliseconds(20);
constexpr std::uint32_t kReportsWanted = 3;

// Objects of 32 bits hold 16 bits of each motor.
std::uint16_t Half(std::uint32_t value, std::size_t motor) {
  return static_cast<std::uint16_t>(motor == 0 ? value : value >> 16);
}

}  // namespace

Trouble BringUp::AwaitReady() {
  Trouble trouble = drives_.make().supervise != nullptr ? AwaitSupervision() : Trouble();
  for (std::size_t node = 0; node < NodeCount() && !trouble; ++node) {
    const auto deadline = Clock::now() + kEnableTime;
    do {
      trouble = LookAtDrive(node);
      if (trouble) {
        surroundings_.Wait(kPause);
      }
    } while (trouble.fault == Fault::kDriveError && Clock::now() < deadline);
    // A status PDO from before may have been the last that was heard.
    drives_.watch().Forget(node, false);
  }
  return trouble ? trouble : AwaitMotionless();
}

// The supervision loop hears of a drive's state within a period of its status PDO, and leads drives
// out of an emergency stop that was released.
Trouble BringUp::AwaitSupervision() {
  const auto deadline = Clock::now() + kSupervisionTime;
  for (;;) {
    std::size_t node = 0;
    while (node < NodeCount() && IsSupervisedReady(drives_, node)) {
      ++node;
    }
    if (node == NodeCount()) {
      return {};
    }
    if (surroundings_.Cancelled()) {
      return Interrupted();
    }
    if (drives_.BusFailed()) {
      return drives_.BusTrouble();
    }
    if (Clock::now() >= deadline) {
      return SupervisionTrouble(drives_, node);
    }
    surroundings_.Wait(kPause);
  }
}

Trouble BringUp::LookAtDrive(std::size_t node) {
  std::uint32_t statusword = 0;
  std::uint32_t error = 0;
  bool has_statusword = false;
  for (const auto& [object, value] : {std::pair{Object{cia402::kStatusword, 0}, &statusword},
                                      std::pair{Object{cia402::kErrorCode, 0}, &error}}) {
    for (int attempt = 0; !Read(node, object, *value); ++attempt) {
      if (drives_.BusFailed()) {
        return drives_.BusTrouble();
      }
      if (last_.outcome == Outcome::kRefused) {
        *value = 0;
        break;
      }
      if (attempt == 2) {
        return Silent(node);
      }
    }
    if (object.index == cia402::kStatusword) {
      has_statusword = last_.outcome == Outcome::kAccepted;
    }
  }
  return StatusTrouble(node, has_statusword ? std::optional(statusword) : std::nullopt, error);
}

Trouble BringUp::StatusTrouble(std::size_t node, std::optional<std::uint32_t> statusword,
                               std::uint32_t error) const {
  for (std::size_t motor = 0; motor < drives_.make().motors; ++motor) {
    const auto code = Half(error, motor);
    if (code != 0) {
      return DriveErrorTrouble(drives_, node, code);
    }
    if (statusword) {
      const auto word = Half(*statusword, motor);
      if (!IsEnabled(word)) {
        return NotEnabledTrouble(drives_, node, word);
      }
    }
  }
  return {};
}

Trouble BringUp::AwaitMotionless() {
  drives_.SendsHeartbeat(drives_.vehicle().drive_watchdog.count() != 0);
  const auto begin = Clock::now();
  const auto deadline =
      begin + std::max<Clock::duration>(kMotionlessTime, drives_.vehicle().heartbeat_timeout / 2);
  std::vector<std::uint32_t> reports;
  for (std::size_t node = 0; node < NodeCount(); ++node) {
    reports.push_back(drives_.watch().Node(node).reports);
  }
  // In the end it is the node that was ready least that is to be named, not one whose latest report
  // happens to be late.
  std::vector<Clock::time_point> was_ready(NodeCount(), begin);
  for (;;) {
    Trouble trouble;
    auto longest = Clock::time_point::max();
    for (std::size_t node = 0; node < NodeCount(); ++node) {
      Trouble of_node = NotReady(node, reports[node] + kReportsWanted, begin);
      if (!of_node) {
        was_ready[node] = Clock::now();
      } else if (was_ready[node] < longest) {
        longest = was_ready[node];
        trouble = std::move(of_node);
      }
    }
    if (!trouble) {
      return {};
    }
    if (surroundings_.Cancelled()) {
      return Interrupted();
    }
    if (drives_.BusFailed()) {
      return drives_.BusTrouble();
    }
    if (Clock::now() >= deadline) {
      return trouble;
    }
    surroundings_.Wait(drives_.vehicle().period);
  }
}

Trouble BringUp::NotReady(std::size_t node, std::uint32_t reports, Clock::time_point since) const {
  const HeardOfNode heard = drives_.watch().Node(node);
  if (heard.nmt_state == kNotHeard) {
    return {Fault::kNodeSilent, Id(node),
            Name(node) + " sends no heartbeat: is another program changing its set-up?"};
  }
  if (heard.nmt_state != kOperational) {
    return {Fault::kNodeRestarted, Id(node),
            Name(node) + " is not operational: did it restart during its set-up?"};
  }
  if (heard.ErrorCode() != 0) {
    return DriveErrorTrouble(drives_, node, heard.ErrorCode());
  }
  if (static_cast<std::int32_t>(heard.reports - reports) < 0) {
    return {Fault::kNoFeedback, Id(node),
            Name(node) + " sends no position reports (TPDO1): was its set-up changed?"};
  }
  for (std::size_t motor = 0; motor < drives_.make().motors; ++motor) {
    const bool used = drives_.nodes()[node].wheels[motor].has_value();
    if (used && !drives_.watch().StandsSince(node, motor, since)) {
      return {Fault::kNotFollowing, Id(node),
              Name(node) + " turns although zero speed is commanded: secure the vehicle"};
    }
  }
  return {};
}

}  // namespace motor_driver
