#pragma once

#include <cstdint>

namespace sim {

/// Where a make's state machine differs from CiA 402.
struct StateRules {
  bool enable_needs_shutdown = true;  // false: enable operation leads from switch-on disabled on
  bool controlword_resets_faults = true;  // false: only ResetFault does
  bool fault_reset_shuts_down = false;    // a controlword of 0x86 resets and shuts down in one
};

/// State machine of CiA 402 (finite state automaton of a power drive system), one per axis.
class DriveState {
 public:
  enum class State {
    kSwitchOnDisabled,
    kReadyToSwitchOn,
    kSwitchedOn,
    kOperationEnabled,
    kQuickStopActive,
    kFaultReactionActive,
    kFault,
  };

  explicit DriveState(const StateRules& rules = {}) : rules_(rules) {}

  State state() const { return state_; }
  bool InFault() const { return state_ == State::kFaultReactionActive || state_ == State::kFault; }

  /// Voltage is always on, so bit 4 is set in every state. The bits above the low byte stay 0: some
  /// hosts compare the whole word with 0x37.
  std::uint16_t Statusword() const;

  void Control(std::uint16_t controlword);
  void Fault();
  void ResetFault();

  /// An emergency-stop input. From the press on, an axis without a fault is switch-on disabled and
  /// takes no command; after the release it waits for disable voltage as an acknowledgement.
  void PressEmergencyStop();
  void ReleaseEmergencyStop();
  bool emergency_pressed() const { return emergency_ == Emergency::kPressed; }
  bool InEmergency() const { return emergency_ != Emergency::kNone; }

  /// The motor has come to rest: ends a quick stop (as with option code 2 in 0x605A) and a fault
  /// reaction.
  void Stopped();

 private:
  enum class Emergency { kNone, kPressed, kReleased };

  void ControlFault(std::uint16_t controlword, bool fault_reset);

  StateRules rules_;
  State state_ = State::kSwitchOnDisabled;
  Emergency emergency_ = Emergency::kNone;
  std::uint16_t controlword_ = 0;
};

}  // namespace sim
