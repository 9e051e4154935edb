#include "sim/host_requests.h"

#include <algorithm>
#include <cstdint>

#include "sim/identifiers.h"

namespace sim {
namespace {

// So many objects are asked for in turn by a host that waits for something.
constexpr std::size_t kTurn = 8;
// A write that is repeated faster, or undone faster, belongs to a loop that waits.
constexpr Time kLoop = std::chrono::milliseconds(400);

constexpr unsigned kInitiateWrite = 1;  // the upper three bits of the first byte

// What a drive is told: an NMT command, or an object by SDO. Not what it is asked.
bool IsDeed(const Frame& frame) {
  const bool is_sdo = (frame.id & kFunctionMask) == kSdoRequest;
  return frame.id == kNmt || (is_sdo && frame.data[0] >> 5U == kInitiateWrite);
}

// Of deeds, that the later one takes the place of the other.
bool SameTarget(const Frame& left, const Frame& right) {
  return left.id == right.id && IsDeed(left) && IsDeed(right) &&
         (left.id == kNmt ||
          std::equal(left.data.begin() + 1, left.data.begin() + 4, right.data.begin() + 1));
}

}  // namespace

bool HostRequests::AreRequests(std::uint32_t id) {
  return id != kSync && id != kTimeStamp && (id < kFirstPdo || id >= kSdoResponse) &&
         (id & kFunctionMask) != kHeartbeat;
}

std::size_t HostRequests::NodeOf(const Frame& frame) {
  if ((frame.id & kFunctionMask) == kSdoRequest) return frame.id & kNodeMask;
  if (frame.id == kNmt && frame.length > 1) return frame.data[1] & kNodeMask;
  return 0;
}

HostRequests::HostRequests(const Recording& recording) : recording_(recording) {
  for (std::size_t index = 0; index < recording.lines.size(); ++index) {
    const Recording::Line& line = recording.lines[index];
    if (line.from_host && AreRequests(line.frame.id)) {
      nodes_[NodeOf(line.frame)].requests.push_back(index);
    }
  }
  for (Node& node : nodes_) {
    for (std::size_t i = 0; i < node.requests.size(); ++i) {
      node.repeats.push_back(IsAmongTheLast(node, i) && !IsLasting(node, i));
    }
    node.FindDue();
  }
}

bool HostRequests::IsAmongTheLast(const Node& node, std::size_t number) const {
  const auto request = node.requests.begin() + static_cast<std::ptrdiff_t>(number);
  return std::any_of(
      request - static_cast<std::ptrdiff_t>(std::min(kTurn, number)), request,
      [&](std::size_t before) { return LineOf(before).frame == LineOf(*request).frame; });
}

// A deed that changes what was told before and stays, the last stop above all; or that is done once
// more after a while. However often it was done before, a host that leaves it out does less.
bool HostRequests::IsLasting(const Node& node, std::size_t number) const {
  const Recording::Line& line = LineOf(node.requests[number]);
  if (!IsDeed(line.frame)) return false;
  for (std::size_t i = number; i-- > 0;) {
    const Recording::Line& before = LineOf(node.requests[i]);
    if (!SameTarget(before.frame, line.frame)) continue;
    if (before.frame == line.frame) return line.time - before.time >= kLoop;
    break;
  }
  for (std::size_t i = number + 1; i < node.requests.size(); ++i) {
    const Recording::Line& after = LineOf(node.requests[i]);
    if (SameTarget(after.frame, line.frame) && after.frame != line.frame) {
      return after.time - line.time >= kLoop;
    }
  }
  return true;
}

void HostRequests::Node::FindDue() {
  std::size_t i = come;
  while (i < requests.size() && repeats[i]) ++i;
  due = i < requests.size() ? requests[i] : kNothing;
}

std::size_t HostRequests::Next() const {
  std::size_t next = kNothing;
  for (const Node& node : nodes_) next = std::min(next, node.due);
  return next;
}

std::size_t HostRequests::NextFor(const Frame& frame) const {
  const std::size_t due = nodes_[NodeOf(frame)].due;
  return due != kNothing && recording_.lines[due].frame != frame ? due : Next();
}

// What goes to all nodes comes after what each of them got before, and before what follows.
bool HostRequests::InOrderOfAll(std::size_t node, std::size_t index) const {
  if (node != 0) return index < nodes_[0].due;
  return std::none_of(nodes_.begin() + 1, nodes_.end(),
                      [index](const Node& other) { return other.due < index; });
}

HostRequests::Answer HostRequests::Hear(const Frame& frame) {
  const std::size_t number = NodeOf(frame);
  Node& node = nodes_[number];
  const auto is_it = [&](std::size_t i) {
    return recording_.lines[node.requests[i]].frame == frame;
  };
  for (std::size_t i = node.come; i < node.requests.size(); ++i) {
    if (is_it(i) && InOrderOfAll(number, node.requests[i])) {
      node.come = i + 1;
      node.FindDue();
      return {node.requests[i], false};
    }
    if (!node.repeats[i]) break;
  }
  for (std::size_t back = 1; back <= std::min(kTurn, node.come); ++back) {
    if (is_it(node.come - back)) return {node.requests[node.come - back], true};
  }
  return {};
}

}  // namespace sim
