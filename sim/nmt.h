#pragma once

#include <cstdint>

#include "sim/frame.h"

namespace sim {

/// NMT states of CiA 301, with the values that a heartbeat carries.
enum class NmtState : std::uint8_t {
  kPowerOff = 0xFF,  // not a CANopen state: the node is silent
  kInitialising = 0x00,
  kStopped = 0x04,
  kOperational = 0x05,
  kPreOperational = 0x7F,
};

enum class NmtCommand : std::uint8_t {
  kStart = 0x01,
  kStop = 0x02,
  kEnterPreOperational = 0x80,
  kResetNode = 0x81,
  kResetCommunication = 0x82,
};

/// The state after a command. Both resets lead to kInitialising, which the node leaves by itself
/// with its boot-up message; an unknown command changes nothing.
NmtState NextNmtState(NmtState state, NmtCommand command);

/// Says when a heartbeat is due. The first one comes a whole period after the time was set.
class HeartbeatProducer {
 public:
  void SetPeriod(Time now, std::uint16_t period_ms) {
    period_ = std::chrono::milliseconds(period_ms);
    next_ = now + period_;
  }
  bool Due(Time now);
  Time NextEvent() const { return period_ == Time::zero() ? Time::max() : next_; }

 private:
  Time period_{0};
  Time next_{0};
};

/// Watches the heartbeat of another node: from the first one that is heard, and after a failure
/// from the next one on, so that a node that stays silent fails once.
class HeartbeatConsumer {
 public:
  void Watch(std::uint8_t node_id, std::uint16_t time_ms) {
    node_id_ = node_id;
    time_ = std::chrono::milliseconds(time_ms);
    overdue_ = Time::max();
  }
  /// 0 when nothing is watched.
  std::uint8_t node_id() const { return time_ == Time::zero() ? 0 : node_id_; }
  void Heard(Time now) { overdue_ = now + time_; }
  bool Failed(Time now);
  Time NextEvent() const { return overdue_; }

 private:
  std::uint8_t node_id_ = 0;
  Time time_{0};
  Time overdue_ = Time::max();
};

}  // namespace sim
