// What is heard of the nodes: position reports, status PDOs, emergency messages and heartbeats,
// stamped as they arrive on the receive thread, read by the control thread and by hosts.
#pragma once

#include <driver_can.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

#include "wheels/nodes.h"
#include "wheels/odometry.h"
#include "wheels/priority_mutex.h"

namespace motor_driver {

constexpr int kNotHeard = -1;
constexpr int kBootUp = 0;
constexpr int kStopped = 4;
constexpr int kOperational = 5;

struct HeardOfNode {
  int nmt_state = kNotHeard;     // in the last heartbeat
  std::uint32_t heartbeats = 0;  // so far
  std::uint32_t boot_ups = 0;
  std::uint32_t absences = 0;    // heartbeats of a node that was not operational
  int absent_state = kNotHeard;  // in the last of them
  std::uint32_t reports = 0;
  std::uint16_t emergency_code = 0;                     // of the last emergency message
  std::array<std::uint16_t, kMaxMotors> error_codes{};  // of the last status PDO
  std::array<std::uint16_t, kMaxMotors> statuswords{};  // of the last status PDO
  bool has_statusword = false;
  // What was taken back before anybody looked has happened all the same.
  std::uint32_t errors = 0;        // frames with an error code
  std::uint16_t latest_error = 0;  // in the last of them

  std::uint16_t ErrorCode() const;
};

struct HeardOfMotor {
  double rpm = 0;          // over the last 100 ms, as the motor is commanded
  double revolutions = 0;  // since the first report, likewise
  std::uint32_t lost_reports = 0;
  Odometry::Clock::time_point measured_at;
};

class BusWatch {
 public:
  using Clock = Odometry::Clock;

  BusWatch(const Make& make, const std::vector<Node>& nodes, std::chrono::milliseconds period);

  // Of the drive object, which may not exist before.
  void SetCountsPerRevolution(double counts);

  // Receive thread. `heartbeat`: the drive object took it for one of a node of the vehicle. True:
  // it tells of a node, and nobody else needs it.
  bool Take(const CanFrame& frame, bool heartbeat);

  // Any thread. Nodes are counted from 0, motors too.
  HeardOfNode Node(std::size_t node) const;
  HeardOfMotor Motor(std::size_t node, std::size_t motor) const;
  // And until now, as far as reports may be late: what stood may turn again unseen.
  bool StandsSince(std::size_t node, std::size_t motor, Clock::time_point since) const;

  // The node is about to be reset or set up: what was heard of its state no longer counts. Where it
  // `restarts`, its position counters begin anew.
  void Forget(std::size_t node, bool restarts);

 private:
  struct Watched {
    std::uint8_t id;
    HeardOfNode heard;
    std::vector<Odometry> motors;
  };

  void TakeHeartbeat(Watched& node, const CanFrame& frame);
  bool TakeEmergency(Watched& node, const CanFrame& frame) const;
  bool TakeReport(Watched& node, const CanFrame& frame, Clock::time_point arrival) const;
  bool TakeStatus(Watched& node, const CanFrame& frame) const;
  static void NoteError(Watched& node, std::uint16_t code);
  bool Carries(const Field& field, const Watched& node, const CanFrame& frame) const;

  const Make& make_;
  const std::chrono::milliseconds period_;
  mutable PriorityMutex mutex_;  // nodes_
  std::vector<Watched> nodes_;
};

}  // namespace motor_driver
