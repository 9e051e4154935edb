// What must be on the wire between a vehicle and its drives, make by make, and what a record of the
// bus says about it. Written down from the manuals of the drives, never read from the library.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "far_end.h"

namespace wire {

struct DriveMake {
  std::string name;
  std::vector<std::string> targets;  // writes of a target velocity, without the value
  double units_per_rpm = 1;
  bool commands_by_sdo = false;
  bool is_woken = false;            // asleep at power-on
  bool has_emergency_stop = false;  // and a supervision that leads out of it
};

inline void PrintTo(const DriveMake& make, std::ostream* out) { *out << make.name; }

inline const std::vector<DriveMake>& DriveMakes() {
  static const std::vector<DriveMake> makes = {
      {"zl", {"23FF6001", "23FF6002"}},
      {"tt", {"23FF6000"}, 1, false, true},
      {"hls", {"23FF6000"}, -10},
      {"amps", {"2BF02F09"}, 1, true},
      {"kinco", {"23FF6000"}, 2730, false, false, true},
  };
  return makes;
}

inline std::string Hex(unsigned value, int digits) {
  char text[16];
  std::snprintf(text, sizeof(text), "%0*X", digits, value);
  return text;
}

inline std::string SdoRequest(int node) { return Hex(0x600 + static_cast<unsigned>(node), 3); }
inline std::string SdoResponse(int node) { return Hex(0x580 + static_cast<unsigned>(node), 3); }
inline std::string Rpdo1(int node) { return Hex(0x200 + static_cast<unsigned>(node), 3); }
inline std::string Heartbeat(int node) { return Hex(0x700 + static_cast<unsigned>(node), 3); }

inline bool StartsWith(const std::string& text, const std::string& begin) {
  return text.compare(0, begin.size(), begin) == 0;
}

inline std::int32_t Number(const std::string& eight_digits) {
  std::uint32_t value = 0;
  for (int byte = 3; byte >= 0; --byte) {
    const std::string digits = eight_digits.substr(2 * static_cast<std::size_t>(byte), 2);
    value = value << 8 | static_cast<std::uint32_t>(std::stoul(digits, nullptr, 16));
  }
  return static_cast<std::int32_t>(value);
}

// The speed that a frame commands the first or second motor of the node, in rpm; nothing when it
// commands none.
inline std::optional<double> CommandedRpm(const DriveMake& make, int node, const std::string& frame,
                                          std::size_t motor = 0) {
  std::string value;
  if (StartsWith(frame, Rpdo1(node) + "#") && !make.commands_by_sdo) {
    value = frame.substr(4 + 8 * motor, 8);
  } else if (motor < make.targets.size() &&
             StartsWith(frame, SdoRequest(node) + "#" + make.targets[motor])) {
    value = frame.substr(12, 8);
  }
  return value.size() == 8 ? std::optional(Number(value) / make.units_per_rpm) : std::nullopt;
}

// A write that leads towards the enabled state, by the controlword: its bits 0 to 3.
inline bool Enables(int node, const std::string& frame) {
  return StartsWith(frame, SdoRequest(node) + "#2B406000") &&
         (Number(frame.substr(12, 8)) & 0x0F) != 0;
}

inline bool IsSdoZero(const DriveMake& make, int node, const std::string& frame) {
  for (const std::string& target : make.targets) {
    if (frame == SdoRequest(node) + "#" + target + "00000000") {
      return true;
    }
  }
  return false;
}

inline bool IsBootUp(int node, const std::string& frame) {
  return frame == Heartbeat(node) + "#00";
}

// Nothing was enabled, and no speed but zero sent, before zero was confirmed by every node; and in
// no node before it was confirmed again after that node restarted.
inline void ExpectZeroConfirmedFirst(const DriveMake& make, const std::vector<int>& nodes,
                                     const std::vector<bus::RecordedFrame>& records) {
  std::map<int, std::vector<bool>> confirmed;
  std::map<int, bool> ever;
  for (const int node : nodes) {
    confirmed[node].assign(make.targets.size(), false);
  }
  for (std::size_t i = 0; i < records.size(); ++i) {
    const std::string& frame = records[i].text;
    for (const int node : nodes) {
      std::vector<bool>& zero = confirmed[node];
      const auto all = [](const std::vector<bool>& flags) {
        return std::find(flags.begin(), flags.end(), false) == flags.end();
      };
      if (IsBootUp(node, frame)) {
        zero.assign(zero.size(), false);
      }
      for (std::size_t motor = 0; motor < zero.size(); ++motor) {
        if (frame ==
            SdoResponse(node) + "#60" + make.targets[motor].substr(2) + std::string(8, '0')) {
          zero[motor] = true;
        }
      }
      ever[node] = ever[node] || all(zero);
      if (Enables(node, frame)) {
        EXPECT_TRUE(all(zero)) << "frame " << i << ", " << frame << ": enabled without zero";
        for (const int other : nodes) {
          EXPECT_TRUE(ever[other])
              << "frame " << i << ", " << frame << ": node " << other << " was not zeroed";
        }
      }
      for (std::size_t motor = 0; motor < zero.size(); ++motor) {
        if (CommandedRpm(make, node, frame, motor).value_or(0) != 0) {
          EXPECT_TRUE(ever[node]) << "frame " << i << ": " << frame;
        }
      }
    }
  }
}

// The last speed on the wire for every motor of every node.
inline void ExpectLastSpeedsZero(const DriveMake& make, const std::vector<int>& nodes,
                                 const std::vector<bus::RecordedFrame>& records) {
  for (const int node : nodes) {
    for (std::size_t motor = 0; motor < make.targets.size(); ++motor) {
      std::string last;
      double rpm = 0;
      for (const bus::RecordedFrame& record : records) {
        if (const auto commanded = CommandedRpm(make, node, record.text, motor)) {
          last = record.text;
          rpm = *commanded;
        }
      }
      EXPECT_EQ(rpm, 0) << "node " << node << ", motor " << motor + 1 << ": " << last;
    }
  }
}

}  // namespace wire
