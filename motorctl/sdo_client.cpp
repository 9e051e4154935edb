#include "sdo_client.h"

#include <linux/can/raw.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

#include "context.h"
#include "identifiers.h"
#include "sdo_frames.h"

namespace motorctl {
namespace {

using std::chrono::milliseconds;
using namespace sdo;  // NOLINT(google-build-using-namespace): the protocol that this is

// No object of a drive is nearly as long: a node that goes on and on has gone wrong.
constexpr std::size_t kLongest = std::size_t{1} << 20;
constexpr milliseconds kShortestLateness{100};

[[noreturn]] void Throw(const std::string& interface, const std::error_code& error) {
  switch (error.value()) {
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
      throw CommandFailed(
          "no CAN socket: this kernel has no SocketCAN (as root: modprobe can-raw; without "
          "hardware: tools/with-can)");
    case ENODEV:
      throw CommandFailed("no CAN interface \"" + interface +
                          "\": see \"ip link\" or \"motorctl doctor\"");
    default:
      throw CommandFailed(interface + " failed: " + error.message());
  }
}

}  // namespace

std::uint32_t SdoAnswer::number() const {
  return Number(bytes.data(), std::min(bytes.size(), kExpeditedSize));
}

SdoClient::SdoClient(const std::string& interface, milliseconds timeout) try
    : socket_(interface, {kSdoResponse, kFunctionMask | CAN_EFF_FLAG | CAN_RTR_FLAG}),
      timeout_(timeout) {
  // As hosts do: other programs on this machine hear the nodes, and not each other.
  socket_.Set(SOL_CAN_RAW, CAN_RAW_LOOPBACK, 0);
} catch (const std::system_error& error) {
  Throw(interface, error.code());
}

SdoAnswer SdoClient::Upload(int node, std::uint16_t index, std::uint8_t sub_index, int attempts) {
  const SdoObject object = {node, index, sub_index};
  SdoAnswer answer;
  for (int i = 0; i < attempts && answer.kind == SdoAnswer::Kind::kNoAnswer; ++i) {
    answer = UploadOnce(object);
  }
  AwaitLate(object, answer);
  return answer;
}

SdoAnswer SdoClient::Download(int node, std::uint16_t index, std::uint8_t sub_index,
                              const Bytes& bytes, int attempts) {
  const SdoObject object = {node, index, sub_index};
  SdoAnswer answer;
  for (int i = 0; i < attempts && answer.kind == SdoAnswer::Kind::kNoAnswer; ++i) {
    answer = DownloadOnce(object, bytes);
  }
  AwaitLate(object, answer);
  return answer;
}

SdoAnswer SdoClient::Ask(int node, std::uint16_t index, std::uint8_t sub_index) {
  SdoAnswer answer = UploadOnce({node, index, sub_index});
  if (answer.kind == SdoAnswer::Kind::kNoAnswer) asked_[node] = requested_;
  return answer;
}

const std::map<int, milliseconds>& SdoClient::Late() {
  Frame ignored = {};
  while (Hear(0, Clock::now(), ignored)) {
  }
  return late_;
}

SdoAnswer SdoClient::UploadOnce(const SdoObject& object) {
  SdoAnswer answer;
  Frame reply = {};
  first_.reset();
  if (!Exchange(object, Request(0x40, object), {kUpload, {}}, reply, answer)) return answer;
  answer.size_told = (reply[0] & kSizeTold) != 0;
  if ((reply[0] & kExpedited) != 0) {
    const std::size_t unused = answer.size_told ? reply[0] >> 2U & 3U : 0;
    answer.bytes.assign(reply.begin() + 4, reply.end() - static_cast<std::ptrdiff_t>(unused));
  } else {
    std::optional<std::size_t> size;
    if (answer.size_told) size = Number(&reply[4], 4);
    answer.size_told = true;  // by the end
    if (!ReadSegments(object, size, answer)) return answer;
  }
  answer.kind = SdoAnswer::Kind::kOk;
  return answer;
}

bool SdoClient::ReadSegments(const SdoObject& object, std::optional<std::size_t> size,
                             SdoAnswer& answer) {
  if (size.value_or(0) > kLongest) return GiveUp(object, kOutOfMemory, answer);
  for (bool toggle = false;; toggle = !toggle) {
    Frame reply = {};
    ++answer.segment;
    const Frame request = {static_cast<std::uint8_t>(0x60U | (toggle ? kToggle : 0U))};
    if (!Exchange(object, request, {kUploadSegment, toggle}, reply, answer)) return false;
    const std::size_t count = kSegmentSize - (reply[0] >> 1U & 7U);
    const bool last = (reply[0] & kLast) != 0;
    // It would go on for ever.
    if (count == 0 && !last) return GiveUp(object, kCommandUnknown, answer);
    answer.bytes.insert(answer.bytes.end(), reply.begin() + 1,
                        reply.begin() + 1 + static_cast<std::ptrdiff_t>(count));
    const std::size_t read = answer.bytes.size();
    if (read > kLongest) return GiveUp(object, kOutOfMemory, answer);
    if (size && (read > *size || (last && read < *size))) {
      return GiveUp(object, kLengthMismatch, answer);
    }
    if (last) return true;
  }
}

SdoAnswer SdoClient::DownloadOnce(const SdoObject& object, const Bytes& bytes) {
  SdoAnswer answer;
  Frame reply = {};
  first_.reset();
  const std::size_t size = bytes.size();
  const bool expedited = size > 0 && size <= kExpeditedSize;
  const auto unused = static_cast<unsigned>(kExpeditedSize - size);
  const Frame begin = expedited ? Request(0x23U | unused << 2U, object, Number(bytes.data(), size))
                                : Request(0x21, object, static_cast<std::uint32_t>(size));
  if (!Exchange(object, begin, {kDownload, {}}, reply, answer)) return answer;
  bool toggle = false;
  for (std::size_t sent = 0; !expedited && (sent < size || answer.segment == 0);) {
    const std::size_t count = std::min(size - sent, kSegmentSize);
    const bool last = sent + count == size;
    Frame segment = {static_cast<std::uint8_t>((toggle ? kToggle : 0U) |
                                               (kSegmentSize - count) << 1U | (last ? kLast : 0U))};
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(sent), count, segment.begin() + 1);
    ++answer.segment;
    if (!Exchange(object, segment, {kDownloadSegment, toggle}, reply, answer)) return answer;
    sent += count;
    toggle = !toggle;
  }
  answer.kind = SdoAnswer::Kind::kOk;
  return answer;
}

