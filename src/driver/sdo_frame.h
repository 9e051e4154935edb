// Frames of expedited SDO transfers: bytes <-> fields.
#pragma once

#include <cstdint>

constexpr std::uint8_t kSdoFrameSize = 8;

struct SdoFrame {
  std::uint8_t command;
  std::uint16_t index;
  std::uint8_t sub_index;
  std::uint32_t data;
};

// `bytes` has room for kSdoFrameSize.
void StoreSdo(const SdoFrame& sdo, std::uint8_t* bytes);

// False for a frame too short to name its object; one too short for data has 0.
bool ParseSdo(const std::uint8_t* bytes, std::uint8_t len, SdoFrame& sdo);

// Whether the command of an answer confirms that of the request.
bool IsAccepted(std::uint8_t request, std::uint8_t response);
