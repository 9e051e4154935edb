// Identifiers of CiA 301's predefined connection set: a function, and the node-ID in the lower bits.
#pragma once

#include <cstdint>

namespace sim {

constexpr std::uint32_t kFunctionMask = 0x780;
constexpr std::uint32_t kNodeMask = 0x07F;

constexpr std::uint32_t kNmt = 0x000;
constexpr std::uint32_t kSync = 0x080;
constexpr std::uint32_t kEmergency = 0x080;
constexpr std::uint32_t kTimeStamp = 0x100;
constexpr std::uint32_t kFirstPdo = 0x180;
constexpr std::uint32_t kSdoResponse = 0x580;
constexpr std::uint32_t kSdoRequest = 0x600;
constexpr std::uint32_t kHeartbeat = 0x700;  // and boot-up

}  // namespace sim
