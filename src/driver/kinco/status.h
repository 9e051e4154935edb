// What Kinco drives said last of their state.
#pragma once

#include <driver_common.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

namespace motor_driver::kinco {

constexpr std::uint16_t kNotReported = 0xFFFF;

constexpr std::uint8_t kStatusPdoSize = 6;  // error code, statusword, digital inputs

// Low byte of a statusword.
bool IsEmergencyStatus(std::uint16_t status);

// Of one node. The three that are bytes on the wire are kNotReported only until they were reported.
struct NodeState {
  std::uint16_t heartbeat = kNotReported;
  std::uint16_t status_low = kNotReported;
  std::uint16_t status_high = kNotReported;
  std::uint16_t error_code = kNotReported;
  std::uint16_t inputs = kNotReported;

  // Whether the four behind the heartbeat were: they come in one PDO.
  bool has_status() const { return status_low != kNotReported; }
  bool HasError() const { return has_status() && error_code != 0; }
  bool HasInput() const { return has_status() && inputs != 0; }
  bool InEmergency() const { return IsEmergencyStatus(status_low); }
};

// Takes the status PDO in, kStatusPdoSize bytes at least.
void StoreStatusPdo(const std::uint8_t* data, NodeState& state);

DriverStatus Summary(const NodeState& state);

// The raw values in one line.
std::string Details(const NodeState& state);

// Every node there can be. Without a lock, and so that a copy allocates nothing.
class NodeTable {
 public:
  static constexpr std::uint8_t kNodes = 128;

  // `node`: below kNodes.
  NodeState& At(std::uint8_t node) {
    end_ = std::max(end_, static_cast<std::uint8_t>(node + 1));
    return nodes_[node];
  }
  // Of any other node nothing is ever reported.
  NodeState Of(std::uint8_t node) const { return node < kNodes ? nodes_[node] : NodeState(); }

  // Above the highest node heard: every pass looks at all below, and most vehicles have a few.
  std::uint8_t end() const { return end_; }

  bool AnyEmergency() const;
  bool AnyInput() const;

 private:
  std::array<NodeState, kNodes> nodes_;
  std::uint8_t end_ = 0;
};

}  // namespace motor_driver::kinco
