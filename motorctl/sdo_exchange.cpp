// One request and its answer, among whatever else is on the bus.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "identifiers.h"
#include "sdo_client.h"
#include "sdo_frames.h"

namespace motorctl {
namespace {

using std::chrono::milliseconds;
using namespace sdo;  // NOLINT(google-build-using-namespace): the protocol that this is

constexpr milliseconds kShortestLateness{100};
constexpr milliseconds kBetweenQuestions{20};  // whether it is interrupted

}  // namespace

bool SdoClient::Exchange(const SdoObject& object, const Frame& request, const Expected& expected,
                         Frame& reply, SdoAnswer& answer) {
  answer.timeout = timeout_;
  expected_ = expected;
  if (answer.segment == 0) {
    while (Hear(object.node, Clock::now(), reply)) {  // what came too late for another transfer
    }
  }
  requested_ = Clock::now();
  wrong_size_.reset();
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
  if (Interrupted()) {
    GiveUp(object, kGeneralError, answer);
    answer.kind = SdoAnswer::Kind::kInterrupted;
    return false;
  }
  answer.wrong_size = wrong_size_;
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
    if (::write(socket_.descriptor(), &frame, sizeof(frame)) == sizeof(frame)) {
      if (sent_) sent_(frame);
      return true;
    }
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
      if (Interrupted()) return false;
      pollfd readable = {socket_.descriptor(), POLLIN, 0};
      const auto rest =
          interrupted_ ? std::min<std::chrono::nanoseconds>(left, kBetweenQuestions) : left;
      const timespec wait = {rest.count() / 1'000'000'000, rest.count() % 1'000'000'000};
      ::ppoll(&readable, 1, &wait, nullptr);
      continue;
    }
    const int from = static_cast<int>(frame.can_id & kNodeMask);
    if (frame.can_dlc != CAN_MAX_DLEN) {
      if (from == node) wrong_size_ = frame.can_dlc;
      continue;
    }
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
