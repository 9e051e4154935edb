#include "sdo_frame.h"

#include "canopen.h"
#include "little_endian.h"

namespace {

constexpr std::uint8_t kSdoHeaderSize = 4;  // command, index, sub-index

}  // namespace

void StoreSdo(const SdoFrame& sdo, std::uint8_t* bytes) {
  bytes[0] = sdo.command;
  little_endian::Store16(sdo.index, bytes + 1);
  bytes[3] = sdo.sub_index;
  little_endian::Store32(sdo.data, bytes + 4);
}

bool ParseSdo(const std::uint8_t* bytes, std::uint8_t len, SdoFrame& sdo) {
  if (len < kSdoHeaderSize) {
    return false;
  }
  sdo.command = bytes[0];
  sdo.index = little_endian::Load16(bytes + 1);
  sdo.sub_index = bytes[3];
  sdo.data = len >= kSdoFrameSize ? little_endian::Load32(bytes + 4) : 0;
  return true;
}

bool IsAccepted(std::uint8_t request, std::uint8_t response) {
  switch (request) {
    case cia301::kDownload1:
    case cia301::kDownload2:
    case cia301::kDownload3:
    case cia301::kDownload4:
      return response == cia301::kDownloadConfirmed;
    case cia301::kUpload:
      return (response & cia301::kUploadConfirmedMask) == cia301::kUploadConfirmed;
    default:
      return false;
  }
}