bool SdoClient::Exchange(const SdoObject& object, const Frame& request, const Expected& expected,
                         Frame& reply, SdoAnswer& answer) {
  answer.timeout = timeout_;
  expected_ = expected;
  if (answer.segment == 0) {
    while (Hear(object.node, Clock::now(), reply)) {  // what came too late for another transfer
    }
  }
  requested_ = Clock::now();
  if (!Send(object.node, request)) {
    answer.kind = SdoAnswer::Kind::kNotSent;
    return false;
  }
  const auto until = Clock::now() + timeout_;
  bool maybe_doubled = false;
  while (Hear(object.node, until, reply)) {
    switch (Judge(object, reply, expected)) {
      case Verdict::kAnswer:
        if (!first_) first_ = reply;
        last_ = reply;
        return true;
      case Verdict::kAbort:
        answer.kind = SdoAnswer::Kind::kAborted;
        answer.abort_code = Number(&reply[4], 4);
        return false;
      case Verdict::kOtherAbort:
        answer.other = {ObjectOf(object.node, reply), Number(&reply[4], 4)};
        break;
      case Verdict::kWrongToggle:
        return GiveUp(object, kToggleNotAlternated, answer);
      case Verdict::kWrongCommand:
        return GiveUp(object, kCommandUnknown, answer);
      case Verdict::kMaybeDoubled:
        maybe_doubled = true;
        break;
      case Verdict::kDropped:
        break;
    }
  }
  // A confirmation with the wrong toggle bit is that of the segment before.
  if (maybe_doubled) return GiveUp(object, kToggleNotAlternated, answer);
  // An interface that went away takes no abort.
  answer.kind = Abort(object, kTimedOut) ? SdoAnswer::Kind::kNoAnswer : SdoAnswer::Kind::kNotSent;
  return false;
}

