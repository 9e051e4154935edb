// A simulated drive, and what tests of a stop look for on the wire.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "motorctl_process.h"
#include "sim/simulated_drive.h"

inline sim::SimulatedDrive::Options DriveOptions(const std::string& make) {
  sim::SimulatedDrive::Options options;
  options.make = make;
  return options;
}

inline bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// A frame that commands node 1 a speed, as all makes but amps do it.
inline bool IsSpeed(const std::string& frame) {
  return StartsWith(frame, "201#") && frame.find_first_not_of('0', 4) != std::string::npos;
}

// An object of node 1 that is set to anything but zero.
inline bool IsValue(const std::string& frame) {
  return StartsWith(frame, "601#2") && frame.find_first_not_of('0', 12) != std::string::npos;
}

// Frames that enable, disable or reset: NMT and controlwords.
inline std::vector<std::string> Commands(const std::vector<std::string>& frames) {
  std::vector<std::string> commands;
  for (const std::string& frame : frames) {
    const bool write = StartsWith(frame, "601#2");
    const bool controlword = write && frame.substr(6, 4) == "4060";
    if (controlword || StartsWith(frame, "000#")) commands.push_back(frame);
  }
  return commands;
}

inline Arguments With(Arguments arguments, const Arguments& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

inline Arguments JogLine(const std::string& make, const std::string& seconds) {
  return {"jog",   "1",      "--make", make,        "--rpm", "60",
          "--yes", "--ramp", "300",    "--seconds", seconds};
}
