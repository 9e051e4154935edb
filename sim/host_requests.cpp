#include "sim/host_requests.h"

#include <algorithm>
#include <cstdint>

namespace sim {
namespace {

constexpr std::uint32_t kNmt = 0x000;
constexpr std::uint32_t kSync = 0x080;
constexpr std::uint32_t kTimeStamp = 0x100;
constexpr std::uint32_t kFirstPdo = 0x180;
constexpr std::uint32_t kLastPdo = 0x57F;
constexpr std::uint32_t kSdoRequest = 0x600;
constexpr std::uint32_t kHeartbeat = 0x700;
constexpr std::uint32_t kFunctionMask = 0x780;
constexpr std::uint32_t kNodeMask = 0x07F;

// So many objects are asked for in turn by a host that waits for something.
constexpr std::size_t kTurn = 8;

}  // namespace

bool HostRequests::AreRequests(std::uint32_t id) {
  return id != kSync && id != kTimeStamp && (id < kFirstPdo || id > kLastPdo) &&
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
    if (!line.from_host || !AreRequests(line.frame.id)) continue;
    Node& node = nodes_[NodeOf(line.frame)];
    const std::size_t back = std::min(kTurn, node.requests.size());
    node.repeats.push_back(std::any_of(
        node.requests.end() - static_cast<std::ptrdiff_t>(back), node.requests.end(),
        [&](std::size_t before) { return recording.lines[before].frame == line.frame; }));
    node.requests.push_back(index);
  }
  for (Node& node : nodes_) node.FindDue();
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
