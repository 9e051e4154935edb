// Abort codes of SDO transfers (CiA 301) on which something depends. The words for all are in
// codes.cpp.
#pragma once

#include <cstdint>

namespace motorctl {

constexpr std::uint32_t kNoSuchAccess = 0x06010000;
constexpr std::uint32_t kWriteOnly = 0x06010001;
constexpr std::uint32_t kReadOnly = 0x06010002;
constexpr std::uint32_t kNoObject = 0x06020000;
constexpr std::uint32_t kNoSubIndex = 0x06090011;
constexpr std::uint32_t kNoData = 0x08000024;

// The drive does not have the object, or not this sub-index of it.
constexpr bool SaysAbsent(std::uint32_t abort_code) {
  return abort_code == kNoObject || abort_code == kNoSubIndex;
}

}  // namespace motorctl
