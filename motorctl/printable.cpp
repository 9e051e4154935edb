#include "printable.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "words.h"

namespace motorctl {
namespace {

// Of the UTF-8 character of several bytes that the text begins with; 0 where it is none, or one
// that a terminal obeys (U+0080 to U+009F) or that changes the order of what is shown.
std::size_t VisibleBytes(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  const std::size_t bytes = first >= 0xF0 && first < 0xF5   ? 4
                            : first >= 0xE0 && first < 0xF0 ? 3
                            : first >= 0xC2 && first < 0xE0 ? 2
                                                            : 0;
  if (bytes == 0 || text.size() < bytes) return 0;
  std::uint32_t code = first & (0xFFU >> (bytes + 1));
  for (std::size_t i = 1; i < bytes; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) return 0;
    code = code << 6U | (byte(i) & 0x3FU);
  }
  constexpr std::uint32_t kLeast[] = {0, 0, 0xA0, 0x800, 0x10000};
  const auto within = [code](std::uint32_t low, std::uint32_t high) {
    return code >= low && code <= high;
  };
  const bool none = code < kLeast[bytes] || code > 0x10FFFF || within(0xD800, 0xDFFF);
  const bool orders = within(0x200E, 0x200F) || within(0x2028, 0x202E) || within(0x2066, 0x2069);
  return none || orders ? 0 : bytes;
}

}  // namespace

void AppendPrintable(std::string& out, std::string_view text) {
  const auto printable = [](char c) { return c == '\t' || (c >= 0x20 && c < 0x7F); };
  if (std::all_of(text.begin(), text.end(), printable)) {
    out += text;
    return;
  }
  for (const char c : text) {
    if (printable(c)) {
      out += c;
    } else {
      out.append("\\x").append(Hex(static_cast<unsigned char>(c), 2), 2);
    }
  }
}

std::string Printable(std::string_view text) {
  std::string result;
  AppendPrintable(result, text);
  return result;
}

std::string Visible(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const std::size_t bytes = VisibleBytes(text);
    if (bytes > 0) {
      result += text.substr(0, bytes);
    } else {
      AppendPrintable(result, text.substr(0, 1));
    }
    text.remove_prefix(std::max<std::size_t>(bytes, 1));
  }
  return result;
}

}  // namespace motorctl
