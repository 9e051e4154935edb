#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "sim/frame.h"
#include "sim/object_dictionary.h"
#include "sim/sdo_server.h"

namespace sim {

/// One misbehaviour of a drive. ParseFault gives the text form of each; times count from the
/// injection.
struct Fault {
  enum class Kind {
    kAbortWrite,          // the number-th SDO write from now on is refused with abort_code
    kIgnoreWrite,         // the number-th SDO write from now on is neither performed nor answered
    kAbortObject,         // every access to the object is refused with abort_code
    kIgnoreObject,        // no access to the object is performed or answered
    kAbortValue,          // every write of `number` to the object is refused with abort_code
    kDelayReplies,        // SDO replies leave `number` ms late
    kDuplicateReplies,    // every SDO reply is sent twice
    kTruncateReplies,     // SDO replies are cut to `number` bytes
    kWrongIndexReplies,   // SDO replies name the next index
    kAbortSegment,        // the number-th segment from now on is refused with abort_code
    kIgnoreSegment,       // the number-th segment from now on is neither taken nor answered
    kWrongToggle,         // the reply to the number-th segment from now on has the wrong toggle bit
    kWrongSize,           // uploads in segments indicate `number` bytes
    kNoSize,              // uploads do not indicate their size
    kPowerCutAfter,       // after `number` ms the node falls silent
    kPowerOnAfter,        // after `number` ms the node boots up again
    kErrorAfter,          // after `number` ms the drive trips with error_code, until a fault reset
    kNoHeartbeatAfter,    // after `number` ms heartbeats stop while all the rest works
    kNoReportsAfter,      // after `number` ms TPDO1 stops while all the rest works
    kBlockMotorAfter,     // after `number` ms no motor turns, whatever the drive does
    kEmergencyStopAfter,  // after `number` ms the emergency stop is pressed
    kEmergencyReleaseAfter,  // after `number` ms it is released
  };
  Kind kind = Kind::kAbortWrite;
  std::uint32_t number = 0;
  std::uint16_t index = 0;
  std::optional<std::uint8_t> sub;  // every sub-index when absent
  AbortCode abort_code = AbortCode::kGeneral;
  std::uint16_t error_code = 0;
};

/// What ParseFault understands, one fault per line, for --help.
const char* FaultHelp();

/// Throws std::invalid_argument, saying what is wrong, on anything that FaultHelp does not list.
Fault ParseFault(std::string_view text);

/// The faults that act on SDO requests and replies.
class SdoFaults {
 public:
  struct Verdict {
    enum class Action { kServe, kIgnore, kAbort };
    Action action = Action::kServe;
    AbortCode code = AbortCode::kNone;
  };
  struct Reply {
    Time delay{0};
    bool twice = false;
    std::uint8_t length = 8;
    bool wrong_index = false;
    bool no_size = false;
    std::optional<std::uint32_t> size;
  };

  void Inject(const Fault& fault);
  void Clear() { *this = SdoFaults(); }

  /// To be asked once for every request, because it counts writes and segments.
  Verdict Judge(const SdoRequest& request);
  /// The same for every reply of the server.
  void Spoil(SdoBytes& reply);
  const Reply& reply() const { return reply_; }

 private:
  std::vector<Fault> faults_;  // number counts down to 0
  Reply reply_;
};

}  // namespace sim
