#include "candump.h"

#include <linux/can.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <vector>

#include "words.h"

namespace motorctl {
namespace {

using Words = std::vector<std::string_view>;

Words SplitAtBlanks(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  Words words;
  for (;;) {
    const std::size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return words;
    line.remove_prefix(begin);
    const std::size_t end = std::min(line.find_first_of(kBlanks), line.size());
    words.push_back(line.substr(0, end));
    line.remove_prefix(end);
  }
}

// The whole text as a number; from_chars takes neither signs of unsigned numbers nor blanks.
template <typename Number>
bool ParseNumber(std::string_view text, int base, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  return error == std::errc() && stop == end;
}

// Three digits are an 11-bit identifier, eight a 29-bit one or an error frame.
bool ParseId(std::string_view text, LoggedFrame& frame) {
  if (!ParseNumber(text, 16, frame.id)) return false;
  if (text.size() == 3) return frame.id <= CAN_SFF_MASK;
  if (text.size() != 8) return false;
  if ((frame.id & CAN_ERR_FLAG) != 0) {
    frame.kind = LoggedFrame::Kind::kError;
    frame.id &= CAN_ERR_MASK;
    return true;
  }
  frame.extended = true;
  return frame.id <= CAN_EFF_MASK;
}

bool AddByte(std::string_view digits, LoggedFrame& frame) {
  const std::size_t limit = frame.kind == LoggedFrame::Kind::kFd ? CANFD_MAX_DLEN : CAN_MAX_DLEN;
  if (frame.length == limit || digits.size() != 2) return false;
  return ParseNumber(digits, 16, frame.data[frame.length++]);
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

// "ID [8] 2B 40 ...", "ID [0] remote request". What follows the data is candump's own (-a).
bool ParseSpacedFrame(const Words& words, std::size_t at, LoggedFrame& frame) {
  if (words.size() < at + 2 || !ParseId(words[at], frame)) return false;
  const std::string_view brackets = words[at + 1];
  unsigned length = 0;
  if (brackets.size() < 3 || brackets.front() != '[' || brackets.back() != ']' ||
      !ParseNumber(brackets.substr(1, brackets.size() - 2), 10, length)) {
    return false;
  }
  if (words.size() > at + 2 && words[at + 2] == "remote") {
    frame.kind = LoggedFrame::Kind::kRemote;
    return length <= CAN_MAX_DLEN;
  }
  // Two digits in the brackets are how candump marks CAN FD.
  if (brackets.size() == 4) frame.kind = LoggedFrame::Kind::kFd;
  if (words.size() - at - 2 < length) return false;
  for (unsigned i = 0; i < length; ++i) {
    if (!AddByte(words[at + 2 + i], frame)) return false;
  }
  return true;
}

bool IsDirection(std::string_view word) {
  return word == "RX" || word == "TX" || word == "R" || word == "T";
}

}  // namespace

std::optional<LoggedFrame> ParseLogLine(const std::string& line) {
  LoggedFrame frame;
  const Words words = SplitAtBlanks(line);
  std::size_t at = 0;
  if (at < words.size() && words[at].front() == '(') {
    // A date (-t A) is a word of its own.
    while (at < words.size() && words[at].back() != ')') ++at;
    if (at == words.size()) return std::nullopt;
    for (std::size_t i = 0; i <= at; ++i) frame.time += (i == 0 ? "" : " ") + std::string(words[i]);
    frame.time = frame.time.substr(1, frame.time.size() - 2);
    ++at;
  }
  if (at == words.size()) return std::nullopt;
  if (words[at].find('#') == std::string_view::npos) frame.interface = words[at++];
  if (at == words.size()) return std::nullopt;
  if (words[at].find('#') != std::string_view::npos) {
    // "R" or "T" may follow (-x).
    const std::size_t rest = words.size() - at - 1;
    if (rest > 1 || (rest == 1 && !IsDirection(words.back()))) return std::nullopt;
    return ParseCompactFrame(words[at], frame) ? std::optional(frame) : std::nullopt;
  }
  // "RX - -" (-x).
  if (IsDirection(words[at])) at += 3;
  return ParseSpacedFrame(words, at, frame) ? std::optional(frame) : std::nullopt;
}

std::string FrameText(const LoggedFrame& frame) {
  char part[16];
  const bool error = frame.kind == LoggedFrame::Kind::kError;
  std::snprintf(part, sizeof part, frame.extended || error ? "%08X#" : "%03X#",
                error ? frame.id | CAN_ERR_FLAG : frame.id);
  std::string text = part;
  if (frame.kind == LoggedFrame::Kind::kRemote) return text + "R";
  if (frame.kind == LoggedFrame::Kind::kFd) text += "#" + Hex(frame.fd_flags, 1).substr(2);
  for (unsigned i = 0; i < frame.length; ++i) {
    std::snprintf(part, sizeof part, "%02X", unsigned{frame.data[i]});
    text += part;
  }
  return text;
}

}  // namespace motorctl
