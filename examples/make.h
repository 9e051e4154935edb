// The makes of drive that the drive cycle can run.
#pragma once

#include <driver_common.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

using TargetRpm = std::array<int, 2>;       // wheel 1, wheel 2
using MeasuredRpm = std::array<double, 2>;  // wheel 1, wheel 2

// An object that stores a target velocity, and the SDO command that writes it.
struct TargetVelocity {
  std::uint8_t command;
  std::uint16_t index;
  std::uint8_t sub_index;
};

// One make, as a host of one or two wheels sees it. A further make is one more row in make.cpp.
struct Make {
  const char* name;

  // Motors of one node; a second wheel stays at 0 where there is one.
  std::size_t wheels;

  // The nodes whose feedback its class decodes.
  std::vector<int> nodes;

  // Hears nothing before ActiveNode.
  bool must_be_woken;

  std::unique_ptr<DriverCommon> (*create)(const char* interface);

  std::vector<TargetVelocity> target_velocities;

  // Commands the wheels; true when the frame was sent.
  bool (*command)(DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm);

  // Takes one queued frame; true when it was a speed report of the node.
  bool (*measure)(DriverCommon& drive, std::uint8_t node, MeasuredRpm& rpm);
};

std::vector<std::string> MakeNames();

// `name` is one of MakeNames().
const Make& FindMake(const std::string& name);
