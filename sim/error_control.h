#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "sim/axis.h"
#include "sim/frame.h"
#include "sim/nmt.h"
#include "sim/object_dictionary.h"

namespace sim {

/// Error control and error report of CiA 301: the heartbeats that a node sends and the one that it
/// watches (0x1016, 0x1017), emergency messages, error register (0x1001), error history (0x1003)
/// and error behaviour (0x1029). What a failure does to motors and NMT state is the node's part.
class ErrorControl {
 public:
  static constexpr std::uint16_t kCommunicationError = 0x8100;
  static constexpr std::uint16_t kHeartbeatError = 0x8130;
  static constexpr std::uint16_t kPdoLengthError = 0x8210;  // PDO not processed, too short

  struct Options {
    std::uint8_t node_id;
    std::uint16_t heartbeat_ms;  // at power-on
  };

  /// Adds its objects to the dictionary. State and axes are looked at whenever it has to speak.
  ErrorControl(ObjectDictionary& dictionary, const std::vector<Axis>& axes,
               const NmtState& nmt_state, const Options& options, FrameSink send);
  ErrorControl(const ErrorControl&) = delete;
  ErrorControl& operator=(const ErrorControl&) = delete;

  /// After a reset of the communication objects.
  void Reset(Time now);
  void SendBootUp();
  void LoseHeartbeats(bool lost) { heartbeats_lost_ = lost; }

  /// Frames of any kind; only heartbeats of the watched node matter.
  void Receive(const Frame& frame);
  /// Sends what is due. True when the watched node has failed.
  bool Step(Time now);
  Time NextEvent() const;

  /// Into the history and onto the bus.
  void Report(std::uint16_t error_code);
  /// Says "no error" if the last error has just gone.
  void ReportRecovery();
  void SendEmergency(std::uint16_t error_code);

  /// 0 when none is watched.
  std::uint32_t WatchedId() const;
  /// The state to be in after a communication error.
  NmtState StateAfterError() const;

 private:
  void AddHistory();
  AbortCode SetConsumer(std::uint32_t value);
  std::uint8_t Register() const;

  ObjectDictionary& dictionary_;
  const std::vector<Axis>& axes_;
  const NmtState& nmt_state_;
  Options options_;
  FrameSink send_;
  Time now_{0};
  HeartbeatProducer producer_;
  HeartbeatConsumer consumer_;
  bool heartbeats_lost_ = false;
  bool reported_ = false;
  std::deque<std::uint16_t> history_;  // newest first
};

}  // namespace sim
