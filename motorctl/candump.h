// Lines of text that hold CAN frames, as candump and cansend write and read them, and the text files
// of Vector's tools (.asc).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace motorctl {

struct LoggedFrame {
  enum class Kind : std::uint8_t { kData, kRemote, kFd, kError };
  // Of the machine that wrote the log; kUnknown where the line does not tell.
  enum class Direction : std::uint8_t { kUnknown, kReceived, kSent };

  // Parts of the line that was parsed, as long as that exists.
  std::string_view time;       // without parentheses; empty when it has none
  std::string_view interface;  // or the channel of an .asc file; empty when the line has none

  Kind kind = Kind::kData;
  Direction direction = Direction::kUnknown;
  bool extended = false;  // 29-bit identifier
  std::uint32_t id = 0;   // of an error frame: the classes of the error
  unsigned fd_flags = 0;
  unsigned length = 0;  // of `data`; at most 8 unless kFd
  std::array<std::uint8_t, 64> data{};
};

// A line of `candump -L` ("(1690000000.123456) can0 601#2B4060000F000000"), of candump without -L
// ("can0  601   [8]  2B 40 60 00 0F 00 00 00", with any of its options but -c), of an .asc file
// ("0.029472 1  601  Rx   d 8 2B 40 60 00 0F 00 00 00", with numbers of that base) or a frame alone
// ("601#2B4060000F000000"). Empty when it is none of them.
std::optional<LoggedFrame> ParseLogLine(std::string_view line, int asc_base = 16);

// "601#2B4060000F000000".
std::string FrameText(const LoggedFrame& frame);

}  // namespace motorctl
