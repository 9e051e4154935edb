// Bytes on the wire <-> integers. CANopen sends the least significant byte first.
#pragma once

#include <cstdint>

namespace little_endian {

constexpr void Store16(std::uint16_t value, std::uint8_t* bytes) {
  bytes[0] = static_cast<std::uint8_t>(value);
  bytes[1] = static_cast<std::uint8_t>(value >> 8);
}

constexpr void Store32(std::uint32_t value, std::uint8_t* bytes) {
  Store16(static_cast<std::uint16_t>(value), bytes);
  Store16(static_cast<std::uint16_t>(value >> 16), bytes + 2);
}

constexpr std::uint16_t Load16(const std::uint8_t* bytes) {
  return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

constexpr std::uint32_t Load32(const std::uint8_t* bytes) {
  return Load16(bytes) | static_cast<std::uint32_t>(Load16(bytes + 2)) << 16;
}

}  // namespace little_endian