SdoClient::Verdict SdoClient::Judge(const SdoObject& object, const Frame& frame,
                                    const Expected& expected) const {
  const unsigned specifier = Specifier(frame);
  const bool in_segments = expected.toggle.has_value();
  const SdoObject named = ObjectOf(object.node, frame);
  // Within a transfer some nodes do not name its object.
  const bool ours = Same(named, object) || (in_segments && Same(named, SdoObject()));
  if (specifier == kAbort) return ours ? Verdict::kAbort : Verdict::kOtherAbort;
  const bool is_segment = specifier <= kDownloadSegment;
  if (specifier == expected.specifier && !in_segments && Same(named, object)) {
    return Verdict::kAnswer;
  }
  const bool doubled = frame == last_ || frame == first_;
  if (specifier == expected.specifier && in_segments) {
    if (((frame[0] & kToggle) != 0) == *expected.toggle) return Verdict::kAnswer;
    return doubled ? Verdict::kMaybeDoubled : Verdict::kWrongToggle;
  }
  // The end of a transfer before this one, and answers about other objects.
  if (doubled || (is_segment ? !in_segments : !Same(named, object))) return Verdict::kDropped;
  return Verdict::kWrongCommand;
}

// Whether a write was carried out is worth the wait.
void SdoClient::AwaitLate(const SdoObject& object, SdoAnswer& answer) {
  if (answer.kind != SdoAnswer::Kind::kNoAnswer) return;
  const auto until = Clock::now() + std::max(timeout_, kShortestLateness);
  Frame frame = {};
  while (Hear(object.node, until, frame)) {
    const Verdict verdict = Judge(object, frame, expected_);
    if (verdict != Verdict::kAnswer && verdict != Verdict::kAbort) continue;
    answer.kind = SdoAnswer::Kind::kLate;
    answer.abort_code = verdict == Verdict::kAbort ? Number(&frame[4], 4) : 0;
    answer.late = std::chrono::duration_cast<milliseconds>(Clock::now() - requested_);
    return;
  }
}

bool SdoClient::Abort(const SdoObject& object, std::uint32_t code) {
  return Send(object.node, Request(0x80, object, code));
}

bool SdoClient::GiveUp(const SdoObject& object, std::uint32_t code, SdoAnswer& answer) {
  Abort(object, code);
  answer.kind = SdoAnswer::Kind::kGivenUp;
  answer.abort_code = code;
  return false;
}

// The queue of the interface may be full for a moment.
bool SdoClient::Send(int node, const Frame& data) {
  can_frame frame = {};
  frame.can_id = kSdoRequest + static_cast<canid_t>(node);
  frame.can_dlc = CAN_MAX_DLEN;
  std::copy(data.begin(), data.end(), frame.data);
  const auto until = Clock::now() + timeout_;
  for (;;) {
    if (::write(socket_.descriptor(), &frame, sizeof(frame)) == sizeof(frame)) return true;
    const bool full = errno == ENOBUFS || errno == EAGAIN || errno == EINTR;
    if (!full || Clock::now() >= until) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
}

bool SdoClient::Hear(int node, Clock::time_point until, Frame& data) {
  for (;;) {
    can_frame frame = {};
    const ssize_t bytes = ::read(socket_.descriptor(), &frame, sizeof(frame));
    if (bytes != sizeof(frame)) {
      if (bytes < 0 && errno != EAGAIN && errno != EINTR) return false;  // the interface is gone
      // Read once more after the time: this process, not the node, may have been late.
      const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(until - Clock::now());
      if (left.count() <= 0) return false;
      pollfd readable = {socket_.descriptor(), POLLIN, 0};
      const timespec wait = {left.count() / 1'000'000'000, left.count() % 1'000'000'000};
      ::ppoll(&readable, 1, &wait, nullptr);
      continue;
    }
    if (frame.can_dlc != CAN_MAX_DLEN) continue;
    const int from = static_cast<int>(frame.can_id & kNodeMask);
    if (from == node) {
      std::copy(std::begin(frame.data), std::end(frame.data), data.begin());
      return true;
    }
    const auto asked = asked_.find(from);
    if (asked == asked_.end()) continue;
    late_[from] = std::chrono::duration_cast<milliseconds>(Clock::now() - asked->second);
    asked_.erase(asked);
  }
}

}  // namespace motorctl
