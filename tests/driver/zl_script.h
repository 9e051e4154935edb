// Set-up of node 1 of a ZL drive with a period of 10 ms.
#pragma once

#include <cstddef>
#include <vector>

#include "set_up_script.h"

namespace zl_script {

// Texts with two blanks after "error", and texts that name another value than the frame: as they
// must be.

// clang-format off
inline const std::vector<SetUpStep> kMotorCurrent = {
    {"601#2B122001C8000000", "write error  0x2012, 0x01, 200\n"},
    {"601#2B122002C8000000", "write error  0x2012, 0x02, 200\n"},
    {"601#2B14200196000000", "write error  0x2014, 0x01, 150\n"},
    {"601#2B14200296000000", "write error  0x2014, 0x02, 150\n"},
    {"601#2B1520012C010000", "write error  0x2015, 0x01, 300\n"},
    {"601#2B1520022C010000", "write error  0x2015, 0x02, 300\n"},
    {"601#2B1620012C010000", "write error  0x2016, 0x01, 300\n"},
    {"601#2B1620022C010000", "write error  0x2016, 0x02, 300\n"},
};

inline const std::vector<SetUpStep> kSpeedMode = {
    {"601#2B0F200000000000", "write error  0x200F, 0x00, 0x00\n"},
    {"601#2F60600003000000", "write error 0x6060, 0x00, 0x03\n"},
    {"601#2383600100000000", "write error 0x6060, 0x00, 0x03\n"},
    {"601#2383600200000000", "write error 0x6060, 0x00, 0x03\n"},
    {"601#2384600100000000", "write error 0x6060, 0x00, 0x03\n"},
    {"601#2384600200000000", "write error 0x6060, 0x00, 0x03\n"},
    {"601#2B40600006000000", "write error 0x6040, 0x00, 0x0006\n"},
    {"601#2B40600007000000", "write error 0x6040, 0x00, 0x0007\n"},
    {"601#2B4060000F000000", "write error 0x6040, 0x00, 0x000F\n"},
};

inline const std::vector<SetUpStep> kPdos = {
    {"601#2300140101020080", "write error 0x1400, 0x01, 0x80000200 + node_id\n"},
    {"601#2F00160000000000", "write error 0x1600, 0x00, 0\n"},
    {"601#230016012001FF60", "write error 0x1600, 0x01, 0x60FF0120\n"},
    {"601#230016022002FF60", "write error 0x1600, 0x02, 0x60FF0220\n"},
    {"601#2F00160002000000", "write error 0x1600, 0x00, 0x02\n"},
    {"601#2300140101020000", "write error 0x1400, 0x01, 0x00000200 + node_id\n"},
    {"601#2300180181010080", "write error 0x1800, 0x01, 0x80000180 + node_id\n"},
    {"601#2301180181020080", "write error 0x1801, 0x01, 0x80000180 + node_id\n"},
    {"601#2302180181030080", "write error 0x1802, 0x01, 0x80000180 + node_id\n"},
    {"601#2303180181040080", "write error 0x1803, 0x01, 0x80000180 + node_id\n"},
    {"601#2F001A0000000000", "write error 0x1A00, 0x00, 0x00\n"},
    {"601#23001A0120016460", "write error 0x1A00, 0x01, 0x60640120\n"},
    {"601#23001A0220026460", "write error 0x1A00, 0x02, 0x60640220\n"},
    {"601#2F001A0002000000", "write error 0x1A00, 0x00, 0x02\n"},
    {"601#2F001802FF000000", "write error 0x1800, 0x02, 0xFF\n"},
    {"601#2B00180514000000", "write error 0x1800, 0x05, period*2\n"},
    {"601#2300180181010000", "write error 0x1800, 0x01, 0x00000180 + node_id\n"},
    {"601#2F031A0000000000", "write error 0x1A03, 0x00, 0x00\n"},
    {"601#23031A0120003F60", "write error 0x1A03, 0x01, 0x603F0020\n"},
    {"601#23031A0220004160", "write error 0x1A03, 0x02, 0x60410020\n"},
    {"601#2F031A0002000000", "write error 0x1A03, 0x00, 0x02\n"},
    {"601#2F031802FF000000", "write error 0x1803, 0x02, 0xFF\n"},
    {"601#2B031805A00F0000", "write error 0x1803, 0x05, 2000*2\n"},
    {"601#2303180181040000", "write error 0x1803, 0x01, 0x00000180 + node_id\n"},
};

inline const SetUpStep kHeartbeat = {"601#2B171000D0070000", ""};
// clang-format on

inline std::vector<SetUpStep> WholeSetUp() {
  std::vector<SetUpStep> script = kMotorCurrent;
  script.insert(script.end(), kSpeedMode.begin(), kSpeedMode.end());
  script.insert(script.end(), kPdos.begin(), kPdos.end());
  script.push_back(kHeartbeat);
  return script;
}

// RPDO1 off and on, TPDO1 to TPDO4 off, event timer, TPDO1 and TPDO4 on.
inline const std::vector<std::size_t> kVarying = {17, 22, 23, 24, 25, 26, 32, 33, 40};

// clang-format off
inline const std::vector<SetUpVariant> kVariants = {
    {1, 1, "601",
     {"#2300140101020080", "#2300140101020000",
      "#2300180181010080", "#2301180181020080", "#2302180181030080", "#2303180181040080",
      "#2B00180502000000", "#2300180181010000", "#2303180181040000"}, {}},
    {2, 32767, "602",
     {"#2300140102020080", "#2300140102020000",
      "#2300180182010080", "#2301180182020080", "#2302180182030080", "#2303180182040080",
      "#2B001805FEFF0000", "#2300180182010000", "#2303180182040000"}, {}},
    // The product does not fit the object: it goes out as it is.
    {127, 40000, "67F",
     {"#230014017F020080", "#230014017F020000",
      "#23001801FF010080", "#23011801FF020080", "#23021801FF030080", "#23031801FF040080",
      "#2B00180580380100", "#23001801FF010000", "#23031801FF040000"}, {}},
    {3, 65535, "603",
     {"#2300140103020080", "#2300140103020000",
      "#2300180183010080", "#2301180183020080", "#2302180183030080", "#2303180183040080",
      "#2B001805FEFF0100", "#2300180183010000", "#2303180183040000"}, {}},
    {1, 0, "601",
     {"#2300140101020080", "#2300140101020000",
      "#2300180181010080", "#2301180181020080", "#2302180181030080", "#2303180181040080",
      "#2B00180500000000", "#2300180181010000", "#2303180181040000"}, {}},
};
// clang-format on

}  // namespace zl_script
