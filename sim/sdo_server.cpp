#include "sim/sdo_server.h"

#include <algorithm>
#include <utility>

namespace sim {
namespace {

// Command specifiers, the upper three bits of the first byte.
constexpr unsigned kSegmentDownload = 0;
constexpr unsigned kInitiateDownload = 1;
constexpr unsigned kInitiateUpload = 2;
constexpr unsigned kSegmentUpload = 3;
constexpr unsigned kAbortTransfer = 4;

constexpr unsigned kExpedited = 0x02;
constexpr unsigned kSizeIndicated = 0x01;

// Of segments: 7 data bytes less those that hold none, in three bits.
constexpr unsigned kToggle = 0x10;
constexpr unsigned kLast = 0x01;
constexpr std::size_t kSegmentSize = 7;
constexpr std::size_t kExpeditedSize = 4;

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
                     static_cast<std::uint16_t>(GetLittleEndian(bytes.begin() + 1, 2)),
                     bytes[3],
                     0,
                     GetLittleEndian(bytes.begin() + 4, 4),
                     bytes};
  switch (command >> 5) {
    case kSegmentDownload:
      request.kind = SdoRequest::Kind::kDownloadSegment;
      break;
    case kInitiateDownload:
      request.kind = (command & kExpedited) != 0 ? SdoRequest::Kind::kDownload
                                                 : SdoRequest::Kind::kDownloadBegin;
      if ((command & kSizeIndicated) != 0) request.size = 4 - ((command >> 2) & 3);
      break;
    case kInitiateUpload:
      request.kind = SdoRequest::Kind::kUpload;
      break;
    case kSegmentUpload:
      request.kind = SdoRequest::Kind::kUploadSegment;
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

bool BeginsUpload(const SdoBytes& reply) { return reply[0] >> 5 == 2; }

bool IsSegment(const SdoBytes& reply) { return reply[0] >> 5 <= 1; }

std::optional<SdoBytes> SdoServer::Serve(const SdoRequest& request, Time now) {
  switch (request.kind) {
    case SdoRequest::Kind::kClientAbort:
      Close();
      return std::nullopt;
    case SdoRequest::Kind::kUploadSegment:
    case SdoRequest::Kind::kDownloadSegment:
      return ServeSegment(request, now);
    default:
      break;
  }
  const bool was_busy = busy();
  Close();
  if (was_busy) return SdoAbort(request.index, request.sub, AbortCode::kUnknownCommand);
  switch (request.kind) {
    case SdoRequest::Kind::kDownload: {
      const AbortCode error =
          dictionary_.Download(Own(request.index), request.sub, request.size, request.value);
      if (error != AbortCode::kNone) return SdoAbort(request.index, request.sub, error);
      return Reply(0x60, request.index, request.sub, 0);
    }
    case SdoRequest::Kind::kDownloadBegin:
      return BeginDownload(request, now);
    case SdoRequest::Kind::kUpload:
      return BeginUpload(request, now);
    default:
      return SdoAbort(request.index, request.sub, AbortCode::kUnknownCommand);
  }
}

SdoBytes SdoServer::BeginDownload(const SdoRequest& request, Time now) {
  Transfer transfer;
  transfer.index = request.index;
  transfer.sub = request.sub;
  transfer.heard = now;
  if ((request.bytes[0] & kSizeIndicated) != 0) transfer.size = request.value;
  const AbortCode error = dictionary_.MayDownload(Own(request.index), request.sub, transfer.size);
  if (error != AbortCode::kNone) return SdoAbort(request.index, request.sub, error);
  transfer_ = std::move(transfer);
  return Reply(0x60, request.index, request.sub, 0);
}

SdoBytes SdoServer::BeginUpload(const SdoRequest& request, Time now) {
  auto [error, bytes] = dictionary_.Upload(Own(request.index), request.sub);
  if (error != AbortCode::kNone) return SdoAbort(request.index, request.sub, error);
  const std::size_t size = bytes.size();
  if (size > 0 && size <= kExpeditedSize) {
    const auto unused = static_cast<unsigned>(kExpeditedSize - size);
    return Reply(0x43U | unused << 2, request.index, request.sub,
                 GetLittleEndian(bytes.begin(), static_cast<unsigned>(size)));
  }
  Transfer transfer;
  transfer.index = request.index;
  transfer.sub = request.sub;
  transfer.upload = true;
  transfer.bytes = std::move(bytes);
  transfer.heard = now;
  transfer_ = std::move(transfer);
  return Reply(0x41, request.index, request.sub, static_cast<std::uint32_t>(size));
}

SdoBytes SdoServer::ServeSegment(const SdoRequest& request, Time now) {
  if (!busy()) return SdoAbort(0, 0, AbortCode::kUnknownCommand);
  const bool upload = request.kind == SdoRequest::Kind::kUploadSegment;
  if (transfer_->upload != upload) return Abort(AbortCode::kUnknownCommand);
  if (((request.bytes[0] & kToggle) != 0) != transfer_->toggle) return Abort(AbortCode::kToggle);
  transfer_->heard = now;
  return upload ? NextSegment() : TakeSegment(request.bytes[0], request.bytes);
}

SdoBytes SdoServer::NextSegment() {
  SdoBytes reply{};
  const std::size_t left = transfer_->bytes.size() - transfer_->done;
  const std::size_t size = std::min(left, kSegmentSize);
  reply[0] = static_cast<std::uint8_t>((transfer_->toggle ? kToggle : 0U) |
                                       (kSegmentSize - size) << 1 | (left == size ? kLast : 0U));
  std::copy_n(transfer_->bytes.begin() + static_cast<std::ptrdiff_t>(transfer_->done), size,
              reply.begin() + 1);
  transfer_->done += size;
  transfer_->toggle = !transfer_->toggle;
  if (left == size) Close();
  return reply;
}

SdoBytes SdoServer::TakeSegment(unsigned command, const SdoBytes& segment) {
  const std::size_t size = kSegmentSize - (command >> 1 & 7U);
  Bytes& bytes = transfer_->bytes;
  bytes.insert(bytes.end(), segment.begin() + 1,
               segment.begin() + 1 + static_cast<std::ptrdiff_t>(size));
  const std::uint16_t own = Own(transfer_->index);
  if (bytes.size() > transfer_->size.value_or(bytes.size()) ||
      dictionary_.MayDownload(own, transfer_->sub, bytes.size()) == AbortCode::kLengthTooHigh) {
    return Abort(AbortCode::kLengthTooHigh);
  }
  SdoBytes reply{};
  reply[0] = static_cast<std::uint8_t>(0x20U | (transfer_->toggle ? kToggle : 0U));
  transfer_->toggle = !transfer_->toggle;
  if ((command & kLast) == 0) return reply;
  if (bytes.size() < transfer_->size.value_or(0)) return Abort(AbortCode::kLengthTooLow);
  const AbortCode error = dictionary_.Download(own, transfer_->sub, bytes);
  if (error != AbortCode::kNone) return Abort(error);
  Close();
  return reply;
}

std::optional<SdoBytes> SdoServer::Step(Time now) {
  if (now < NextEvent()) return std::nullopt;
  return Abort(AbortCode::kTimedOut);
}

SdoBytes SdoServer::Abort(AbortCode code) {
  const SdoBytes abort = SdoAbort(transfer_->index, transfer_->sub, code);
  Close();
  return abort;
}

}  // namespace sim
