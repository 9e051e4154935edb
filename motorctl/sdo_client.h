// SDO client of CiA 301, expedited and in segments. It prints nothing.
#pragma once

#include <linux/can.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "raw_socket.h"
#include "sdo_frames.h"

namespace motorctl {

using Bytes = std::vector<std::uint8_t>;

struct SdoAnswer {
  enum class Kind {
    kOk,
    kAborted,   // by the node
    kGivenUp,   // by the client, which aborted the transfer for what the node sent
    kNoAnswer,  // neither within the time-out nor soon after it; aborted, too
    kLate,      // the answer came after the time-out; a write was carried out all the same, unless
                // abort_code says otherwise
    kNotSent,   // the interface took no frame
    kInterrupted,  // by whoever set_interrupted() asks; aborted, too
  };
  Kind kind = Kind::kNoAnswer;
  Bytes bytes;                   // that were read
  bool size_told = true;         // by the node; otherwise `bytes` has all four that came
  std::uint32_t abort_code = 0;  // that ended it; 0 after silence, which 0x05040000 ends
  std::size_t segment = 0;       // that was asked for or sent last; 0: none, it had not begun
  std::chrono::milliseconds timeout{0};  // for each answer
  std::chrono::milliseconds late{0};     // from the request to an answer that came too late

  // An abort of another transfer that came in place of an answer.
  struct OtherAbort {
    SdoObject object;
    std::uint32_t code = 0;
  };
  std::optional<OtherAbort> other;
  // Of a frame that came in place of an answer; all of them have 8 bytes.
  std::optional<unsigned> wrong_size;

  bool ok() const { return kind == Kind::kOk; }
  // That the node is there: it said anything at all about this object.
  bool heard() const {
    return kind != Kind::kNoAnswer && kind != Kind::kNotSent && kind != Kind::kInterrupted;
  }
  // The first four bytes, little-endian.
  std::uint32_t number() const;
};

constexpr std::chrono::milliseconds kSdoTimeout{250};
// Of an upload: only silence leads to another attempt, for a frame may have been lost.
constexpr int kSdoAttempts = 3;

// One transfer at a time, on a socket of its own, whatever else goes on on the bus. What is not
// the answer that is waited for (another object, a doubled frame, a wrong length) is dropped; what
// ends a transfer before its end is told to the node by an abort, so that none stays open there.
class SdoClient {
 public:
  // Throws CommandFailed when the interface cannot be used. `timeout`: for each answer.
  explicit SdoClient(const std::string& interface, std::chrono::milliseconds timeout = kSdoTimeout);

  // Both block for at most the time-out per frame and attempt, and once more for an answer that is
  // late. They throw nothing.
  SdoAnswer Upload(int node, std::uint16_t index, std::uint8_t sub_index,
                   int attempts = kSdoAttempts);
  // Expedited up to four bytes, in segments otherwise.
  SdoAnswer Download(int node, std::uint16_t index, std::uint8_t sub_index, const Bytes& bytes,
                     int attempts = 1);

  // Without the wait for a late answer: for many nodes that are asked one after the other.
  SdoAnswer Ask(int node, std::uint16_t index, std::uint8_t sub_index);
  // Nodes whose answer to the last Ask came too late, while others were asked, and how long they
  // took. Hears what has come until now.
  const std::map<int, std::chrono::milliseconds>& Late();

  std::chrono::milliseconds timeout() const { return timeout_; }
  void set_timeout(std::chrono::milliseconds timeout) { timeout_ = timeout; }

  // Asked while it waits: a transfer is given up then.
  void set_interrupted(std::function<bool()> interrupted) { interrupted_ = std::move(interrupted); }
  // Is told of every frame that the interface took.
  void set_sent(std::function<void(const can_frame&)> sent) { sent_ = std::move(sent); }

 private:
  using Clock = std::chrono::steady_clock;
  using Frame = SdoFrame;
  enum class Verdict {
    kAnswer,
    kAbort,
    kDropped,
    kOtherAbort,
    kMaybeDoubled,
    kWrongToggle,
    kWrongCommand
  };
  // What is waited for: the command specifier, and the toggle bit of a segment.
  struct Expected {
    unsigned specifier = 0;
    std::optional<bool> toggle;
  };

  SdoAnswer UploadOnce(const SdoObject& object);
  SdoAnswer DownloadOnce(const SdoObject& object, const Bytes& bytes);
  bool ReadSegments(const SdoObject& object, std::optional<std::size_t> size, SdoAnswer& answer);
  // Sends the request and waits for its answer. False: `answer` tells what became of the transfer.
  bool Exchange(const SdoObject& object, const Frame& request, const Expected& expected,
                Frame& reply, SdoAnswer& answer);
  Verdict Judge(const SdoObject& object, const Frame& frame, const Expected& expected) const;
  void AwaitLate(const SdoObject& object, SdoAnswer& answer);
  bool Abort(const SdoObject& object, std::uint32_t code);
  bool GiveUp(const SdoObject& object, std::uint32_t code, SdoAnswer& answer);
  bool Interrupted() const { return interrupted_ && interrupted_(); }
  bool Send(int node, const Frame& data);
  // The next frame of the node; false when none came until then, or when it is interrupted.
  bool Hear(int node, Clock::time_point until, Frame& data);

  RawSocket socket_;
  std::chrono::milliseconds timeout_;
  Expected expected_;            // of the last request
  Clock::time_point requested_;  // the last request
  std::optional<Frame> first_;   // answers of the transfer that were taken, to know a doubled one
  std::optional<Frame> last_;
  std::optional<unsigned> wrong_size_;  // since the last request
  std::function<bool()> interrupted_;
  std::function<void(const can_frame&)> sent_;
  std::map<int, Clock::time_point> asked_;
  std::map<int, std::chrono::milliseconds> late_;
};

}  // namespace motorctl
