// Position reports (TPDO1) of nodes with one motor.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "driver_common.h"

// The reports that one class decodes, and the position before of each of its nodes: for the whole
// process, which is deliberate, see the comments of the classes. Atomic so that hosts that read
// from two threads get wrong speeds, not undefined behaviour.
class OneMotorFeedback {
 public:
  // `offset`: of the position in the data.
  constexpr OneMotorFeedback(std::uint8_t first_node, std::uint8_t last_node,
                             std::size_t offset = 0) noexcept
      : first_node_(first_node), last_node_(last_node), offset_(offset) {}

  // False, and no output written, for any other frame.
  bool Decode(const CanFrame& frame, double counts_per_revolution, std::uint16_t period_ms,
              std::uint8_t& node, double& rpm, int& counts);

  // Takes the oldest queued frame. False and all outputs 0 when there is none; true and no output
  // written when it is not a report.
  bool Take(DriverCan& can, double counts_per_revolution, std::uint16_t period_ms,
            std::uint8_t& node, double& rpm, int& counts);

 private:
  static constexpr std::size_t kMostNodes = 4;

  const std::uint8_t first_node_;
  const std::uint8_t last_node_;  // below first_node_ + kMostNodes
  const std::size_t offset_;
  std::array<std::atomic<std::uint32_t>, kMostNodes> previous_{};
};

// Whether the node reports: looks ten times, ten periods apart. The socket must hear its reports;
// what else it hears is dropped.
bool ReportsPosition(DriverCommon& drive, std::uint8_t node, std::uint16_t period_ms);
