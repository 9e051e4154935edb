#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "sim/axis.h"
#include "sim/error_control.h"
#include "sim/faults.h"
#include "sim/frame.h"
#include "sim/make.h"
#include "sim/nmt.h"
#include "sim/object_dictionary.h"
#include "sim/pdo_engine.h"
#include "sim/sdo_server.h"

namespace sim {

/// Frames that were meant for a node, by kind. A broadcast NMT command counts.
struct ReceivedFrames {
  std::size_t nmt = 0;
  std::size_t sync = 0;
  std::size_t sdo = 0;
  std::size_t pdo = 0;
};

/// A CANopen node that is a drive. Knows no socket and no clock: frames are handed in and out, and
/// time passes by calls of Step. Not thread-safe.
class Node {
 public:
  static constexpr std::size_t kMaxAxes = 4;
  static constexpr std::int32_t kMaxCountsPerRevolution = 1 << 21;

  struct Options {
    std::uint8_t node_id = 1;
    std::uint16_t heartbeat_ms = 0;  // value of 0x1017 at power-on
    std::array<std::int32_t, kMaxAxes> start_positions{};
    std::int32_t counts_per_revolution = 0;  // 0 = the make's
    std::uint16_t tpdo1_id = 0;              // identifier at power-on; 0 = 0x180 + node-ID
    bool inactive = false;  // after PowerOn silent and deaf until the activation frame
  };

  /// Throws std::invalid_argument when the node-ID is not in 1 to 127, another option is out of its
  /// range or the make has no activation. The node is switched off.
  Node(const Make& make, const Options& options, FrameSink send);
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  /// Boots up: everything has its power-on value, the boot-up message is sent. No effect when on.
  /// An inactive node does so some time after its activation frame, [10 10] on its node-ID, and
  /// adds an emergency message that says "no error".
  void PowerOn();
  /// Falls silent and deaf; the motors stand still at once.
  void PowerCut();

  void Receive(const Frame& frame);
  /// kStep of simulated time passes.
  void Step();
  Time now() const { return now_; }
  /// The earliest time at which Step may have something to send; Time::max() when nothing is
  /// planned.
  Time NextEvent() const;

  /// The identifiers that it was configured to take in: of receive PDOs, and of the heartbeat that
  /// it watches.
  std::vector<std::uint32_t> ListensTo() const;

  void Inject(const Fault& fault);
  void ClearFaults();
  /// Trips the drive until a fault reset. The code shows in the given axis (counted from 1); all
  /// axes stop, because a vehicle that goes on with one wheel turns on the spot.
  void LatchError(std::uint16_t error_code, std::size_t axis = 1);
  /// The input of a switch, which keeps its position when the node is off or reset.
  void PressEmergencyStop();
  void ReleaseEmergencyStop();

  NmtState nmt_state() const { return nmt_state_; }
  const ReceivedFrames& received() const { return received_; }
  /// Counted from 1, as sub-indices are. Throws std::out_of_range.
  const Axis& axis(std::size_t number) const { return axes_.at(number - 1); }
  ObjectDictionary& dictionary() { return dictionary_; }

 private:
  struct Timed {
    Time at;
    Frame frame;
  };
  struct TimedFault {
    Time at;
    Fault fault;
  };

  // What hosts add to an index on the parameter channel.
  static std::uint16_t ParameterOffset(const Options& options);
  void AddCommonObjects(const Make& make);
  void SendPdo(const Frame& frame);
  void ReceiveNmt(const Frame& frame);
  void ReceiveActivation(const Frame& frame);
  void ReceiveParameterChannel(const Frame& frame);
  // Channel 0 belongs to all axes on the bus, any other to the node of this ID.
  void ReceiveSdo(const Frame& frame, std::uint8_t channel, SdoServer& server);
  void SendSdoReply(std::uint8_t channel, const SdoBytes& bytes);
  void SendLateReplies();
  void EndLateTransfers();
  void CloseTransfers();
  void BootUp();
  void ResetApplication();
  void ResetCommunication();
  void Strike(const Fault& fault);
  void Enter(NmtState next);
  void LoseWatchedNode();
  void AbortConnection(std::uint16_t error_code);
  bool InFault() const;

  const Make& make_;
  Options options_;
  FrameSink send_;
  Time now_{0};
  NmtState nmt_state_ = NmtState::kPowerOff;  // also while it waits for its activation
  bool awaits_activation_ = false;
  std::optional<Time> boots_at_;
  std::vector<Axis> axes_;
  ObjectDictionary dictionary_;
  PdoEngine pdos_;
  bool reports_lost_ = false;
  ErrorControl errors_;
  SdoServer server_;
  SdoServer parameter_server_;
  SdoFaults sdo_faults_;
  std::vector<TimedFault> timed_faults_;
  std::deque<Timed> late_replies_;
  ReceivedFrames received_;
};

}  // namespace sim
