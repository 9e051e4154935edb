// The makes of drive that the drive cycle can run.
#pragma once

#include <driver_common.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using TargetRpm = std::array<int, 2>;       // wheel 1, wheel 2
using MeasuredRpm = std::array<double, 2>;  // wheel 1, wheel 2

// One make, as a host of two wheels sees it. A further make is one more row in make.cpp.
struct Make {
  const char* name;

  // The only node whose feedback its class decodes; 0: any.
  std::uint8_t only_node;

  std::unique_ptr<DriverCommon> (*create)(const char* interface);

  // Where the target velocities are stored: sub-indices of 0x60FF.
  std::vector<std::uint8_t> target_velocity_subs;

  // Commands both wheels; true when the frame was sent.
  bool (*command)(DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm);

  // Takes one queued frame; true when it was a speed report.
  bool (*measure)(DriverCommon& drive, MeasuredRpm& rpm);
};

std::vector<std::string> MakeNames();

// `name` is one of MakeNames().
const Make& FindMake(const std::string& name);
