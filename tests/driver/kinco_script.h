// Set-up of node 1 of a Kinco drive with a period of 10 ms.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "set_up_script.h"

namespace kinco_script {

// Texts that name another value, sub-index or object than the frame: as they must be.

// clang-format off
inline const std::vector<SetUpStep> kSpeedMode = {
    {"601#2F606000FD000000", "write error 0x6060, 0x00, 0xFD\n"},
    {"601#2B40600006000000", "write error 0x6040, 0x00, 0x0006\n"},
    {"601#2B40600007000000", "write error 0x6040, 0x00, 0x0007\n"},
    {"601#2B4060000F000000", "write error 0x6040, 0x00, 0x000F\n"},
};

inline const std::vector<SetUpStep> kPdos = {
    {"601#2F00160000000000", "write error 0x1600, 0x00, 0\n"},
    {"601#230016012000FF60", "write error 0x1600, 0x01, 0x60FF0020\n"},
    {"601#2300140101020000", "write error 0x1400, 0x01, 201\n"},
    {"601#2F00160001000000", "write error 0x1600, 0x00, 0x01\n"},
    {"601#2F001A0000000000", "write error 0x1A00, 0x00, 0x00\n"},
    {"601#23001A0120006360", "write error 0x1A00, 0x01, 0x60640020\n"},
    {"601#2300180181010000", "write error 0x1800, 0x01, 181\n"},
    {"601#2F001A0001000000", "write error 0x1A00, 0x00, 0x01\n"},
    {"601#2F0018050A000000", "write error 0x1800, 0x03, period*2\n"},
    {"601#2F0018030A000000", "write error 0x1800, 0x05, period*2\n"},
    {"601#2F001802FE000000", "write error 0x1800, 0x02, 0xFE\n"},
    {"601#2F031A0000000000", "write error 0x1A03, 0x00, 0x00\n"},
    {"601#23031A0110003F60", "write error 0x1A03, 0x01, 0x603F0020\n"},
    {"601#23031A0210004160", "write error 0x1A03, 0x02, 0x60410020\n"},
    {"601#23031A03100A1020", "write error 0x1A03, 0x03, 0x20100A10\n"},
    {"601#2303180181040000", "write error 0x1803, 0x01, 481\n"},
    {"601#2F031A0003000000", "write error 0x1A03, 0x00, 0x02\n"},
    {"601#2B031805C8000000", "write error 0x1803, 0x05, 200\n"},
    {"601#2B031803C8000000", "write error 0x1803, 0x05, 200\n"},
    {"601#2F031802FE000000", "write error 0x1803, 0x02, 0xFF\n"},
};

inline const SetUpStep kHeartbeat = {"601#2B171000D0070000", ""};
// clang-format on

inline std::vector<SetUpStep> WholeSetUp() {
  std::vector<SetUpStep> script = kSpeedMode;
  script.insert(script.end(), kPdos.begin(), kPdos.end());
  script.push_back(kHeartbeat);
  return script;
}

// RPDO1, TPDO1, event timer, inhibit time, TPDO4.
inline const std::vector<std::size_t> kVarying = {6, 10, 12, 13, 19};

// The texts of three of them name the identifier.
inline std::vector<std::string> VaryingTexts(const std::string& rpdo1, const std::string& tpdo1,
                                             const std::string& tpdo4) {
  return {"write error 0x1400, 0x01, " + rpdo1 + "\n", "write error 0x1800, 0x01, " + tpdo1 + "\n",
          "write error 0x1800, 0x03, period*2\n", "write error 0x1800, 0x05, period*2\n",
          "write error 0x1803, 0x01, " + tpdo4 + "\n"};
}

// clang-format off
inline const std::vector<SetUpVariant> kVariants = {
    {1, 1, "601",
     {"#2300140101020000", "#2300180181010000",
      "#2F00180501000000", "#2F00180301000000", "#2303180181040000"},
     VaryingTexts("201", "181", "481")},
    {2, 255, "602",
     {"#2300140102020000", "#2300180182010000",
      "#2F001805FF000000", "#2F001803FF000000", "#2303180182040000"},
     VaryingTexts("202", "182", "482")},
    // The period does not fit the byte: it goes out as it is.
    {10, 300, "60A",
     {"#230014010A020000", "#230018018A010000",
      "#2F0018052C010000", "#2F0018032C010000", "#230318018A040000"},
     VaryingTexts("20a", "18a", "48a")},
    {127, 65535, "67F",
     {"#230014017F020000", "#23001801FF010000",
      "#2F001805FFFF0000", "#2F001803FFFF0000", "#23031801FF040000"},
     VaryingTexts("27f", "1ff", "4ff")},
    {3, 0, "603",
     {"#2300140103020000", "#2300180183010000",
      "#2F00180500000000", "#2F00180300000000", "#2303180183040000"},
     VaryingTexts("203", "183", "483")},
};
// clang-format on

}  // namespace kinco_script
