// A plan of six writes for a drive of memory.
#pragma once

#include <vector>

#include "config_restore.h"
#include "memory_drive.h"

namespace motorctl {

// Each of the five objects is 0x10 more; the first one takes a detour, as identifiers of PDOs do.
inline std::vector<ConfigWrite> Plan() {
  std::vector<ConfigWrite> writes;
  const auto add = [&](std::uint8_t sub, std::uint8_t before, std::uint8_t value) {
    ConfigWrite write;
    write.object.index = 0x2000;
    write.object.sub = sub;
    write.object.bytes = {value};
    write.before = {before};
    writes.push_back(write);
  };
  add(1, 1, 0x80);
  for (std::uint8_t sub = 2; sub <= 5; ++sub) {
    add(sub, sub, static_cast<std::uint8_t>(0x10 + sub));
  }
  add(1, 0x80, 0x11);
  return writes;
}

constexpr int kSteps = 6;
inline const ConfigIdentity kIdentity = {1, 2, 3, 4};

inline ConfigOutcome Restore(MemoryDrive& drive, const ConfigIdentity& identity = kIdentity) {
  return WritePlan(Plan(), identity, drive, [](const ConfigOutcome&) {});
}

inline std::vector<int> Held(MemoryDrive& drive) {
  std::vector<int> held;
  for (std::uint8_t sub = 1; sub <= 5; ++sub) held.push_back(drive.values[{0x2000, sub}][0]);
  return held;
}

inline const std::vector<int> kBefore = {1, 2, 3, 4, 5};
inline const std::vector<int> kAfter = {0x11, 0x12, 0x13, 0x14, 0x15};

}  // namespace motorctl
