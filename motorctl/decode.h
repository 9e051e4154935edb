// CAN frames and candump logs in words.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "candump/candump.h"
#include "fields.h"
#include "words.h"

namespace motorctl {

using candump::FrameText;
using candump::LoggedFrame;
using candump::ParseLogLine;

// One reading of a frame or of a number. Field names are those of the output of --json, which the
// manual page lists; they stay.
struct Meaning {
  std::string_view kind;  // "sdo_request", "error_code"; a literal
  std::string text;
  Fields fields = {};
};

// What a frame means on a bus of drives of this make; without a make, PDOs are taken apart as a data
// sheet maps them (data_sheet.h), if at all.
Meaning DecodeFrame(const LoggedFrame& frame, const Make* make);

// `base`: the identifier of the frame without the node-ID, from this one to 0x500.
constexpr std::uint32_t kFirstPdo = 0x180;
Meaning DecodePdo(const LoggedFrame& frame, std::uint32_t base, const Make* make);

// Payloads of 8 bytes, wherever they come from.
Meaning DecodeSdo(const std::uint8_t* data, bool response, const Make* make);
Meaning DecodeEmergency(const std::uint8_t* data);
Meaning DecodeLss(const std::uint8_t* data, bool response);

Meaning DecodeErrorFrame(const LoggedFrame& frame);
// Of the classes of an error frame: about the controller, not about one frame.
bool TellsControllerState(std::uint32_t classes);

// A line that tells about frames or about its log without holding a frame: details of an error
// frame, frames that candump lost, what stands around the frames of an .asc file. Its numbers are
// of `asc_base`, which a line of the file tells. Empty when it is not one of them.
std::optional<Meaning> ParseNote(std::string_view line, int& asc_base);

// The segments of SDO block transfers look like any other command: only what went before tells.
class BlockTransfers {
 public:
  // Empty when the frame is no such segment.
  std::optional<Meaning> Decode(const LoggedFrame& frame);

 private:
  struct Transfer {
    std::string interface;
    unsigned node = 0;
    bool upload = false;
    unsigned last = 0;  // number of the segment that was marked as the last one, or 0
  };
  void Start(const LoggedFrame& frame, bool upload);

  std::vector<Transfer> running_;
};

// "node 1".
std::string NodeText(unsigned node);

// Little-endian.
std::uint32_t LittleEndian(const std::uint8_t* data, unsigned bytes);

// "37 02 00 00".
std::string BytesText(const std::uint8_t* data, unsigned bytes);

struct DecodeOptions {
  const Make* make = nullptr;
  bool json = false;
};

// Reads a log to its end and hands out one line for each of its lines: the line itself and what it
// means, or one JSON object. Lines go out in blocks, but no later than when the log has nothing more
// to read for the moment. Returns the number of lines that make no sense. Throws std::system_error
// when the log cannot be read.
std::size_t DecodeLog(int log, const DecodeOptions& options,
                      const std::function<void(const std::string&)>& write);

}  // namespace motorctl
