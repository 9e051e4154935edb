// What the nodes of a bus tell about themselves and are told, gathered from the frames that go by.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "listener.h"
#include "sdo_client.h"
#include "wheels/makes.h"

namespace motorctl {

struct Position {
  double second = 0;
  std::uint32_t counts = 0;
};

struct MotorState {
  std::optional<std::uint16_t> statusword;
  std::optional<std::uint16_t> error_code;
  // The first and the last position since the speed was measured last.
  std::optional<Position> first;
  Position last;
  std::optional<double> rpm;
  std::optional<double> target_rpm;  // the last that went by, to the drive
};

struct NodeState {
  bool heard = false;
  std::optional<std::uint8_t> nmt_state;
  double heartbeat_second = 0;
  MotorState motors[motor_driver::kMaxMotors];
};

class NodeStates {
 public:
  // `make`: nullptr where PDOs are not to be taken apart. `counts_per_revolution`: where the make
  // does not know them. `only`: of these nodes; empty: of all.
  NodeStates(const motor_driver::Make* make, unsigned long counts_per_revolution,
             const std::vector<int>& only);

  void Hear(const HeardFrame& heard);
  // Asks every node for statusword and error code by SDO.
  void Poll(SdoClient& client);
  // Speeds since the last call. By the kernel's clock: the library's own speed readers take the
  // period that a set-up in the same process has given, and here there was none.
  void MeasureSpeeds();

  const std::map<int, NodeState>& nodes() const { return nodes_; }
  std::size_t motors() const { return make_ == nullptr ? 1 : make_->motors; }
  double now() const { return now_; }  // of the frame heard last
  bool AllHeard() const;

 private:
  bool Wanted(int id) const;
  template <typename Take>
  void TakeField(const motor_driver::Field& field, const HeardFrame& heard, NodeState& node,
                 Take take);

  const motor_driver::Make* const make_;
  const double counts_per_turn_;
  const double units_per_rpm_;
  const std::vector<int> only_;
  std::map<int, NodeState> nodes_;
  double now_ = 0;
};

}  // namespace motorctl
