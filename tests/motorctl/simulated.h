// The drives that the tests of motorctl meet.
#pragma once

#include <cstdint>
#include <string>

#include "sim/simulated_drive.h"

inline sim::SimulatedDrive::Options Options(const std::string& make,
                                            std::uint16_t heartbeat_ms = 0) {
  sim::SimulatedDrive::Options options;
  options.make = make;
  options.heartbeat_ms = heartbeat_ms;
  return options;
}
