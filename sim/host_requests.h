#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "sim/recording.h"

namespace sim {

/// Beyond the last line of a recording.
inline constexpr std::size_t kNothing = static_cast<std::size_t>(-1);

/// What a host asks for, in the order in which it has to: SDO requests, NMT commands, whatever is no
/// PDO, heartbeat, SYNC or time stamp. The order is that of each node; what goes to all nodes has its
/// place among those of every node.
///
/// What the recorded host repeats among its last requests to the node, another may repeat more often
/// or less often: how often somebody asks until a drive has turned is a matter of microseconds. But
/// what a drive is told for good has to come.
class HostRequests {
 public:
  explicit HostRequests(const Recording& recording);

  static bool AreRequests(std::uint32_t id);

  struct Answer {
    std::size_t index = kNothing;  ///< of the recorded request that it is; kNothing: none
    bool again = false;            ///< that one had come before
  };
  Answer Hear(const Frame& frame);

  /// The earliest that has to come; kNothing at the end.
  std::size_t Next() const;
  /// In place of a frame that is none: what that node was to get, or else whatever has to come.
  std::size_t NextFor(const Frame& frame) const;

 private:
  struct Node {
    std::vector<std::size_t> requests;
    std::vector<bool> repeats;
    std::size_t come = 0;        // how many
    std::size_t due = kNothing;  // of those to come the first that must
    void FindDue();
  };

  static std::size_t NodeOf(const Frame& frame);
  const Recording::Line& LineOf(std::size_t index) const { return recording_.lines[index]; }
  bool IsAmongTheLast(const Node& node, std::size_t number) const;
  bool IsLasting(const Node& node, std::size_t number) const;
  bool InOrderOfAll(std::size_t node, std::size_t index) const;

  const Recording& recording_;
  std::array<Node, 128> nodes_;  // 0: all of them
};

}  // namespace sim
