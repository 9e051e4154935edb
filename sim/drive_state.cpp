#include "sim/drive_state.h"

namespace sim {
namespace {

constexpr unsigned kFaultReset = 0x80;

// The commands of the controlword. They hold only while the fault reset bit is 0.
bool IsShutdown(unsigned word) { return (word & 0x87U) == 0x06; }
bool IsSwitchOn(unsigned word) { return (word & 0x8FU) == 0x07; }
bool IsEnableOperation(unsigned word) { return (word & 0x8FU) == 0x0F; }
bool IsDisableVoltage(unsigned word) { return (word & 0x82U) == 0x00; }
bool IsQuickStop(unsigned word) { return (word & 0x86U) == 0x02; }

}  // namespace

std::uint16_t DriveState::Statusword() const {
  switch (state_) {
    case State::kSwitchOnDisabled:
      return 0x50;
    case State::kReadyToSwitchOn:
      return 0x31;
    case State::kSwitchedOn:
      return 0x33;
    case State::kOperationEnabled:
      return 0x37;
    case State::kQuickStopActive:
      return 0x17;
    case State::kFaultReactionActive:
      return 0x1F;
    case State::kFault:
      break;
  }
  return 0x18;
}

bool DriveState::Control(std::uint16_t controlword) {
  const bool resets_fault = (controlword & kFaultReset) != 0 && (controlword_ & kFaultReset) == 0 &&
                            rules_.controlword_resets_faults;
  controlword_ = controlword;
  if (emergency_ == Emergency::kReleased && IsDisableVoltage(controlword)) {
    emergency_ = Emergency::kNone;
  }
  if (state_ == State::kFault && resets_fault) {
    LeaveFault(controlword);
  } else {
    Obey(controlword);
  }
  return resets_fault;
}

void DriveState::Obey(std::uint16_t controlword) {
  switch (state_) {
    case State::kSwitchOnDisabled:
      if (InEmergency()) break;
      if (IsShutdown(controlword)) state_ = State::kReadyToSwitchOn;
      if (IsEnableOperation(controlword) && !rules_.enable_needs_shutdown) {
        state_ = State::kOperationEnabled;
      }
      break;
    case State::kReadyToSwitchOn:
      if (IsSwitchOn(controlword)) state_ = State::kSwitchedOn;
      // The shortcut that CiA 402 allows: switched on is passed without a command of its own.
      if (IsEnableOperation(controlword)) state_ = State::kOperationEnabled;
      if (IsDisableVoltage(controlword) || IsQuickStop(controlword)) {
        state_ = State::kSwitchOnDisabled;
      }
      break;
    case State::kSwitchedOn:
      if (IsEnableOperation(controlword)) state_ = State::kOperationEnabled;
      if (IsShutdown(controlword)) state_ = State::kReadyToSwitchOn;
      if (IsDisableVoltage(controlword) || IsQuickStop(controlword)) {
        state_ = State::kSwitchOnDisabled;
      }
      break;
    case State::kOperationEnabled:
      if (IsSwitchOn(controlword)) state_ = State::kSwitchedOn;
      if (IsShutdown(controlword)) state_ = State::kReadyToSwitchOn;
      if (IsDisableVoltage(controlword)) state_ = State::kSwitchOnDisabled;
      if (IsQuickStop(controlword)) {
        state_ = quick_stop_ == QuickStopOption::kDisable ? State::kSwitchOnDisabled
                                                          : State::kQuickStopActive;
      }
      break;
    case State::kQuickStopActive:
      if (IsEnableOperation(controlword)) state_ = State::kOperationEnabled;
      if (IsDisableVoltage(controlword)) state_ = State::kSwitchOnDisabled;
      break;
    case State::kFaultReactionActive:
    case State::kFault:
      break;
  }
}

void DriveState::Fault() {
  if (state_ != State::kFault) state_ = State::kFaultReactionActive;
}

void DriveState::LeaveFault(std::uint16_t controlword) {
  ResetFault();
  const bool shutdown = IsShutdown(controlword & ~kFaultReset);
  if (shutdown && rules_.fault_reset_shuts_down && !InEmergency()) {
    state_ = State::kReadyToSwitchOn;
  }
}

void DriveState::ResetFault() {
  if (state_ == State::kFault) state_ = State::kSwitchOnDisabled;
}

bool DriveState::SlowsDown() const {
  return state_ == State::kQuickStopActive && (quick_stop_ == QuickStopOption::kSlowDown ||
                                               quick_stop_ == QuickStopOption::kSlowDownAndStay);
}

void DriveState::PressEmergencyStop() {
  emergency_ = Emergency::kPressed;
  if (!InFault()) state_ = State::kSwitchOnDisabled;
}

void DriveState::ReleaseEmergencyStop() {
  if (emergency_ == Emergency::kPressed) emergency_ = Emergency::kReleased;
}

void DriveState::Stopped() {
  const bool stays = quick_stop_ == QuickStopOption::kSlowDownAndStay ||
                     quick_stop_ == QuickStopOption::kQuickRampAndStay;
  if (state_ == State::kQuickStopActive && !stays) state_ = State::kSwitchOnDisabled;
  if (state_ == State::kFaultReactionActive) state_ = State::kFault;
}

}  // namespace sim
