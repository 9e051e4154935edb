#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "sim/object_dictionary.h"

namespace sim {

using SdoBytes = std::array<std::uint8_t, 8>;

/// A client's request, by the three command bits (ccs) of CiA 301; reserved bits do not matter.
struct SdoRequest {
  enum class Kind {
    kDownload,
    kUpload,
    kClientAbort,   // ends a transfer, is never answered
    kNotSupported,  // segmented and block transfers, and commands that do not exist
  };
  Kind kind;
  std::uint16_t index;
  std::uint8_t sub;
  unsigned size;  // of a download; 0 when the client did not indicate it
  std::uint32_t value;
};

SdoRequest DecodeSdoRequest(const SdoBytes& bytes);

SdoBytes SdoAbort(std::uint16_t index, std::uint8_t sub, AbortCode code);

/// Expedited SDO server: performs the request on the dictionary; nothing to send after a client's
/// abort.
std::optional<SdoBytes> ServeSdo(ObjectDictionary& dictionary, const SdoRequest& request);

}  // namespace sim
