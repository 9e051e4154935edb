#include "candump/asc.h"

#include <linux/can.h>

#include <algorithm>
#include <cstdint>

#include "candump/log_words.h"

namespace candump {
namespace {

// Bits of the last number but some of a CAN FD line.
constexpr std::uint32_t kRemoteFlag = 0x10;
constexpr std::uint32_t kFdFlag = 0x1000;

bool IsDigits(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// False when the word is none.
bool ParseDirection(std::string_view word, LoggedFrame& frame) {
  using Direction = LoggedFrame::Direction;
  if (word == "Rx") frame.direction = Direction::kReceived;
  if (word == "Tx") frame.direction = Direction::kSent;
  return frame.direction != Direction::kUnknown;
}

// "x" marks a 29-bit identifier.
bool ParseId(std::string_view text, int base, LoggedFrame& frame) {
  frame.extended = !text.empty() && text.back() == 'x';
  if (frame.extended) text.remove_suffix(1);
  return ParseNumber(text, base, frame.id) &&
         frame.id <= (frame.extended ? CAN_EFF_MASK : CAN_SFF_MASK);
}

bool AddBytes(LogWords& words, unsigned length, int base, LoggedFrame& frame) {
  if (length > frame.data.size()) return false;
  for (; frame.length < length; ++frame.length) {
    if (!ParseNumber(words.Next(), base, frame.data[frame.length])) return false;
  }
  return true;
}

// "601 Rx d 8 2B 40 ...", "705 Rx r", "ErrorFrame". What follows the data are times and lengths.
bool ParseClassicFrame(LogWords& words, int base, LoggedFrame& frame) {
  const std::string_view id = words.Next();
  if (id == "ErrorFrame") {
    frame.kind = LoggedFrame::Kind::kError;
    return true;
  }
  if (!ParseId(id, base, frame) || !ParseDirection(words.Next(), frame)) return false;
  const std::string_view kind = words.Next();
  if (kind == "r") {
    frame.kind = LoggedFrame::Kind::kRemote;
    return true;
  }
  unsigned code = 0;
  return kind == "d" && ParseNumber(words.Next(), 16, code) && code <= 0xF &&
         AddBytes(words, std::min(code, unsigned{CAN_MAX_DLEN}), base, frame);
}

// "Rx 123 [name] BRS ESI length-code length bytes... duration bits flags ...".
bool ParseFdFrame(LogWords& words, int base, LoggedFrame& frame) {
  if (!ParseDirection(words.Next(), frame) || !ParseId(words.Next(), base, frame)) return false;
  std::string_view word = words.Next();
  if (word != "0" && word != "1") word = words.Next();
  unsigned bit_rate_switch = 0;
  unsigned error_state = 0;
  unsigned length = 0;
  if (!ParseNumber(word, 10, bit_rate_switch) || !ParseNumber(words.Next(), 10, error_state) ||
      bit_rate_switch > 1 || error_state > 1) {
    return false;
  }
  words.Next();
  if (!ParseNumber(words.Next(), 10, length) || !AddBytes(words, length, base, frame)) return false;
  frame.kind = LoggedFrame::Kind::kFd;
  frame.fd_flags = bit_rate_switch * CANFD_BRS | error_state * CANFD_ESI;
  words.Next();
  words.Next();
  std::uint32_t flags = 0;
  // Classic frames are told in this form, too.
  if (!ParseNumber(words.Next(), 16, flags) || (flags & kFdFlag) != 0) return true;
  frame.kind = (flags & kRemoteFlag) != 0 ? LoggedFrame::Kind::kRemote : LoggedFrame::Kind::kData;
  return frame.length <= CAN_MAX_DLEN;
}

}  // namespace

bool IsAscTime(std::string_view word) {
  const std::size_t point = word.find('.');
  return point != std::string_view::npos && IsDigits(word.substr(0, point)) &&
         IsDigits(word.substr(point + 1));
}

std::optional<LoggedFrame> ParseAscLine(std::string_view line, int base) {
  LogWords words(line);
  std::optional<LoggedFrame> frame(std::in_place);
  frame->time = words.Next();
  if (!IsAscTime(frame->time)) return std::nullopt;
  frame->interface = words.Next();
  const bool fd = frame->interface == "CANFD";
  if (fd) frame->interface = words.Next();
  if (!IsDigits(frame->interface)) return std::nullopt;
  const bool valid =
      fd ? ParseFdFrame(words, base, *frame) : ParseClassicFrame(words, base, *frame);
  if (!valid) frame.reset();
  return frame;
}

}  // namespace candump
