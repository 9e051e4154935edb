#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>

namespace sim {

/// Simulated time since the drive was plugged in. It never jumps, whatever the scheduler does.
using Time = std::chrono::microseconds;

/// The drive's world advances in steps of this length; every timer expires on a step.
inline constexpr Time kStep{500};

/// A data frame with an 11-bit identifier.
struct Frame {
  std::uint32_t id = 0;
  std::uint8_t length = 0;
  std::array<std::uint8_t, 8> data{};
};

using FrameSink = std::function<void(const Frame&)>;

/// The lowest `size` bytes of value, least significant first, written from `first` on.
template <typename Iterator>
void PutLittleEndian(Iterator first, unsigned size, std::uint32_t value) {
  for (unsigned i = 0; i < size; ++i) {
    *first++ = static_cast<std::uint8_t>(value >> (8U * i));
  }
}

template <typename Iterator>
std::uint32_t GetLittleEndian(Iterator first, unsigned size) {
  std::uint32_t value = 0;
  for (unsigned i = 0; i < size; ++i) {
    value |= static_cast<std::uint32_t>(*first++) << (8U * i);
  }
  return value;
}

}  // namespace sim
