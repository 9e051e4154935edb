#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "sim/frame.h"
#include "sim/object_dictionary.h"

namespace sim {

using SdoBytes = std::array<std::uint8_t, 8>;

/// A client's request, by the three command bits (ccs) of CiA 301; reserved bits do not matter.
struct SdoRequest {
  enum class Kind {
    kDownload,         // expedited
    kDownloadBegin,    // in segments
    kDownloadSegment,  // names no object, as an upload segment does not
    kUpload,
    kUploadSegment,
    kClientAbort,   // ends a transfer, is never answered
    kNotSupported,  // block transfers, and commands that do not exist
  };
  Kind kind = Kind::kNotSupported;
  std::uint16_t index = 0;
  std::uint8_t sub = 0;
  unsigned size = 0;  // of an expedited download; 0 when the client did not indicate it
  std::uint32_t value = 0;
  SdoBytes bytes{};  // as it came
};

SdoRequest DecodeSdoRequest(const SdoBytes& bytes);

SdoBytes SdoAbort(std::uint16_t index, std::uint8_t sub, AbortCode code);

/// The replies that begin an upload, and those to a segment of either direction.
bool BeginsUpload(const SdoBytes& reply);
bool IsSegment(const SdoBytes& reply);

/// The SDO server of one channel: one transfer at a time, expedited or in segments. Like a strict
/// drive it aborts a transfer that begins while another one is open: who gives one up has to say so.
class SdoServer {
 public:
  /// A client that is silent for so long in the middle of a transfer is told that it ended.
  static constexpr Time kTimeout{1'000'000};

  /// `index_offset`: what clients of this channel add to every index.
  explicit SdoServer(ObjectDictionary& dictionary, std::uint16_t index_offset = 0)
      : dictionary_(dictionary), index_offset_(index_offset) {}

  /// Nothing to send after a client's abort.
  std::optional<SdoBytes> Serve(const SdoRequest& request, Time now = Time(0));

  /// The abort of a transfer whose client is too late.
  std::optional<SdoBytes> Step(Time now);
  Time NextEvent() const { return transfer_ ? transfer_->heard + kTimeout : Time::max(); }

  /// Whether a transfer is open.
  bool busy() const { return transfer_.has_value(); }
  void Close() { transfer_.reset(); }
  /// Ends the open transfer.
  SdoBytes Abort(AbortCode code);

 private:
  struct Transfer {
    std::uint16_t index = 0;  // as the client names it
    std::uint8_t sub = 0;
    bool upload = false;
    Bytes bytes;
    std::size_t done = 0;             // of an upload
    std::optional<std::size_t> size;  // of a download, where it was indicated
    bool toggle = false;
    Time heard{0};
  };

  std::uint16_t Own(std::uint16_t index) const {
    return static_cast<std::uint16_t>(index - index_offset_);
  }
  SdoBytes BeginDownload(const SdoRequest& request, Time now);
  SdoBytes BeginUpload(const SdoRequest& request, Time now);
  SdoBytes ServeSegment(const SdoRequest& request, Time now);
  SdoBytes TakeSegment(unsigned command, const SdoBytes& segment);
  SdoBytes NextSegment();

  ObjectDictionary& dictionary_;
  std::uint16_t index_offset_;
  std::optional<Transfer> transfer_;
};

}  // namespace sim
