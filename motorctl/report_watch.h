// What a report finds while it goes through a log: of the nodes, and of their SDO transfers.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "decode.h"
#include "report.h"
#include "rhythm.h"

namespace motorctl {

// A log may hold nothing but findings: some of each are kept, and those that repeat are one.
class Findings {
 public:
  explicit Findings(Report& report) : report_(report) {}

  // Valid until Finish(); a finding that is not kept has a place, too.
  Finding& Add(Finding finding);
  // In order.
  void Finish();

 private:
  Report& report_;
  Finding unlisted_;
  std::size_t kept_[2] = {};
  std::map<std::tuple<std::string_view, int, int, std::string>, Finding*> last_;
};

// From the frame that shows it.
Finding FindingOf(const KeptFrame& frame, std::string_view kind, bool anomaly, int node,
                  std::string text);

// What comes again and again on a bus, and stops.
class Streams {
 public:
  Streams(Report& report, const Make* make, Findings& findings)
      : report_(report), make_(make), findings_(findings) {}

  // Of the identifier of a heartbeat or a PDO, or kCommandsBySdo and a node-ID.
  static constexpr std::uint32_t kCommandsBySdo = 0x10000;
  void Hear(std::uint32_t id, const KeptFrame& frame);
  // What a node was told to stop or to send otherwise is not missing; `node` 0: all.
  void ForgetNode(int node);
  void ForgetHeartbeat(int node);
  void Tick(std::int64_t now);
  void End(std::int64_t now);

 private:
  using Time = Rhythm::Time;
  struct Stream {
    Rhythm rhythm;
    Time first = Time::zero();    // since it began anew
    Time longest = Time::zero();  // between two of them
    bool turns = false;           // commands: the last one was not zero
    Finding* missing = nullptr;
    std::int64_t silent_since = 0;
  };

  bool IsCommand(std::uint32_t id) const;
  static bool HasRhythm(std::uint32_t id, const Stream& stream);
  static bool IsOverdue(std::uint32_t id, const Stream& stream, Time now);
  int NodeOf(std::uint32_t id) const { return static_cast<int>(id & 0x7F); }
  Finding Missing(std::uint32_t id, const Stream& stream) const;
  void Miss(std::int64_t now);

  Report& report_;
  const Make* const make_;
  Findings& findings_;
  std::map<std::uint32_t, Stream> streams_;
  std::int64_t ticked_ = 0;
  std::int64_t heard_ = -1;
};

// NMT, heartbeats, emergency messages, and what drives tell of themselves.
class NodeWatch {
 public:
  NodeWatch(Report& report, const Make* make, Findings& findings, Streams& streams)
      : report_(report), make_(make), findings_(findings), streams_(streams) {}

  void HearNmt(const KeptFrame& frame);
  void HearHeartbeat(int id, const KeptFrame& frame);
  void HearEmergency(int id, const KeptFrame& frame);
  void HearPdo(int node, std::uint32_t base, const KeptFrame& frame);
  // An object that was read or written by SDO.
  void HearObject(int node, const KeptFrame& frame, std::uint16_t index, std::uint32_t value,
                  bool written);

 private:
  struct Drive {
    std::optional<std::uint32_t> error;
    bool was_enabled = false;
    std::optional<std::int64_t> stop_since;  // emergency stop
  };
  struct Node {
    std::optional<std::int64_t> told;  // by NMT, or a controlword, last
    bool reset = false;
    std::optional<std::uint32_t> inputs;
    Drive drives[motor_driver::kMaxMotors];
  };

  bool WasTold(const Node& node, const KeptFrame& frame) const;
  void HearStatusword(int id, int motor, const KeptFrame& frame, std::uint16_t value);
  void HearErrorCode(int id, int motor, const KeptFrame& frame, std::uint16_t code);
  void HearInputs(int id, const KeptFrame& frame, std::uint32_t value);
  // True when the stop begins or is over.
  bool HearStop(int id, int motor, const KeptFrame& frame, bool stopped, const char* state);

  Report& report_;
  const Make* const make_;
  Findings& findings_;
  Streams& streams_;
  std::map<int, Node> nodes_;
};

// Requests and their answers.
class SdoWatch {
 public:
  SdoWatch(Report& report, const Make* make, Findings& findings, NodeWatch& nodes, Streams& streams)
      : report_(report), make_(make), findings_(findings), nodes_(nodes), streams_(streams) {}

  void Hear(int node, bool response, KeptFrame& frame);
  void Tick(std::int64_t now);

 private:
  struct Request {
    std::int64_t nanoseconds = 0;
    std::uint32_t line = 0;
    bool reads = false;
    bool heard = false;  // the node, before
  };
  using Key = std::pair<int, std::uint32_t>;  // node; index and sub-index as they stand in a frame

  void HearRequest(int node, const KeptFrame& frame);
  void Await(const Key& key, const KeptFrame& frame);
  void HearResponse(int node, const KeptFrame& frame);
  void HearAbort(int node, bool response, const KeptFrame& frame);
  bool OnlyAsks(const Key& key, std::uint32_t abort_code) const;
  void Unanswered(const Key& key, const Request& request);
  std::string ObjectText(std::uint32_t object) const;

  Report& report_;
  const Make* const make_;
  Findings& findings_;
  NodeWatch& nodes_;
  Streams& streams_;
  BlockTransfers blocks_;
  std::map<Key, std::deque<Request>> requests_;
  std::int64_t ticked_ = 0;
};

}  // namespace motorctl
