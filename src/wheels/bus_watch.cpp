#include "wheels/bus_watch.h"

#include "driver/canopen.h"
#include "driver/little_endian.h"

namespace motor_driver {
namespace {

constexpr std::uint8_t kEmergencySize = 8;
constexpr auto kFreshReport = std::chrono::milliseconds(200);

}  // namespace

std::uint16_t HeardOfNode::ErrorCode() const {
  for (const std::uint16_t code : error_codes) {
    if (code != 0) {
      return code;
    }
  }
  return emergency_code;
}

BusWatch::BusWatch(const Make& make, const std::vector<motor_driver::Node>& nodes,
                   std::chrono::milliseconds period)
    : make_(make), period_(period) {
  for (const motor_driver::Node& node : nodes) {
    nodes_.push_back({node.id, {}, {}});
  }
  SetCountsPerRevolution(1);
}

void BusWatch::SetCountsPerRevolution(double counts) {
  const std::lock_guard<PriorityMutex> lock(mutex_);
  for (Watched& node : nodes_) {
    node.motors.assign(make_.motors, Odometry(counts, period_));
  }
}

bool BusWatch::Take(const CanFrame& frame, bool heartbeat) {
  const auto arrival = Clock::now();
  const std::lock_guard<PriorityMutex> lock(mutex_);
  for (Watched& node : nodes_) {
    if (heartbeat && frame.can_id == cia301::kHeartbeat + node.id) {
      TakeHeartbeat(node, frame);
      return true;
    }
    if (TakeReport(node, frame, arrival) || TakeStatus(node, frame) || TakeEmergency(node, frame)) {
      return true;
    }
  }
  return heartbeat;
}

void BusWatch::TakeHeartbeat(Watched& node, const CanFrame& frame) {
  if (frame.len == 0) {
    return;
  }
  node.heard.nmt_state = frame.data[0];
  ++node.heard.heartbeats;
  if (node.heard.nmt_state != kOperational) {
    ++node.heard.absences;
    node.heard.absent_state = node.heard.nmt_state;
  }
  if (node.heard.nmt_state == kBootUp) {
    ++node.heard.boot_ups;
    for (Odometry& motor : node.motors) {
      motor.CounterRestarts();
    }
  }
}

void BusWatch::NoteError(Watched& node, std::uint16_t code) {
  if (code != 0) {
    ++node.heard.errors;
    node.heard.latest_error = code;
  }
}

bool BusWatch::Carries(const Field& field, const Watched& node, const CanFrame& frame) const {
  return field.bits != 0 && frame.can_id == field.base_id + node.id &&
         frame.len >= field.offset + make_.motors * field.bits / 8;
}

bool BusWatch::TakeReport(Watched& node, const CanFrame& frame, Clock::time_point arrival) const {
  if (!Carries(make_.position, node, frame)) {
    return false;
  }
  ++node.heard.reports;
  const std::uint8_t* position = frame.data + make_.position.offset;
  for (Odometry& motor : node.motors) {
    motor.Add(little_endian::Load32(position), arrival);
    position += make_.position.bits / 8;
  }
  return true;
}

bool BusWatch::TakeStatus(Watched& node, const CanFrame& frame) const {
  const bool has_error = Carries(make_.error_code, node, frame);
  const bool has_statusword = Carries(make_.statusword, node, frame);
  for (std::size_t motor = 0; motor < make_.motors; ++motor) {
    if (has_error) {
      node.heard.error_codes[motor] =
          little_endian::Load16(frame.data + make_.error_code.offset + 2 * motor);
      NoteError(node, node.heard.error_codes[motor]);
    }
    if (has_statusword) {
      node.heard.has_statusword = true;
      node.heard.statuswords[motor] =
          little_endian::Load16(frame.data + make_.statusword.offset + 2 * motor);
    }
  }
  return has_error || has_statusword;
}

bool BusWatch::TakeEmergency(Watched& node, const CanFrame& frame) const {
  if (frame.can_id != cia301::kEmergency + node.id || frame.len != kEmergencySize) {
    return false;
  }
  node.heard.emergency_code = little_endian::Load16(frame.data);
  NoteError(node, node.heard.emergency_code);
  return true;
}

HeardOfNode BusWatch::Node(std::size_t node) const {
  const std::lock_guard<PriorityMutex> lock(mutex_);
  return nodes_[node].heard;
}

HeardOfMotor BusWatch::Motor(std::size_t node, std::size_t motor) const {
  const std::lock_guard<PriorityMutex> lock(mutex_);
  const Odometry& odometry = nodes_[node].motors[motor];
  HeardOfMotor heard;
  if (odometry.heard()) {
    heard.rpm = make_.direction * odometry.rpm();
    heard.revolutions = make_.direction * odometry.revolutions();
    heard.lost_reports = odometry.lost_reports();
    heard.measured_at = odometry.latest_arrival();
  }
  return heard;
}

bool BusWatch::StandsSince(std::size_t node, std::size_t motor, Clock::time_point since) const {
  const std::lock_guard<PriorityMutex> lock(mutex_);
  const Odometry& odometry = nodes_[node].motors[motor];
  return odometry.heard() &&
         Clock::now() - odometry.latest_arrival() <= kFreshReport + 2 * period_ &&
         odometry.StandsSince(since);
}

void BusWatch::Forget(std::size_t node, bool restarts) {
  const std::lock_guard<PriorityMutex> lock(mutex_);
  HeardOfNode& heard = nodes_[node].heard;
  const HeardOfNode counts = heard;
  heard = {};
  heard.heartbeats = counts.heartbeats;
  heard.boot_ups = counts.boot_ups;
  heard.reports = counts.reports;
  heard.absences = counts.absences;
  heard.errors = counts.errors;
  if (restarts) {
    for (Odometry& motor : nodes_[node].motors) {
      motor.CounterRestarts();
    }
  }
}

}  // namespace motor_driver
