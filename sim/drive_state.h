#pragma once

#include <cstdint>

namespace sim {

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

  State state() const { return state_; }
  bool InFault() const { return state_ == State::kFaultReactionActive || state_ == State::kFault; }

  /// Voltage is always on, so bit 4 is set in every state. The bits above the low byte stay 0: some
  /// hosts compare the whole word with 0x37.
  std::uint16_t Statusword() const;

  void Control(std::uint16_t controlword);
  void Fault();
  /// The motor has come to rest: ends a quick stop (as with option code 2 in 0x605A) and a fault
  /// reaction.
  void Stopped();

 private:
  State state_ = State::kSwitchOnDisabled;
  std::uint16_t controlword_ = 0;
};

}  // namespace sim
