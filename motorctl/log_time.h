// Times of logs.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace motorctl {

enum class LogClock {
  kNone,      // lines without time: frames are in order, and that is all
  kRelative,  // to the beginning, or whatever the log means
  kUtc,
  kLocal,  // dates of the machine that wrote the log
};

// In the year 2096. Twice as much still is a number.
constexpr std::int64_t kLatestLogTime = 4'000'000'000'000'000'000;

// "1690000000.123456" or "2026-11-22 01:45:08.365098" in nanoseconds. False when it is neither.
bool ParseLogTime(std::string_view text, std::int64_t& nanoseconds, LogClock& clock);

// What is less than a microsecond is left out.
constexpr double WholeMicroseconds(std::int64_t nanoseconds) {
  const std::int64_t whole = nanoseconds / 1000;
  return static_cast<double>(whole);
}

// "0.012", "+0.012", "-3.000"; rounded.
std::string SecondsText(std::int64_t nanoseconds, bool sign = false);

// "2026-11-22 01:45:08.365", of a time since the epoch; not rounded.
std::string DateText(std::int64_t nanoseconds);

}  // namespace motorctl
