// What comes again and again on a bus, and stops.
#include <algorithm>

#include "identifiers.h"
#include "report_watch.h"

namespace motorctl {
namespace {

constexpr std::int64_t kTick = 10'000'000;
// Other messages than heartbeats come on events, too: those that come for a while, and never paused
// before as long as now, have stopped.
constexpr int kPeriods = 10;
constexpr auto kWhile = std::chrono::seconds(1);
constexpr int kPauses = 3;
// Less is not a bus that is silent.
constexpr std::int64_t kSilence = 500'000'000;

bool IsHeartbeat(std::uint32_t id) { return (id & ~0x7FU) == kHeartbeat; }

std::string DurationText(std::int64_t nanoseconds) { return SecondsText(nanoseconds) + " s"; }

}  // namespace

bool Streams::IsCommand(std::uint32_t id) const {
  if ((id & kCommandsBySdo) != 0) return true;
  return make_ != nullptr && make_->target.bits != 0 &&
         (id & kFunctionMask) == make_->target.base_id;
}

void Streams::Hear(std::uint32_t id, const KeptFrame& frame) {
  Stream& stream = streams_[id];
  const Time now(frame.nanoseconds);
  if (stream.missing != nullptr) {
    stream.missing->detail = " for " + DurationText(frame.nanoseconds - stream.silent_since);
    stream.missing->duration = frame.nanoseconds - stream.silent_since;
    stream.missing = nullptr;
    stream.rhythm.Forget();
  }
  if (!stream.rhythm.last()) {
    stream.first = now;
    stream.longest = Time::zero();
  } else {
    stream.longest = std::max(stream.longest, now - *stream.rhythm.last());
  }
  stream.rhythm.Hear(now);
  stream.turns = std::any_of(frame.data, frame.data + frame.length,
                             [](std::uint8_t byte) { return byte != 0; });
  if ((id & kCommandsBySdo) != 0) stream.turns = LittleEndian(frame.data + 4, 4) != 0;
}

void Streams::ForgetNode(int node) {
  for (auto& [id, stream] : streams_) {
    if (node == 0 || NodeOf(id) == node) stream.rhythm.Forget();
  }
}

void Streams::ForgetHeartbeat(int node) {
  const auto stream = streams_.find(kHeartbeat + static_cast<std::uint32_t>(node));
  if (stream != streams_.end()) stream->second.rhythm.Forget();
}

Finding Streams::Missing(std::uint32_t id, const Stream& stream) const {
  Finding finding;
  const int node = NodeOf(id);
  const std::string of_node = "node " + std::to_string(node);
  finding.node = node;
  finding.anomaly = true;
  // When it should have come.
  finding.nanoseconds = (*stream.rhythm.last() + stream.rhythm.period()).count();
  if (IsHeartbeat(id)) {
    finding.kind = "heartbeat_missing";
    finding.text = "no heartbeat of " + of_node;
  } else if (IsCommand(id)) {
    // A host that ends has sent zero.
    finding.kind = "commands_missing";
    finding.anomaly = stream.turns;
    finding.text = "no target velocity to " + of_node +
                   (stream.turns ? ", the last one was not zero," : ", the last one was zero,");
  } else {
    const bool from_node = (id & 0x80) != 0;
    const std::string pdo = std::to_string((id - 0x180) / 0x100 + 1);
    finding.kind = "pdo_missing";
    finding.text =
        from_node ? "no TPDO" + pdo + " of " + of_node : "no RPDO" + pdo + " to " + of_node;
  }
  return finding;
}

bool Streams::HasRhythm(std::uint32_t id, const Stream& stream) {
  if (IsHeartbeat(id)) return stream.rhythm.periods() > 0;
  return stream.rhythm.periods() >= kPeriods && *stream.rhythm.last() - stream.first >= kWhile;
}

bool Streams::IsOverdue(std::uint32_t id, const Stream& stream, Time now) {
  if (!HasRhythm(id, stream) || !stream.rhythm.Overdue(now)) return false;
  return IsHeartbeat(id) || (now - *stream.rhythm.last()) / kPauses >= stream.longest;
}

// A frame that comes after a long silence finds everything overdue: then it was the bus, or the log,
// or its clock that was set.
void Streams::Miss(std::int64_t now) {
  const Time time(now);
  std::size_t live = 0;
  std::size_t overdue = 0;
  for (const auto& [id, stream] : streams_) {
    if (stream.missing != nullptr || !HasRhythm(id, stream)) continue;
    ++live;
    if (IsOverdue(id, stream, time)) ++overdue;
  }
  if (overdue == 0) return;
  const std::int64_t silence = now - heard_;
  if (silence > kSilence && live > 1 && overdue == live) {
    Finding finding;
    finding.nanoseconds = heard_;
    finding.kind = "bus_silent";
    finding.anomaly = true;
    finding.text = "not one frame";
    finding.detail =
        " for " + DurationText(silence) + ": the bus, the recorder, or a clock that was set";
    finding.duration = silence;
    findings_.Add(std::move(finding));
    for (auto& [id, stream] : streams_) stream.rhythm.PassOver(Time(silence));
    return;
  }
  for (auto& [id, stream] : streams_) {
    if (stream.missing != nullptr || !IsOverdue(id, stream, time)) continue;
    stream.silent_since = stream.rhythm.last()->count();
    stream.missing = &findings_.Add(Missing(id, stream));
    if (!IsHeartbeat(id)) continue;
    const std::int64_t missed = (*stream.rhythm.last() + stream.rhythm.period()).count();
    report_.nodes[NodeOf(id)].nmt.push_back({missed, kNoHeartbeat});
  }
}

void Streams::Tick(std::int64_t now) {
  if (now - ticked_ >= kTick) {
    ticked_ = now;
    Miss(now);
  }
  heard_ = now;
}

void Streams::End(std::int64_t now) {
  Miss(now);
  for (auto& [id, stream] : streams_) {
    if (stream.missing == nullptr) continue;
    stream.missing->detail =
        " for " + DurationText(now - stream.silent_since) + ", to the end of the log";
    stream.missing->duration = now - stream.silent_since;
  }
}

}  // namespace motorctl
