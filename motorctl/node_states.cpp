#include "node_states.h"

#include <algorithm>

#include "identifiers.h"
#include "pdo_fields.h"
#include "target_velocities.h"

namespace motorctl {
namespace {

// Of a shorter stretch the speed would be coarse.
constexpr double kShortestStretchSeconds = 0.05;

bool Carries(std::uint32_t function, const motor_driver::Field& field) {
  return field.bits != 0 && field.base_id == function;
}

}  // namespace

NodeStates::NodeStates(const motor_driver::Make* make, unsigned long counts_per_revolution,
                       const std::vector<int>& only)
    : make_(make),
      counts_per_turn_(static_cast<double>(
          make == nullptr ? counts_per_revolution
                          : motor_driver::CountsPerRevolution(*make, counts_per_revolution))),
      units_per_rpm_(make == nullptr ? 1 : motor_driver::UnitsPerRpm(*make, counts_per_revolution)),
      only_(only) {
  for (const int id : only_) nodes_[id];
}

bool NodeStates::Wanted(int id) const {
  return only_.empty() || std::find(only_.begin(), only_.end(), id) != only_.end();
}

bool NodeStates::AllHeard() const {
  return std::all_of(nodes_.begin(), nodes_.end(),
                     [](const auto& entry) { return entry.second.heard; });
}

void NodeStates::Hear(const HeardFrame& heard) {
  if (heard.is_error()) return;
  now_ = heard.second;
  const std::uint32_t function = heard.frame.can_id & kFunctionMask;
  const int id = static_cast<int>(heard.frame.can_id & kNodeMask);
  if (!heard.is_data() || id == 0 || !Wanted(id)) return;
  if (const auto known = nodes_.find(id); known != nodes_.end() && make_ != nullptr) {
    ForEachTarget(*make_, function, heard.frame.data, heard.frame.can_dlc,
                  [&, &motors = known->second.motors](int motor, double units) {
                    motors[motor].target_rpm = make_->direction * units / units_per_rpm_;
                  });
  }
  if (function == kHeartbeat && heard.frame.can_dlc == 1) {
    NodeState& node = nodes_[id];
    node.heard = true;
    node.nmt_state = heard.frame.data[0];
    node.heartbeat_second = heard.second;
  } else if (function == kEmergency && heard.frame.can_dlc == 8) {
    NodeState& node = nodes_[id];
    node.heard = true;
    node.motors[0].error_code = static_cast<std::uint16_t>(Load(heard.frame, 0, 2));
  } else if (make_ != nullptr &&
             (Carries(function, make_->position) || Carries(function, make_->statusword) ||
              Carries(function, make_->error_code))) {
    NodeState& node = nodes_[id];
    node.heard = true;
    TakeField(make_->statusword, heard, node, [](MotorState& motor, std::uint32_t value) {
      motor.statusword = static_cast<std::uint16_t>(value);
    });
    TakeField(make_->error_code, heard, node, [](MotorState& motor, std::uint32_t value) {
      motor.error_code = static_cast<std::uint16_t>(value);
    });
    TakeField(make_->position, heard, node, [&](MotorState& motor, std::uint32_t value) {
      motor.last = {heard.second, value};
      if (!motor.first) motor.first = motor.last;
    });
  }
}

template <typename Take>
void NodeStates::TakeField(const motor_driver::Field& field, const HeardFrame& heard,
                           NodeState& node, Take take) {
  ForEachMotor(*make_, field, heard.frame.can_id & kFunctionMask, heard.frame.data,
               heard.frame.can_dlc,
               [&](int motor, std::uint32_t value) { take(node.motors[motor], value); });
}

void NodeStates::Poll(SdoClient& client) {
  for (auto& [id, node] : nodes_) {
    const SdoAnswer status = client.Upload(id, 0x6041, 0);
    const SdoAnswer error = client.Upload(id, 0x603F, 0);
    node.heard = node.heard || status.heard();
    for (std::size_t motor = 0; motor < motors(); ++motor) {
      const unsigned shift = 16U * static_cast<unsigned>(motor);
      if (status.ok()) {
        node.motors[motor].statusword = static_cast<std::uint16_t>(status.number() >> shift);
      }
      if (error.ok()) {
        node.motors[motor].error_code = static_cast<std::uint16_t>(error.number() >> shift);
      }
    }
  }
}

void NodeStates::MeasureSpeeds() {
  for (auto& [id, node] : nodes_) {
    for (MotorState& motor : node.motors) {
      motor.rpm.reset();
      if (!motor.first) continue;
      const double seconds = motor.last.second - motor.first->second;
      if (seconds >= kShortestStretchSeconds) {
        const auto moved = static_cast<std::int32_t>(motor.last.counts - motor.first->counts);
        motor.rpm = make_->direction * moved / counts_per_turn_ / seconds * 60;
        motor.first = motor.last;
      } else {
        motor.first.reset();
      }
    }
  }
}

}  // namespace motorctl
