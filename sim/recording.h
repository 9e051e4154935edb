#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sim/frame.h"

namespace sim {

/// What went over a bus between a host and its drives.
struct Recording {
  struct Line {
    std::size_t number = 0;  ///< of the log, from 1
    Time time{0};            ///< since the first frame
    bool from_host = false;  ///< sent by the machine that recorded, not received
    Frame frame;
  };

  std::string path;
  std::vector<Line> lines;
  std::size_t left_out = 0;  ///< remote, extended and error frames, and those of CAN FD

  /// "bus.log:12".
  std::string Place(std::size_t index) const {
    return path + ":" + std::to_string(lines[index].number);
  }
};

/// "601#2B4060000F000000", as candump writes a frame.
std::string FrameText(const Frame& frame);

bool operator==(const Frame& left, const Frame& right);
inline bool operator!=(const Frame& left, const Frame& right) { return !(left == right); }

/// Reads a log of `candump -L -x`. `interface`: whose frames count; empty: there is one only. Throws
/// std::runtime_error, one line that names the log and the line, when it is no such log or when it
/// does not tell both directions.
Recording ReadRecording(const std::string& path, const std::string& interface);

/// The same from an open file; `path` is for messages.
Recording ReadRecording(int log, const std::string& path, const std::string& interface);

}  // namespace sim
