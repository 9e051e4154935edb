#include "sim/replay.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "sim/identifiers.h"

namespace sim {
namespace {

using std::chrono::milliseconds;

// A cycle that was missed twice has ended.
constexpr int kMissedCycles = 3;
// Finer than any sleep: a host that sends the next request meanwhile would take this answer for its.
constexpr Time kAtOnce{500};
// So much earlier than the recorded host another one may end.
constexpr Time kLateEnd = std::chrono::seconds(2);
constexpr Time kLongestSleep = milliseconds(20);
constexpr Time kShortestSleep = milliseconds(1);

bool IsCyclic(const Frame& frame) {
  if ((frame.id & kFunctionMask) == kHeartbeat) return frame.length > 0 && frame.data[0] != 0;
  return frame.id >= kFirstPdo && frame.id < kSdoResponse;
}

std::string Seconds(Time time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(time.count()) / 1e6);
  return text;
}

}  // namespace

Replay::Replay(Recording recording, Time patience)
    : recording_(std::move(recording)),
      patience_(patience),
      requests_(recording_),
      states_(recording_),
      is_answer_(recording_.lines.size()),
      next_alike_(recording_.lines.size(), kNothing) {
  std::map<std::uint32_t, std::size_t> asked;   // by the node
  std::map<std::uint32_t, std::size_t> before;  // by the identifier
  for (std::size_t index = 0; index < recording_.lines.size(); ++index) {
    const Recording::Line& line = recording_.lines[index];
    const std::uint32_t function = line.frame.id & kFunctionMask;
    const std::uint32_t node = line.frame.id & kNodeMask;
    if (line.from_host && function == kSdoRequest) asked[node] = index;
    if (line.from_host) continue;
    if (function == kSdoResponse && asked.count(node) != 0) {
      answers_[asked[node]].push_back(index);
      is_answer_[index] = true;
      continue;
    }
    const auto [last, first] = before.try_emplace(line.frame.id, index);
    if (!first) next_alike_[std::exchange(last->second, index)] = index;
  }
}

std::size_t Replay::Limit() const { return std::min(requests_.Next(), states_.Next()); }

Time Replay::ClockAt(Time now) const {
  const Time clock = anchor_clock_ + (now - anchor_now_);
  const std::size_t limit = Limit();
  return limit == kNothing ? clock : std::min(clock, TimeOf(limit));
}

bool Replay::StandsStill(Time now) const {
  const std::size_t limit = Limit();
  return limit != kNothing && ClockAt(now) == TimeOf(limit);
}

// `clock`: where it was until then.
void Replay::StepTo(std::size_t index, Time now, Time clock) {
  const std::size_t limit = Limit();
  const Time there = limit == kNothing ? TimeOf(index) : std::min(TimeOf(index), TimeOf(limit));
  anchor_clock_ = std::max(clock, there);
  anchor_now_ = now;
  // A host that comes late has not heard what the drives sent before.
  if (!std::exchange(begun_, true)) position_ = std::max(position_, index);
}

void Replay::Answer(std::size_t request, Time now) {
  const auto found = answers_.find(request);
  if (found == answers_.end()) return;
  for (const std::size_t answer : found->second) {
    to_answer_.emplace(now + (TimeOf(answer) - TimeOf(request)), answer);
  }
}

void Replay::Hear(const Frame& frame, Time now) {
  const Time clock = ClockAt(now);
  if (HostRequests::AreRequests(frame.id)) {
    const HostRequests::Answer answer = requests_.Hear(frame);
    if (answer.index == kNothing) Diverge(requests_.NextFor(frame), FrameText(frame));
    if (!answer.again) StepTo(answer.index, now, clock);
    Answer(answer.index, now);
    return;
  }
  if (!states_.Know(frame.id)) Diverge(Limit(), FrameText(frame));
  const std::size_t come = states_.Hear(frame, now, clock);
  if (come != kNothing) StepTo(come, now, clock);
}

void Replay::Send(std::size_t index, Time now, const FrameSink& send) {
  const Frame& frame = recording_.lines[index].frame;
  send(frame);
  if (!IsCyclic(frame)) return;
  Cycle& cycle = cycles_[frame.id];
  cycle.interval = cycle.latest == kNothing ? Time(0) : TimeOf(index) - TimeOf(cycle.latest);
  const std::size_t next = next_alike_[index];
  cycle.goes_on = cycle.interval > Time(0) && next != kNothing &&
                  TimeOf(next) - TimeOf(index) <= kMissedCycles * cycle.interval;
  cycle.latest = index;
  cycle.sent = now;
}

void Replay::RepeatCycles(Time now, const FrameSink& send) {
  for (auto& [id, cycle] : cycles_) {
    if (!cycle.goes_on || now - cycle.sent < cycle.interval) continue;
    send(recording_.lines[cycle.latest].frame);
    cycle.sent = now;
  }
}

void Replay::Advance(Time now, const FrameSink& send) {
  std::vector<std::size_t> come;
  const Time before = ClockAt(now);
  const HostStates::Difference difference = states_.Look(now, before, patience_, come);
  if (difference.expected != kNothing) Diverge(difference);
  for (const std::size_t index : come) StepTo(index, now, before);

  while (!to_answer_.empty() && to_answer_.begin()->first <= now + kAtOnce) {
    send(recording_.lines[to_answer_.begin()->second].frame);
    to_answer_.erase(to_answer_.begin());
  }
  const std::size_t limit = Limit();
  const Time clock = ClockAt(now);
  for (; position_ < recording_.lines.size() && position_ < limit && TimeOf(position_) <= clock;
       ++position_) {
    if (!recording_.lines[position_].from_host && !is_answer_[position_]) {
      Send(position_, now, send);
    }
  }
  if (!StandsStill(now)) return;
  RepeatCycles(now, send);
  const Time overdue = now - anchor_now_ - (TimeOf(limit) - anchor_clock_);
  if (overdue > patience_) Diverge(limit, "nothing for " + Seconds(patience_));
}

Time Replay::NextEvent(Time now) const {
  Time next = now + (StandsStill(now) ? kShortestSleep : kLongestSleep);
  if (!to_answer_.empty()) next = std::min(next, to_answer_.begin()->first);
  if (position_ < recording_.lines.size() && position_ < Limit()) {
    next = std::min(next, anchor_now_ + (TimeOf(position_) - anchor_clock_));
  }
  return next;
}

bool Replay::Over(Time now) const {
  const Time end = recording_.lines.back().time;
  if (Limit() != kNothing || !to_answer_.empty() || position_ < recording_.lines.size() ||
      ClockAt(now) < end) {
    return false;
  }
  const HostStates::Difference difference = states_.LookAtEnd(end, std::min(patience_, kLateEnd));
  if (difference.expected != kNothing) Diverge(difference);
  return true;
}

void Replay::Diverge(std::size_t expected, const std::string& came) const {
  if (expected == kNothing) {
    throw Divergence(recording_.Place(recording_.lines.size() - 1) +
                     ": expected no more frame of the host, came " + came);
  }
  throw Divergence(recording_.Place(expected) + ": expected " +
                   FrameText(recording_.lines[expected].frame) + ", came " + came);
}

void Replay::Diverge(const HostStates::Difference& difference) const {
  Diverge(difference.expected,
          difference.silent ? "nothing any more" : FrameText(difference.held) + ", and stayed");
}

}  // namespace sim
