// The faults of a node: when they strike, what they do, and how they go.
#include <chrono>

#include "sim/node.h"

namespace sim {

void Node::Inject(const Fault& fault) {
  switch (fault.kind) {
    case Fault::Kind::kPowerCutAfter:
    case Fault::Kind::kPowerOnAfter:
    case Fault::Kind::kErrorAfter:
    case Fault::Kind::kNoHeartbeatAfter:
    case Fault::Kind::kNoReportsAfter:
    case Fault::Kind::kBlockMotorAfter:
    case Fault::Kind::kEmergencyStopAfter:
    case Fault::Kind::kEmergencyReleaseAfter:
      if (fault.number == 0) {
        Strike(fault);
      } else {
        timed_faults_.push_back({now_ + std::chrono::milliseconds(fault.number), fault});
      }
      break;
    default:
      sdo_faults_.Inject(fault);
      break;
  }
}

void Node::Strike(const Fault& fault) {
  switch (fault.kind) {
    case Fault::Kind::kPowerCutAfter:
      PowerCut();
      break;
    case Fault::Kind::kPowerOnAfter:
      PowerOn();
      break;
    case Fault::Kind::kErrorAfter:
      LatchError(fault.error_code);
      break;
    case Fault::Kind::kNoHeartbeatAfter:
      errors_.LoseHeartbeats(true);
      break;
    case Fault::Kind::kNoReportsAfter:
      reports_lost_ = true;
      break;
    case Fault::Kind::kBlockMotorAfter:
      for (Axis& axis : axes_) axis.Block(true);
      break;
    case Fault::Kind::kEmergencyStopAfter:
      PressEmergencyStop();
      break;
    case Fault::Kind::kEmergencyReleaseAfter:
      ReleaseEmergencyStop();
      break;
    default:
      break;
  }
}

void Node::ClearFaults() {
  sdo_faults_.Clear();
  timed_faults_.clear();
  reports_lost_ = false;
  errors_.LoseHeartbeats(false);
  for (Axis& axis : axes_) axis.Block(false);
}

}  // namespace sim
