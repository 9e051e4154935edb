// A CAN frame of a log.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace candump {

struct LoggedFrame {
  enum class Kind : std::uint8_t { kData, kRemote, kFd, kError };
  // As the machine that wrote the log saw it; candump tells it with -x.
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

}  // namespace candump
