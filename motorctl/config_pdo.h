// Where CiA 301 has the records of PDOs: communication from 0x1400 (received) and 0x1800 (sent) on,
// the mapping of each 0x200 behind it.
#pragma once

#include <cstdint>
#include <optional>

namespace motorctl {

constexpr std::uint16_t kPdoMapping = 0x200;
constexpr std::uint8_t kPdoCobId = 1;
// Of a COB-ID: what it names is not in use.
constexpr std::uint32_t kNotInUse = 0x80000000;

constexpr bool IsPdoCommunication(std::uint16_t index) {
  return (index & 0xFE00) == 0x1400 || (index & 0xFE00) == 0x1800;
}

constexpr bool IsPdoMapping(std::uint16_t index) {
  return (index & 0xFE00) == 0x1600 || (index & 0xFE00) == 0x1A00;
}

// The communication record of the PDO that the index belongs to.
inline std::optional<std::uint16_t> PdoOf(std::uint16_t index) {
  if (IsPdoCommunication(index)) return index;
  if (IsPdoMapping(index)) return static_cast<std::uint16_t>(index - kPdoMapping);
  return std::nullopt;
}

// Where a PDO with this COB-ID is heard; nothing when it is not in use or its identifier is extended.
inline std::optional<std::uint32_t> IdentifierOf(std::uint32_t cob_id) {
  constexpr std::uint32_t kNoRemoteRequest = 0x40000000;
  constexpr std::uint32_t kHighest = 0x7FF;
  const std::uint32_t identifier = cob_id & ~kNoRemoteRequest;
  if (identifier == 0 || identifier > kHighest) return std::nullopt;
  return identifier;
}

}  // namespace motorctl
