// Set-up of node 1 of an AMPS drive with a period of 10 ms.
#pragma once

#include <cstddef>
#include <vector>

#include "set_up_script.h"

namespace amps_script {

// Texts without line break: as they must be.

// clang-format off
inline const std::vector<SetUpStep> kSpeedMode = {
    {"601#2F60600003000000", "write error 0x6060, 0x00, 0x03"},
    {"601#2B4060000F000000", "write error 0x6040, 0x00, 0x000F"},
};

inline const std::vector<SetUpStep> kPdos = {
    {"601#2B0018030A000000", "write error 0x1800, 0x03, period"},
    {"601#2F00470101000000", "write error 0x4700, 0x01, 1"},
};
// clang-format on

inline std::vector<SetUpStep> WholeSetUp() {
  std::vector<SetUpStep> script = kSpeedMode;
  script.insert(script.end(), kPdos.begin(), kPdos.end());
  return script;
}

// Inhibit time.
inline const std::vector<std::size_t> kVarying = {2};

inline const std::vector<SetUpVariant> kVariants = {
    {1, 10, "601", {"#2B0018030A000000"}, {}},
    {2, 300, "602", {"#2B0018032C010000"}, {}},
    {127, 65535, "67F", {"#2B001803FFFF0000"}, {}},
    {3, 0, "603", {"#2B00180300000000"}, {}},
};

}  // namespace amps_script
