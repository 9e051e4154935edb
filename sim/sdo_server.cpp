#include "sim/sdo_server.h"

#include "sim/frame.h"

namespace sim {
namespace {

constexpr unsigned kInitiateDownload = 1;
constexpr unsigned kInitiateUpload = 2;
constexpr unsigned kAbortTransfer = 4;

constexpr unsigned kExpedited = 0x02;
constexpr unsigned kSizeIndicated = 0x01;

SdoBytes Reply(unsigned command, std::uint16_t index, std::uint8_t sub, std::uint32_t value) {
  SdoBytes bytes{};
  bytes[0] = static_cast<std::uint8_t>(command);
  PutLittleEndian(bytes.begin() + 1, 2, index);
  bytes[3] = sub;
  PutLittleEndian(bytes.begin() + 4, 4, value);
  return bytes;
}

}  // namespace

SdoRequest DecodeSdoRequest(const SdoBytes& bytes) {
  const unsigned command = bytes[0];
  SdoRequest request{SdoRequest::Kind::kNotSupported,
                     static_cast<std::uint16_t>(GetLittleEndian(bytes.begin() + 1, 2)), bytes[3], 0,
                     GetLittleEndian(bytes.begin() + 4, 4)};
  switch (command >> 5) {
    case kInitiateDownload:
      if ((command & kExpedited) == 0) break;
      request.kind = SdoRequest::Kind::kDownload;
      if ((command & kSizeIndicated) != 0) request.size = 4 - ((command >> 2) & 3);
      break;
    case kInitiateUpload:
      request.kind = SdoRequest::Kind::kUpload;
      break;
    case kAbortTransfer:
      request.kind = SdoRequest::Kind::kClientAbort;
      break;
    default:
      break;
  }
  return request;
}

SdoBytes SdoAbort(std::uint16_t index, std::uint8_t sub, AbortCode code) {
  return Reply(0x80, index, sub, static_cast<std::uint32_t>(code));
}

std::optional<SdoBytes> ServeSdo(ObjectDictionary& dictionary, const SdoRequest& request) {
  switch (request.kind) {
    case SdoRequest::Kind::kDownload: {
      const AbortCode error =
          dictionary.Download(request.index, request.sub, request.size, request.value);
      if (error != AbortCode::kNone) return SdoAbort(request.index, request.sub, error);
      return Reply(0x60, request.index, request.sub, 0);
    }
    case SdoRequest::Kind::kUpload: {
      const auto [error, size, value] = dictionary.Upload(request.index, request.sub);
      if (error != AbortCode::kNone) return SdoAbort(request.index, request.sub, error);
      return Reply(0x43U | ((4 - size) << 2), request.index, request.sub, value);
    }
    case SdoRequest::Kind::kClientAbort:
      return std::nullopt;
    case SdoRequest::Kind::kNotSupported:
      break;
  }
  return SdoAbort(request.index, request.sub, AbortCode::kUnknownCommand);
}

}  // namespace sim
