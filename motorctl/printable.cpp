#include "printable.h"

#include <algorithm>

#include "words.h"

namespace motorctl {

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

}  // namespace motorctl
