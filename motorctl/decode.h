// CAN frames and candump logs in words.
#pragma once

#include <cstddef>
#include <functional>
#include <istream>
#include <nlohmann/json.hpp>
#include <string>

#include "candump.h"
#include "words.h"

namespace motorctl {

// One reading of a frame or of a number. Field names are those of the output of --json, which the
// manual page lists; they stay.
struct Meaning {
  std::string kind;  // "sdo_request", "error_code"
  std::string text;
  nlohmann::ordered_json fields = nlohmann::ordered_json::object();
};

// What a frame means on a bus of drives of this make; without a make, PDOs are not taken apart.
Meaning DecodeFrame(const LoggedFrame& frame, const Make* make);

// Payloads of 8 bytes, wherever they come from.
Meaning DecodeSdo(const std::uint8_t* data, bool response, const Make* make);
Meaning DecodeEmergency(const std::uint8_t* data);

// Little-endian.
std::uint32_t LittleEndian(const std::uint8_t* data, unsigned bytes);

// "37 02 00 00".
std::string BytesText(const std::uint8_t* data, unsigned bytes);

struct DecodeOptions {
  const Make* make = nullptr;
  bool json = false;
};

// Reads a log to its end and hands out one line for each of its lines as soon as it was read: the
// line itself and what it means, or one JSON object. Returns the number of lines that hold no
// frame.
std::size_t DecodeLog(std::istream& log, const DecodeOptions& options,
                      const std::function<void(const std::string&)>& write_line);

}  // namespace motorctl
