#include "time_name.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <ctime>

namespace motorctl {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

}  // namespace

std::string TimeName(std::int64_t nanoseconds) {
  const time_t second = nanoseconds / kNanosecondsPerSecond;
  tm utc = {};
  ::gmtime_r(&second, &utc);
  char day[40];
  std::strftime(day, sizeof(day), "%Y%m%dT%H%M%S", &utc);
  char name[64];
  std::snprintf(name, sizeof(name), "%s.%03dZ", day,
                static_cast<int>(nanoseconds % kNanosecondsPerSecond / 1'000'000));
  return name;
}

bool IsTimeNamed(const std::string& name, const std::string& before, const std::string& after) {
  const std::string form = TimeName(0);
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  return name.size() == before.size() + form.size() + after.size() &&
         name.compare(0, before.size(), before) == 0 &&
         name.compare(name.size() - after.size(), after.size(), after) == 0 &&
         std::equal(
             form.begin(), form.end(), name.begin() + static_cast<std::ptrdiff_t>(before.size()),
             [&](char wanted, char c) { return is_digit(wanted) ? is_digit(c) : c == wanted; });
}

}  // namespace motorctl
