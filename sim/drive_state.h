#pragma once

#include <cstdint>

namespace sim {

/// Where a make's state machine differs from CiA 402.
struct StateRules {
  bool enable_needs_shutdown = true;  // false: enable operation leads from switch-on disabled on
  bool controlword_resets_faults = true;  // false: only ResetFault does
  bool fault_reset_shuts_down = false;    // a controlword of 0x86 resets and shuts down in one
};

/// Quick stop option code, with the values of 0x605A: how the motor is stopped, and whether the
/// drive then disables itself or stays in the state quick stop active.
enum class QuickStopOption : std::int16_t {
  kDisable = 0,
  kSlowDown = 1,
  kQuickRamp = 2,
  kSlowDownAndStay = 5,
  kQuickRampAndStay = 6,
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

  /// The low byte, which tells the state. Voltage is always on, so bit 4 is set in every state.
  std::uint16_t Statusword() const;

  /// True when the controlword asks for a fault reset and the make obeys that.
  bool Control(std::uint16_t controlword);
  std::uint16_t controlword() const { return controlword_; }
  bool Halted() const { return (controlword_ & 0x100U) != 0; }
  /// What the commands of these names do, without a controlword.
  void DisableVoltage() { Obey(0x00); }
  void QuickStop() { Obey(0x02); }
  void SetQuickStopOption(QuickStopOption option) { quick_stop_ = option; }
  /// In quick stop active, with an option that slows down no faster than usual.
  bool SlowsDown() const;
  void Fault();
  void ResetFault();

  /// An emergency-stop input. From the press on, an axis without a fault is switch-on disabled and
  /// takes no command; after the release it waits for disable voltage as an acknowledgement.
  void PressEmergencyStop();
  void ReleaseEmergencyStop();
  bool emergency_pressed() const { return emergency_ == Emergency::kPressed; }
  bool InEmergency() const { return emergency_ != Emergency::kNone; }

  /// The motor has come to rest: ends a fault reaction, and a quick stop unless its option is to
  /// stay.
  void Stopped();

 private:
  enum class Emergency { kNone, kPressed, kReleased };

  void Obey(std::uint16_t controlword);
  void LeaveFault(std::uint16_t controlword);

  StateRules rules_;
  QuickStopOption quick_stop_ = QuickStopOption::kQuickRamp;
  State state_ = State::kSwitchOnDisabled;
  Emergency emergency_ = Emergency::kNone;
  std::uint16_t controlword_ = 0;
};

}  // namespace sim
