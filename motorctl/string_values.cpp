#include "string_values.h"

#include <algorithm>
#include <optional>

#include "words.h"

namespace motorctl {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// `mark` and that many hexadecimal digits behind a backslash at the front of the text.
std::optional<unsigned> Escaped(std::string_view text, char mark, std::size_t digits) {
  if (text.size() < 2 + digits || text[0] != '\\' || text[1] != mark) return std::nullopt;
  unsigned unit = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    const int digit = HexDigit(text[2 + i]);
    if (digit < 0) return std::nullopt;
    unit = unit << 4 | static_cast<unsigned>(digit);
  }
  return unit;
}

}  // namespace

Bytes ParseText(std::string_view text, const Units& units) {
  Bytes bytes;
  while (!text.empty()) {
    unsigned unit = static_cast<unsigned char>(text[0]);
    std::size_t taken = 1;
    if (const auto escaped = Escaped(text, units.mark, 2 * units.bytes)) {
      unit = *escaped;
      taken = 2 + 2 * units.bytes;
    } else if (unit < 0x20 || unit > 0x7E) {
      throw ValueError("a character that is not printable ASCII; write it as \\" +
                       std::string(1, units.mark) + std::string(2 * units.bytes, 'N'));
    }
    for (std::size_t i = 0; i < units.bytes; ++i) {
      bytes.push_back(static_cast<std::uint8_t>(unit >> (8 * i)));
    }
    text.remove_prefix(taken);
  }
  return bytes;
}

std::string ShowText(const Bytes& bytes, const Units& units) {
  std::string text;
  for (std::size_t at = 0; at + units.bytes <= bytes.size(); at += units.bytes) {
    const unsigned unit = units.bytes == 1 ? bytes[at] : bytes[at] | unsigned{bytes[at + 1]} << 8;
    // Files lose blanks at the ends.
    const bool at_end = at == 0 || at + 2 * units.bytes > bytes.size();
    const bool is_mark = !text.empty() && text.back() == '\\' && unit == unsigned(units.mark);
    if (is_mark) {
      text.pop_back();
      text.append("\\")
          .append(1, units.mark)
          .append(Hex('\\', static_cast<int>(2 * units.bytes)), 2);
    }
    if (unit < 0x20 || unit > 0x7E || (unit == ' ' && at_end)) {
      text.append("\\")
          .append(1, units.mark)
          .append(Hex(unit, static_cast<int>(2 * units.bytes)), 2);
    } else {
      text += static_cast<char>(unit);
    }
  }
  return text;
}

Bytes ParseOctets(std::string_view text) {
  if (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X") text.remove_prefix(2);
  std::string digits(text);
  digits.erase(std::remove(digits.begin(), digits.end(), ' '), digits.end());
  const bool all_hex =
      std::all_of(digits.begin(), digits.end(), [](char c) { return HexDigit(c) >= 0; });
  if (!all_hex || digits.size() % 2 != 0) {
    throw ValueError('"' + std::string(text) + "\" is not a row of hexadecimal bytes");
  }
  Bytes bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(static_cast<unsigned>(HexDigit(digits[i])) << 4U |
                                              static_cast<unsigned>(HexDigit(digits[i + 1]))));
  }
  return bytes;
}

std::string ShowOctets(const Bytes& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes)
    text.append(text.empty() ? "" : " ").append(Hex(byte, 2), 2);
  return text;
}

}  // namespace motorctl
