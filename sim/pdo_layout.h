#pragma once

#include <cstddef>
#include <cstdint>

// Where CiA 301 keeps what decides over PDOs.
namespace sim::pdo {

inline constexpr std::uint16_t kReceiveCommunication = 0x1400;
inline constexpr std::uint16_t kReceiveMapping = 0x1600;
inline constexpr std::uint16_t kTransmitCommunication = 0x1800;
inline constexpr std::uint16_t kTransmitMapping = 0x1A00;

inline constexpr std::uint8_t kCobId = 1;
inline constexpr std::uint8_t kTransmissionType = 2;
inline constexpr std::uint8_t kInhibitTime = 3;
inline constexpr std::uint8_t kEventTimer = 5;

inline constexpr std::uint32_t kInvalid = 0x80000000;
inline constexpr std::uint32_t kExtendedFrame = 0x20000000;
inline constexpr std::uint32_t kIdentifier = 0x7FF;

inline constexpr std::uint32_t kLastSynchronous = 0xF0;
inline constexpr std::uint32_t kManufacturerEvent = 0xFE;
inline constexpr std::uint32_t kProfileEvent = 0xFF;

constexpr std::uint16_t Nth(std::uint16_t first, std::size_t number) {
  return static_cast<std::uint16_t>(first + number);
}

// A mapping entry: index, sub-index and length in bits.
constexpr std::uint16_t MappedIndex(std::uint32_t entry) {
  return static_cast<std::uint16_t>(entry >> 16);
}
constexpr std::uint8_t MappedSub(std::uint32_t entry) {
  return static_cast<std::uint8_t>(entry >> 8);
}
constexpr unsigned MappedBits(std::uint32_t entry) { return entry & 0xFFU; }

}  // namespace sim::pdo
