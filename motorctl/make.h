// The makes of drive, as a commissioning tool sees them. A further make is one more row in
// make.cpp.
#pragma once

#include <driver_common.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace motorctl {

constexpr std::size_t kMaxMotors = 2;
using TargetRpm = std::array<int, kMaxMotors>;
using MeasuredRpm = std::array<double, kMaxMotors>;

struct Object {
  std::uint16_t index;
  std::uint8_t sub_index;
};

// Where a PDO carries a value; `bits` 0: not at all.
struct Field {
  std::uint32_t base_id;  // 0x180 for TPDO1, 0x480 for TPDO4; the node is added
  unsigned offset;        // bytes
  unsigned bits;          // of each motor; the motors follow each other
};

struct Make {
  const char* name;
  std::size_t motors;      // of one node
  std::vector<int> nodes;  // whose feedback its class decodes

  // Hears nothing before ActiveNode, which must run before heartbeats are registered.
  bool must_be_woken;

  // ResetNode sends the NMT reset, so that a boot-up message follows.
  bool resets;

  std::unique_ptr<DriverCommon> (*create)(const char* interface,
                                          unsigned long counts_per_revolution);

  // Puts a node that was set up into operation.
  void (*start)(DriverCommon& drive, std::uint8_t node, std::uint16_t period_ms);

  // Commands the motors; true when the frame was sent.
  bool (*command)(DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm);

  // Takes one queued frame; true when it was a speed report of the node.
  bool (*measure)(DriverCommon& drive, std::uint8_t node, MeasuredRpm& rpm);

  // The objects that store target velocities, with the command that writes them, and those that
  // hold positions, of each motor.
  std::uint8_t target_command;
  std::vector<Object> targets;
  std::vector<Object> positions;

  // Others that a node of this make must have.
  std::vector<Object> expected;

  Field position;
  int direction;  // -1: positions count against the commanded speed
  Field statusword;
  Field error_code;
};

const Make& FindMake(const std::string& name);

}  // namespace motorctl
