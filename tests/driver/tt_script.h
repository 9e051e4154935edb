// Set-up of node 1 of a TT drive with a period of 10 ms.
#pragma once

#include <cstddef>
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

// RPDO1 off and on, TPDO1 to TPDO4 off, event timer, TPDO1 on.
inline const std::vector<std::size_t> kVarying = {6, 11, 12, 13, 14, 15, 17, 21};

// clang-format off
inline const std::vector<SetUpVariant> kVariants = {
    {1, 10, "601",
     {"#2300140101020080", "#2300140101020000",
      "#2300180181010080", "#2301180181010080", "#2302180181010080", "#2303180181010080",
      "#2B0018050A000000", "#2300180181010000"}, {}},
    {2, 1, "602",
     {"#2300140102020080", "#2300140102020000",
      "#2300180182010080", "#2301180182010080", "#2302180182010080", "#2303180182010080",
      "#2B00180501000000", "#2300180182010000"}, {}},
    {127, 65535, "67F",
     {"#230014017F020080", "#230014017F020000",
      "#23001801FF010080", "#23011801FF010080", "#23021801FF010080", "#23031801FF010080",
      "#2B001805FFFF0000", "#23001801FF010000"}, {}},
    {3, 300, "603",
     {"#2300140103020080", "#2300140103020000",
      "#2300180183010080", "#2301180183010080", "#2302180183010080", "#2303180183010080",
      "#2B0018052C010000", "#2300180183010000"}, {}},
    {1, 0, "601",
     {"#2300140101020080", "#2300140101020000",
      "#2300180181010080", "#2301180181010080", "#2302180181010080", "#2303180181010080",
      "#2B00180500000000", "#2300180181010000"}, {}},
};
// clang-format on

}  // namespace tt_script
