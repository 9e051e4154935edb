// Reads what a drive holds.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "config_device.h"
#include "eds.h"
#include "wheels/makes.h"

namespace motorctl {

struct ConfigWalk {
  Config config;
  // Objects that the drive has and that could not be read, with the reason.
  std::vector<std::string> unread;
  // Of the EDS, that the drive does not have.
  std::vector<std::string> absent;
};

// Where the walk is: of 1, and an object that is being read.
using WalkProgress = std::function<void(double done, std::uint16_t index)>;

// The objects of the EDS; without it (nullptr) every index from 0x1000 to 0x6FFF, with the
// sub-indices that sub-index 0 tells. Each object is read twice, the second time after all others:
// what differs changes by itself. Throws CommandFailed when the drive does not answer, goes away or
// boots up, or when the device is disturbed.
ConfigWalk WalkDevice(ConfigDevice& device, int node, const Eds* eds,
                      const motor_driver::Make* make, const WalkProgress& progress);

// Reads the objects of `wanted` once, without looking for others. What the drive does not have is
// not in the result. Throws CommandFailed on every other failure.
Config ReadObjectsOf(ConfigDevice& device, int node, const Config& wanted,
                     const WalkProgress& progress);

}  // namespace motorctl
