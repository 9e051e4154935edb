#include "candump/candump.h"

#include <linux/can.h>

#include <algorithm>
#include <cstdint>

#include "candump/asc.h"
#include "candump/log_words.h"

namespace candump {
namespace {

// -1: none.
int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void AppendHex(std::uint32_t value, int digits, std::string& text) {
  while (--digits >= 0) text += "0123456789ABCDEF"[value >> (4 * digits) & 0xF];
}

// Three digits are an 11-bit identifier, eight a 29-bit one or an error frame.
bool ParseId(std::string_view text, LoggedFrame& frame) {
  if (text.size() != 3 && text.size() != 8) return false;
  for (const char c : text) {
    const int digit = HexDigit(c);
    if (digit < 0) return false;
    frame.id = frame.id << 4 | static_cast<unsigned>(digit);
  }
  if (text.size() == 3) return frame.id <= CAN_SFF_MASK;
  if ((frame.id & CAN_ERR_FLAG) != 0) {
    frame.kind = LoggedFrame::Kind::kError;
    frame.id &= CAN_ERR_MASK;
    return true;
  }
  frame.extended = true;
  return frame.id <= CAN_EFF_MASK;
}

// Two hexadecimal digits, or eight binary ones (-i).
bool AddByte(std::string_view digits, LoggedFrame& frame) {
  const std::size_t limit = frame.kind == LoggedFrame::Kind::kFd ? CANFD_MAX_DLEN : CAN_MAX_DLEN;
  if (frame.length == limit) return false;
  std::uint8_t& byte = frame.data[frame.length++];
  if (digits.size() == 8) return ParseNumber(digits, 2, byte);
  if (digits.size() != 2) return false;
  const int high = HexDigit(digits[0]);
  const int low = HexDigit(digits[1]);
  if (high < 0 || low < 0) return false;
  byte = static_cast<std::uint8_t>(high << 4 | low);
  return true;
}

// "ID#DATA", "ID#R", "ID#R8", "ID##FLAGS DATA" without blank. A raw length code ("_C" at the end)
// says nothing about the data and is dropped.
bool ParseCompactFrame(std::string_view text, LoggedFrame& frame) {
  const std::size_t hash = text.find('#');
  if (hash == std::string_view::npos || !ParseId(text.substr(0, hash), frame)) return false;
  text.remove_prefix(hash + 1);
  if (!text.empty() && text.front() == '#') {
    frame.kind = LoggedFrame::Kind::kFd;
    if (text.size() < 2 || !ParseNumber(text.substr(1, 1), 16, frame.fd_flags)) return false;
    text.remove_prefix(2);
  } else if (!text.empty() && text.front() == 'R') {
    frame.kind = LoggedFrame::Kind::kRemote;
    unsigned length = 0;
    return text.size() == 1 || (ParseNumber(text.substr(1), 10, length) && length <= CAN_MAX_DLEN);
  }
  if (text.size() > 2 && text[text.size() - 2] == '_') text.remove_suffix(2);
  for (; !text.empty(); text.remove_prefix(2)) {
    if (text.size() < 2 || !AddByte(text.substr(0, 2), frame)) return false;
  }
  return true;
}

// "[8]"; "{D}" is a raw length code (-8), which only frames of 8 bytes have.
bool ParseLength(std::string_view brackets, unsigned& length) {
  if (brackets.size() < 3) return false;
  const std::string_view digits = brackets.substr(1, brackets.size() - 2);
  if (brackets.front() == '{' && brackets.back() == '}') {
    const bool valid = ParseNumber(digits, 16, length) && length > CAN_MAX_DLEN && length <= 0xF;
    length = CAN_MAX_DLEN;
    return valid;
  }
  return brackets.front() == '[' && brackets.back() == ']' && ParseNumber(digits, 10, length);
}

// "00`0F`00`60`40`2B": the last byte first (-S).
bool AddSwappedBytes(std::string_view text, unsigned length, LoggedFrame& frame) {
  for (;;) {
    const std::size_t end = std::min(text.find('`'), text.size());
    if (!AddByte(text.substr(0, end), frame)) return false;
    if (end == text.size()) break;
    text.remove_prefix(end + 1);
  }
  std::reverse(frame.data.begin(), frame.data.begin() + frame.length);
  return frame.length == length;
}

// "ID [8] 2B 40 ...", "ID [0] remote request". What follows the data is candump's own (-a).
bool ParseSpacedFrame(std::string_view id, LogWords& words, LoggedFrame& frame) {
  unsigned length = 0;
  const std::string_view brackets = words.Next();
  if (!ParseId(id, frame) || !ParseLength(brackets, length)) return false;
  std::string_view word = words.Next();
  if (word == "remote") {
    frame.kind = LoggedFrame::Kind::kRemote;
    return length <= CAN_MAX_DLEN;
  }
  // Two digits in the brackets are how candump marks CAN FD.
  if (brackets.size() == 4) frame.kind = LoggedFrame::Kind::kFd;
  if (length > 0 && word.find('`') != std::string_view::npos) {
    return AddSwappedBytes(word, length, frame);
  }
  for (; frame.length < length; word = words.Next()) {
    if (!AddByte(word, frame)) return false;
  }
  return true;
}

// False when the word is none.
bool ParseDirection(std::string_view word, LoggedFrame& frame) {
  using Direction = LoggedFrame::Direction;
  if (word == "R" || word == "RX") frame.direction = Direction::kReceived;
  if (word == "T" || word == "TX") frame.direction = Direction::kSent;
  return frame.direction != Direction::kUnknown;
}

bool ParseCandumpLine(std::string_view line, LoggedFrame& frame) {
  LogWords words(line);
  std::string_view word = words.Next();
  if (!word.empty() && word.front() == '(') {
    const char* const begin = word.data() + 1;
    // A date (-t A) is a word of its own.
    while (!word.empty() && word.back() != ')') word = words.Next();
    if (word.empty()) return false;
    const char* const end = word.data() + word.size() - 1;
    frame.time = std::string_view(begin, static_cast<std::size_t>(end - begin));
    word = words.Next();
  }
  if (word.find('#') == std::string_view::npos) {
    frame.interface = word;
    word = words.Next();
  }
  if (word.find('#') != std::string_view::npos) {
    // "R" or "T" may follow (-x).
    const std::string_view direction = words.Next();
    if (!direction.empty() && (!ParseDirection(direction, frame) || !words.Next().empty())) {
      return false;
    }
    return ParseCompactFrame(word, frame);
  }
  // "RX - -" (-x).
  if (ParseDirection(word, frame)) {
    words.Next();
    words.Next();
    word = words.Next();
  }
  return ParseSpacedFrame(word, words, frame);
}

}  // namespace

std::optional<LoggedFrame> ParseLogLine(std::string_view line, int asc_base) {
  std::optional<LoggedFrame> frame(std::in_place);
  if (!ParseCandumpLine(line, *frame)) frame = ParseAscLine(line, asc_base);
  return frame;
}

void AppendFrame(const LoggedFrame& frame, std::string& text) {
  const bool error = frame.kind == LoggedFrame::Kind::kError;
  AppendHex(error ? frame.id | CAN_ERR_FLAG : frame.id, frame.extended || error ? 8 : 3, text);
  text += '#';
  if (frame.kind == LoggedFrame::Kind::kRemote) {
    text += 'R';
    return;
  }
  if (frame.kind == LoggedFrame::Kind::kFd) {
    text += '#';
    AppendHex(frame.fd_flags, 1, text);
  }
  for (unsigned i = 0; i < frame.length; ++i) AppendHex(frame.data[i], 2, text);
}

std::string FrameText(const LoggedFrame& frame) {
  std::string text;
  AppendFrame(frame, text);
  return text;
}

}  // namespace candump
