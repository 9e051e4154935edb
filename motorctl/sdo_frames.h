// The frames of SDO transfers, built and taken apart.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace motorctl {

using SdoFrame = std::array<std::uint8_t, 8>;

struct SdoObject {
  int node = 0;
  std::uint16_t index = 0;
  std::uint8_t sub_index = 0;
};

namespace sdo {

// Command specifiers, the upper three bits of the first byte.
constexpr unsigned kUploadSegment = 0;  // responses
constexpr unsigned kDownloadSegment = 1;
constexpr unsigned kUpload = 2;
constexpr unsigned kDownload = 3;
constexpr unsigned kAbort = 4;

constexpr std::uint8_t kExpedited = 0x02;
constexpr std::uint8_t kSizeTold = 0x01;
constexpr std::uint8_t kToggle = 0x10;
constexpr std::uint8_t kLast = 0x01;
constexpr std::size_t kExpeditedSize = 4;
constexpr std::size_t kSegmentSize = 7;

constexpr std::uint32_t kToggleNotAlternated = 0x05030000;
constexpr std::uint32_t kTimedOut = 0x05040000;
constexpr std::uint32_t kCommandUnknown = 0x05040001;
constexpr std::uint32_t kOutOfMemory = 0x05040005;
constexpr std::uint32_t kLengthMismatch = 0x06070010;
constexpr std::uint32_t kGeneralError = 0x08000000;

unsigned Specifier(const SdoFrame& frame);

// Little-endian.
std::uint32_t Number(const std::uint8_t* bytes, std::size_t count);

// A frame that names its object.
SdoFrame Request(unsigned command, const SdoObject& object, std::uint32_t value = 0);

// The object that a frame names.
SdoObject ObjectOf(int node, const SdoFrame& frame);
bool Same(const SdoObject& one, const SdoObject& other);

}  // namespace sdo
}  // namespace motorctl
