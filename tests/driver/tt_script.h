// Set-up of node 1 of a TT drive with a period of 10 ms.
#pragma once

#include <vector>

#include "set_up_script.h"

namespace tt_script {

// Texts without line break, and TPDO2 to TPDO4 switched off with the identifier of TPDO1: as they
// must be.

// clang-format off
inline const SetUpStep kHeartbeat = {"601#2B171000D0070000", ""};

inline const std::vector<SetUpStep> kSpeedMode = {
    {"601#2F60600003000000", "write error 0x6060, 0x00, 0x03"},
    {"601#2B40600080000000", "write error 0x6040, 0x00, 0x0080"},
    {"601#2B40600006000000", "write error 0x6040, 0x00, 0x0006"},
    {"601#2B40600007000000", "write error 0x6040, 0x00, 0x0007"},
    {"601#2B4060000F000000", "write error 0x6040, 0x00, 0x000F"},
};

inline const std::vector<SetUpStep> kPdos = {
    {"601#2300140101020080", "write error 0x1400, 0x01, 0x80000200 + node_id"},
    {"601#2F001402FF000000", "write error 0x1400, 0x02, 0xFF"},
    {"601#2F00160000000000", "write error 0x1600, 0x00, 0"},
    {"601#230016012000FF60", "write error 0x1600, 0x01, 0x60FF0020"},
    {"601#2F00160001000000", "write error 0x1600, 0x00, 0x01"},
    {"601#2300140101020000", "write error 0x1400, 0x01, 0x00000200 + node_id"},
    {"601#2300180181010080", "write error 0x1800, 0x01, 0x80000180 + node_id"},
    {"601#2301180181010080", "write error 0x1801, 0x01, 0x80000180 + node_id"},
    {"601#2302180181010080", "write error 0x1802, 0x01, 0x80000180 + node_id"},
    {"601#2303180181010080", "write error 0x1803, 0x01, 0x80000180 + node_id"},
    {"601#2F001802FF000000", "write error 0x1800, 0x02, 0xFF"},
    {"601#2B0018050A000000", "write error 0x1800, 0x05, period"},
    {"601#2F001A0000000000", "write error 0x1A00, 0x00, 0x00"},
    {"601#23001A0120006360", "write error 0x1A00, 0x01, 0x60630020"},
    {"601#2F001A0001000000", "write error 0x1A00, 0x00, 0x01"},
    {"601#2300180181010000", "write error 0x1800, 0x01, 0x00000180 + node_id"},
};
// clang-format on

inline std::vector<SetUpStep> WholeSetUp() {
  std::vector<SetUpStep> script = {kHeartbeat};
  script.insert(script.end(), kSpeedMode.begin(), kSpeedMode.end());
  script.insert(script.end(), kPdos.begin(), kPdos.end());
  return script;
}

}  // namespace tt_script
