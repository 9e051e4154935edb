#include "sim/host_states.h"

#include <algorithm>

namespace sim {
namespace {

using std::chrono::milliseconds;

// For so long a content is held; a ramp is faster.
constexpr Time kHeld = milliseconds(400);
// What was sent for less has not been held by anybody, also when it took a little longer this time.
constexpr Time kBrief = milliseconds(100);
// So much earlier than the recorded host another one may be.
constexpr Time kEarly = milliseconds(300);

}  // namespace

bool HostStates::Run::MustCome() const { return held >= kHeld; }
bool HostStates::Run::MayBeHeld() const { return held >= kBrief || last; }

HostStates::HostStates(const Recording& recording) : recording_(recording) {
  for (std::size_t index = 0; index < recording.lines.size(); ++index) {
    const Recording::Line& line = recording.lines[index];
    if (!line.from_host || HostRequests::AreRequests(line.frame.id)) continue;
    identifiers_[line.frame.id].lines.push_back(index);
  }
  for (auto& [id, identifier] : identifiers_) AddRuns(identifier, recording.lines.back().time);
}

void HostStates::AddRuns(Identifier& identifier, Time end) const {
  const auto time = [this](std::size_t index) { return recording_.lines[index].time; };
  for (const std::size_t index : identifier.lines) {
    auto& runs = identifier.runs;
    if (!runs.empty() && FrameOf(runs.back()) == recording_.lines[index].frame) continue;
    if (!runs.empty()) runs.back().held = time(index) - time(runs.back().first);
    runs.push_back({index, Time(0), false});
  }
  Run& last = identifier.runs.back();
  last.held = end - time(last.first);
  last.last = true;
  FindDue(identifier, 0);
}

void HostStates::FindDue(Identifier& identifier, std::size_t begin) {
  identifier.due = begin;
  while (identifier.due < identifier.runs.size() && !identifier.runs[identifier.due].MustCome()) {
    ++identifier.due;
  }
}

std::size_t HostStates::Next() const {
  std::size_t next = kNothing;
  for (const auto& [id, identifier] : identifiers_) {
    if (identifier.due < identifier.runs.size()) {
      next = std::min(next, identifier.runs[identifier.due].first);
    }
  }
  return next;
}

std::size_t HostStates::Hear(const Frame& frame, Time now, Time clock) {
  Identifier& identifier = identifiers_.at(frame.id);
  if (!identifier.heard || frame != identifier.now) {
    identifier.now = frame;
    identifier.since = now;
    identifier.known = false;
  }
  identifier.heard = true;
  identifier.latest = now;
  auto& missed = identifier.missed;
  while (missed < identifier.lines.size() &&
         recording_.lines[identifier.lines[missed]].time <= clock) {
    ++missed;
  }
  return Match(identifier, clock);
}

// Whether it is what has to come next.
std::size_t HostStates::Match(Identifier& identifier, Time clock) const {
  if (!identifier.heard || identifier.due == identifier.runs.size()) return kNothing;
  const Run run = identifier.runs[identifier.due];
  // What has not changed may be the end of the run before.
  const Time early = identifier.known ? Time(0) : kEarly;
  if (identifier.now != FrameOf(run) || clock + early < recording_.lines[run.first].time) {
    return kNothing;
  }
  identifier.begin = identifier.due;
  identifier.known = true;
  FindDue(identifier, identifier.due + 1);
  return run.first;
}

// What is held is one of the runs up to the one that has to come.
bool HostStates::FindHeld(Identifier& identifier, std::size_t& matched) const {
  const std::size_t end = std::min(identifier.due + 1, identifier.runs.size());
  for (std::size_t i = identifier.begin; i < end; ++i) {
    const Run& run = identifier.runs[i];
    if (!run.MayBeHeld() || FrameOf(run) != identifier.now) continue;
    identifier.begin = i;
    identifier.known = true;
    if (i == identifier.due) {
      matched = run.first;
      FindDue(identifier, i + 1);
    }
    return true;
  }
  return false;
}

// What the recorded host sent after the last that came, and longer ago.
std::size_t HostStates::Missed(const Identifier& identifier, Time clock, Time longer) const {
  if (identifier.missed == identifier.lines.size()) return kNothing;
  const std::size_t missed = identifier.lines[identifier.missed];
  return clock - recording_.lines[missed].time > longer ? missed : kNothing;
}

HostStates::Difference HostStates::Look(Time now, Time clock, Time patience,
                                        std::vector<std::size_t>& matched) {
  for (auto& [id, identifier] : identifiers_) {
    std::size_t come = Match(identifier, clock);
    if (identifier.heard && !identifier.known && now - identifier.since >= kHeld &&
        !FindHeld(identifier, come)) {
      const bool due = identifier.due < identifier.runs.size();
      const Run& run = due ? identifier.runs[identifier.due] : identifier.runs.back();
      return {run.first, identifier.now, false};
    }
    if (come != kNothing) matched.push_back(come);
    if (now - identifier.latest <= patience) continue;
    const std::size_t missed = Missed(identifier, clock, patience);
    if (missed != kNothing) return {missed, {}, true};
  }
  return {};
}

HostStates::Difference HostStates::LookAtEnd(Time end, Time patience) const {
  for (const auto& [id, identifier] : identifiers_) {
    const std::size_t missed = Missed(identifier, end, patience);
    if (missed != kNothing) return {missed, {}, true};
  }
  return {};
}

}  // namespace sim
