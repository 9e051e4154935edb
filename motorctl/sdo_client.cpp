#include "sdo_client.h"

#include <linux/can/raw.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "context.h"
#include "identifiers.h"
#include "sdo_frames.h"

namespace motorctl {
namespace {

using std::chrono::milliseconds;
using namespace sdo;  // NOLINT(google-build-using-namespace): the protocol that this is

// No object of a drive is nearly as long: a node that goes on and on has gone wrong.
constexpr std::size_t kLongest = std::size_t{1} << 20;

[[noreturn]] void Throw(const std::string& interface, const std::error_code& error) {
  switch (error.value()) {
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
      throw CommandFailed(
          "no CAN socket: this kernel has no SocketCAN (as root: modprobe can-raw; without "
          "hardware: tools/with-can)");
    case ENODEV:
      throw CommandFailed("no CAN interface \"" + interface +
                          "\": see \"ip link\" or \"motorctl doctor\"");
    default:
      throw CommandFailed(interface + " failed: " + error.message());
  }
}

}  // namespace

std::uint32_t SdoAnswer::number() const {
  return Number(bytes.data(), std::min(bytes.size(), kExpeditedSize));
}

SdoClient::SdoClient(const std::string& interface, milliseconds timeout) try
    : socket_(interface, {kSdoResponse, kFunctionMask | CAN_EFF_FLAG | CAN_RTR_FLAG}),
      timeout_(timeout) {
  // As hosts do: other programs on this machine hear the nodes, and not each other.
  socket_.Set(SOL_CAN_RAW, CAN_RAW_LOOPBACK, 0);
} catch (const std::system_error& error) {
  Throw(interface, error.code());
}

SdoAnswer SdoClient::Upload(int node, std::uint16_t index, std::uint8_t sub_index, int attempts) {
  const SdoObject object = {node, index, sub_index};
  SdoAnswer answer;
  for (int i = 0; i < attempts && answer.kind == SdoAnswer::Kind::kNoAnswer; ++i) {
    answer = UploadOnce(object);
  }
  AwaitLate(object, answer);
  return answer;
}

SdoAnswer SdoClient::Download(int node, std::uint16_t index, std::uint8_t sub_index,
                              const Bytes& bytes, int attempts) {
  const SdoObject object = {node, index, sub_index};
  SdoAnswer answer;
  for (int i = 0; i < attempts && answer.kind == SdoAnswer::Kind::kNoAnswer; ++i) {
    answer = DownloadOnce(object, bytes);
  }
  AwaitLate(object, answer);
  return answer;
}

SdoAnswer SdoClient::Ask(int node, std::uint16_t index, std::uint8_t sub_index) {
  SdoAnswer answer = UploadOnce({node, index, sub_index});
  if (answer.kind == SdoAnswer::Kind::kNoAnswer) asked_[node] = requested_;
  return answer;
}

const std::map<int, milliseconds>& SdoClient::Late() {
  Frame ignored = {};
  while (Hear(0, Clock::now(), ignored)) {
  }
  return late_;
}

SdoAnswer SdoClient::UploadOnce(const SdoObject& object) {
  SdoAnswer answer;
  Frame reply = {};
  first_.reset();
  if (!Exchange(object, Request(0x40, object), {kUpload, {}}, reply, answer)) return answer;
  answer.size_told = (reply[0] & kSizeTold) != 0;
  if ((reply[0] & kExpedited) != 0) {
    const std::size_t unused = answer.size_told ? reply[0] >> 2U & 3U : 0;
    answer.bytes.assign(reply.begin() + 4, reply.end() - static_cast<std::ptrdiff_t>(unused));
  } else {
    std::optional<std::size_t> size;
    if (answer.size_told) size = Number(&reply[4], 4);
    answer.size_told = true;  // by the end
    if (!ReadSegments(object, size, answer)) return answer;
  }
  answer.kind = SdoAnswer::Kind::kOk;
  return answer;
}

bool SdoClient::ReadSegments(const SdoObject& object, std::optional<std::size_t> size,
                             SdoAnswer& answer) {
  if (size.value_or(0) > kLongest) return GiveUp(object, kOutOfMemory, answer);
  for (bool toggle = false;; toggle = !toggle) {
    Frame reply = {};
    ++answer.segment;
    const Frame request = {static_cast<std::uint8_t>(0x60U | (toggle ? kToggle : 0U))};
    if (!Exchange(object, request, {kUploadSegment, toggle}, reply, answer)) return false;
    const std::size_t count = kSegmentSize - (reply[0] >> 1U & 7U);
    const bool last = (reply[0] & kLast) != 0;
    // It would go on for ever.
    if (count == 0 && !last) return GiveUp(object, kCommandUnknown, answer);
    answer.bytes.insert(answer.bytes.end(), reply.begin() + 1,
                        reply.begin() + 1 + static_cast<std::ptrdiff_t>(count));
    const std::size_t read = answer.bytes.size();
    if (read > kLongest) return GiveUp(object, kOutOfMemory, answer);
    if (size && (read > *size || (last && read < *size))) {
      return GiveUp(object, kLengthMismatch, answer);
    }
    if (last) return true;
  }
}

SdoAnswer SdoClient::DownloadOnce(const SdoObject& object, const Bytes& bytes) {
  SdoAnswer answer;
  Frame reply = {};
  first_.reset();
  const std::size_t size = bytes.size();
  const bool expedited = size > 0 && size <= kExpeditedSize;
  const auto unused = static_cast<unsigned>(kExpeditedSize - size);
  const Frame begin = expedited ? Request(0x23U | unused << 2U, object, Number(bytes.data(), size))
                                : Request(0x21, object, static_cast<std::uint32_t>(size));
  if (!Exchange(object, begin, {kDownload, {}}, reply, answer)) return answer;
  bool toggle = false;
  for (std::size_t sent = 0; !expedited && (sent < size || answer.segment == 0);) {
    const std::size_t count = std::min(size - sent, kSegmentSize);
    const bool last = sent + count == size;
    Frame segment = {static_cast<std::uint8_t>((toggle ? kToggle : 0U) |
                                               (kSegmentSize - count) << 1U | (last ? kLast : 0U))};
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(sent), count, segment.begin() + 1);
    ++answer.segment;
    if (!Exchange(object, segment, {kDownloadSegment, toggle}, reply, answer)) return answer;
    sent += count;
    toggle = !toggle;
  }
  answer.kind = SdoAnswer::Kind::kOk;
  return answer;
}

}  // namespace motorctl
