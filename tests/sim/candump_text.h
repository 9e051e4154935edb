#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/frame.h"

/// "601#2B4060000F000000", as candump and cansend write a frame.
inline std::string ToText(const sim::Frame& frame) {
  char text[8];
  std::snprintf(text, sizeof text, "%03X#", frame.id);
  std::string result = text;
  for (std::size_t i = 0; i < frame.length; ++i) {
    std::snprintf(text, sizeof text, "%02X", unsigned{frame.data[i]});
    result += text;
  }
  return result;
}

inline sim::Frame FromText(const std::string& text) {
  sim::Frame frame;
  frame.id = static_cast<std::uint32_t>(std::strtoul(text.substr(0, 3).c_str(), nullptr, 16));
  for (std::size_t at = 4; at + 1 < text.size(); at += 2) {
    frame.data[frame.length++] =
        static_cast<std::uint8_t>(std::strtoul(text.substr(at, 2).c_str(), nullptr, 16));
  }
  return frame;
}
