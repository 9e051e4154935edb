// Set-up of node 1 of an HLS drive with a period of 10 ms.
#pragma once

#include <cstddef>
#include <vector>

#include "set_up_script.h"

namespace hls_script {

// Texts that name another value or sub-index than the frame: as they must be.

// clang-format off
inline const std::vector<SetUpStep> kSpeedMode = {
    {"601#2F60600003000000", "write error 0x6060, 0x00, 0x03\n"},
    {"601#2383600000000000", "write error 0x6083, 0x00, 0x00\n"},
    {"601#2384600000000000", "write error 0x6084, 0x00, 0x00\n"},
    {"601#2B40600006000000", "write error 0x6040, 0x00, 0x0006\n"},
    {"601#2B40600007000000", "write error 0x6040, 0x00, 0x0007\n"},
    {"601#2B4060000F000000", "write error 0x6040, 0x00, 0x000F\n"},
};

inline const std::vector<SetUpStep> kPdos = {
    {"601#2F00160000000000", "write error 0x1600, 0x00, 0\n"},
    {"601#230016012000FF60", "write error 0x1600, 0x01, 0x60FF0020\n"},
    {"601#2F00160001000000", "write error 0x1600, 0x00, 0x01\n"},
    {"601#2F001A0000000000", "write error 0x1A00, 0x00, 0x00\n"},
    {"601#23001A0120006360", "write error 0x1A00, 0x01, 0x60640020\n"},
    {"601#2F001A0001000000", "write error 0x1A00, 0x00, 0x01\n"},
    {"601#2F0018050A000000", "write error 0x1800, 0x03, period*2\n"},
    {"601#2F0018030A000000", "write error 0x1800, 0x05, period*2\n"},
    {"601#2F001802FE000000", "write error 0x1800, 0x02, 0xFE\n"},
    {"601#2F031A0000000000", "write error 0x1A03, 0x00, 0x00\n"},
    {"601#23031A0110003F60", "write error 0x1A03, 0x01, 0x603F0020\n"},
    {"601#23031A0210004160", "write error 0x1A03, 0x02, 0x60410020\n"},
    {"601#2F031A0002000000", "write error 0x1A03, 0x00, 0x02\n"},
    {"601#2B031805D0070000", "write error 0x1803, 0x05, 2000\n"},
    {"601#2B031803D0070000", "write error 0x1803, 0x05, 2000\n"},
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

// Event timer and inhibit time.
inline const std::vector<std::size_t> kVarying = {12, 13};

// The period is cut to one byte before it is sent: deliberate.
inline const std::vector<SetUpVariant> kVariants = {
    {1, 10, "601", {"#2F0018050A000000", "#2F0018030A000000"}, {}},
    {2, 300, "602", {"#2F0018052C000000", "#2F0018032C000000"}, {}},
    {127, 255, "67F", {"#2F001805FF000000", "#2F001803FF000000"}, {}},
    {3, 65535, "603", {"#2F001805FF000000", "#2F001803FF000000"}, {}},
    {1, 256, "601", {"#2F00180500000000", "#2F00180300000000"}, {}},
};

}  // namespace hls_script
