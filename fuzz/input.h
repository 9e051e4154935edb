// What every target shares: how the bytes of the fuzzer become values, and how a wrong result ends
// the run.
#pragma once

#include <driver_can.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace fuzz {

// The end of a sequence of frames, see FarEnd::Flush(): no input contains it.
constexpr std::uint32_t kFlush = 0x9FFFFFFF;

// Takes values from the front, little endian; an input at its end gives zeros.
class Input {
 public:
  Input(const std::uint8_t* bytes, std::size_t size) : bytes_(bytes), size_(size) {}

  std::uint32_t Number(std::size_t bytes) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes && size_ > 0; ++i, ++bytes_, --size_) {
      value |= static_cast<std::uint32_t>(*bytes_) << (8 * i);
    }
    return value;
  }
  std::uint8_t Byte() { return static_cast<std::uint8_t>(Number(1)); }

  // 13 bytes: identifier word, length, data. As from the kernel, a length is at most 8 and bytes
  // beyond it are zero.
  CanFrame Frame() {
    CanFrame frame = {};
    frame.can_id = Number(4);
    if (frame.can_id == kFlush) {
      --frame.can_id;
    }
    frame.len = static_cast<std::uint8_t>(Number(1) % (sizeof(frame.data) + 1));
    std::uint8_t data[sizeof(frame.data)];
    for (std::uint8_t& byte : data) {
      byte = Byte();
    }
    std::copy_n(data, frame.len, frame.data);
    return frame;
  }

  // All that is left.
  std::vector<CanFrame> Frames() {
    constexpr std::size_t kMost = 64;
    std::vector<CanFrame> frames;
    while (size_ > 0 && frames.size() < kMost) {
      frames.push_back(Frame());
    }
    return frames;
  }

 private:
  const std::uint8_t* bytes_;
  std::size_t size_;
};

// A finding: the fuzzer stores the input that led here.
inline void Require(bool holds, const char* what) {
  if (!holds) {
    std::fprintf(stderr, "wrong result: %s\n", what);
    std::abort();
  }
}

inline std::uint32_t Load(const std::uint8_t* bytes, int count) {
  std::uint32_t value = 0;
  while (count-- > 0) {
    value = value << 8 | bytes[count];
  }
  return value;
}

// The log is formatted as always, and goes nowhere.
inline void SilenceLog() {
  ::setenv("SPDLOG_STDOUT", "false", 1);
  ::setenv("SPDLOG_SYSTEMD", "false", 1);
  ::setenv("SPDLOG_LEVEL", "debug", 1);
}

}  // namespace fuzz
