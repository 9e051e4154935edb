// From encoder positions to speeds.
#pragma once

#include <cstdint>

namespace motion {

// Speed in rpm of an encoder that went from `previous` to `current` within `period_ms`. Positions
// are 32-bit counters that wrap around, so the distance is the signed reading of their difference.
// A period of 0 gives infinity (or not-a-number when nothing moved).
inline double Rpm(std::uint32_t current, std::uint32_t previous, double counts_per_revolution,
                  std::uint16_t period_ms) {
  const auto delta = static_cast<std::int32_t>(current - previous);
  return delta / counts_per_revolution / period_ms * 60.0 * 1000.0;
}

}  // namespace motion
