// The values of data_types.h that have no number: rows of characters and of bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "data_types.h"

namespace motorctl {

// A string of bytes is written with \xNN, one of 16-bit units with \uNNNN.
struct Units {
  char mark;
  std::size_t bytes;
};
constexpr Units kByteUnits = {'x', 1};
constexpr Units kUnicodeUnits = {'u', 2};

// ASCII and such escapes; throws ValueError.
Bytes ParseText(std::string_view text, const Units& units);
std::string ShowText(const Bytes& bytes, const Units& units);

// "01 02 AB"; read with or without blanks and "0x". Throws ValueError.
Bytes ParseOctets(std::string_view text);
std::string ShowOctets(const Bytes& bytes);

}  // namespace motorctl
