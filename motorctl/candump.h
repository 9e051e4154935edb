// Lines of text that hold CAN frames, as candump and cansend write and read them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace motorctl {

struct LoggedFrame {
  enum class Kind { kData, kRemote, kFd, kError };

  std::string time;       // as in the line, without parentheses; empty when it has none
  std::string interface;  // empty when the line has none
  Kind kind = Kind::kData;
  bool extended = false;  // 29-bit identifier
  std::uint32_t id = 0;   // of an error frame: the classes of the error
  unsigned fd_flags = 0;
  unsigned length = 0;  // of `data`; at most 8 unless kFd
  std::array<std::uint8_t, 64> data{};
};

// A line of `candump -L` ("(1690000000.123456) can0 601#2B4060000F000000"), of candump without -L
// ("can0  601   [8]  2B 40 60 00 0F 00 00 00", with any -t) or a frame alone
// ("601#2B4060000F000000"). Empty when it is none of them.
std::optional<LoggedFrame> ParseLogLine(const std::string& line);

// "601#2B4060000F000000".
std::string FrameText(const LoggedFrame& frame);

}  // namespace motorctl
