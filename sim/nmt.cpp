#include "sim/nmt.h"

namespace sim {

NmtState NextNmtState(NmtState state, NmtCommand command) {
  switch (command) {
    case NmtCommand::kStart:
      return NmtState::kOperational;
    case NmtCommand::kStop:
      return NmtState::kStopped;
    case NmtCommand::kEnterPreOperational:
      return NmtState::kPreOperational;
    case NmtCommand::kResetNode:
    case NmtCommand::kResetCommunication:
      return NmtState::kInitialising;
  }
  return state;
}

bool HeartbeatProducer::Due(Time now) {
  if (now < NextEvent()) return false;
  next_ += period_;
  return true;
}

bool HeartbeatConsumer::Failed(Time now) {
  if (now < overdue_) return false;
  overdue_ = Time::max();
  return true;
}

}  // namespace sim
