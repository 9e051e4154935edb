#include "log_time.h"

#include <time.h>

#include <cstddef>
#include <cstdio>

#include "candump/log_words.h"

namespace motorctl {
namespace {

using candump::ParseNumber;

constexpr std::int64_t kSecond = 1'000'000'000;
// Before that, seconds are not those of a calendar.
constexpr std::int64_t kFirstDate = 100'000'000 * kSecond;
constexpr std::uint64_t kLastSecond = kLatestLogTime / kSecond - 1;

}  // namespace

bool ParseLogTime(std::string_view text, std::int64_t& nanoseconds, LogClock& clock) {
  const std::size_t point = text.find('.');
  if (point == std::string_view::npos) return false;
  const std::string_view fraction = text.substr(point + 1);
  std::uint64_t part = 0;
  if (fraction.size() > 9 || !ParseNumber(fraction, 10, part)) return false;
  for (std::size_t digits = fraction.size(); digits < 9; ++digits) part *= 10;
  std::uint64_t seconds = 0;
  const std::string_view whole = text.substr(0, point);
  if (whole.size() == 19) {
    // "2026-11-22 01:45:08"
    tm date = {};
    unsigned numbers[6] = {};
    constexpr std::size_t kAt[] = {0, 5, 8, 11, 14, 17};
    for (std::size_t i = 0; i < 6; ++i) {
      if (!ParseNumber(whole.substr(kAt[i], i == 0 ? 4 : 2), 10, numbers[i])) return false;
    }
    if (numbers[0] < 1970 || numbers[0] > 2200) return false;
    date.tm_year = static_cast<int>(numbers[0]) - 1900;
    date.tm_mon = static_cast<int>(numbers[1]) - 1;
    date.tm_mday = static_cast<int>(numbers[2]);
    date.tm_hour = static_cast<int>(numbers[3]);
    date.tm_min = static_cast<int>(numbers[4]);
    date.tm_sec = static_cast<int>(numbers[5]);
    seconds = static_cast<std::uint64_t>(::timegm(&date));
    clock = LogClock::kLocal;
  } else {
    if (whole.size() > 10 || !ParseNumber(whole, 10, seconds)) return false;
    clock = LogClock::kRelative;
  }
  if (seconds > kLastSecond) return false;
  nanoseconds = static_cast<std::int64_t>(seconds) * kSecond + static_cast<std::int64_t>(part);
  if (clock == LogClock::kRelative && nanoseconds >= kFirstDate) {
    clock = LogClock::kUtc;
  }
  return true;
}

std::string SecondsText(std::int64_t nanoseconds, bool sign) {
  constexpr std::int64_t kShown = kSecond / 1000;
  const std::int64_t half = nanoseconds < 0 ? -kShown / 2 : kShown / 2;
  const std::int64_t rounded = (nanoseconds + half) / kShown;  // to milliseconds
  char text[32];
  std::snprintf(text, sizeof(text), sign ? "%+.3f" : "%.3f", static_cast<double>(rounded) / 1000.0);
  return text;
}

std::string DateText(std::int64_t nanoseconds) {
  const time_t second = nanoseconds / kSecond;
  tm date = {};
  ::gmtime_r(&second, &date);
  char day[40];
  strftime(day, sizeof(day), "%Y-%m-%d %H:%M:%S", &date);
  char text[64];
  std::snprintf(text, sizeof(text), "%s.%03d", day,
                static_cast<int>(nanoseconds % kSecond / (kSecond / 1000)));
  return text;
}

}  // namespace motorctl
