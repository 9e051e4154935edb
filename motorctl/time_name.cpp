#include "time_name.h"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <tuple>

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

std::vector<std::filesystem::path> OldestFirst(const std::filesystem::path& directory,
                                               const std::string& before, const std::string& after,
                                               const std::vector<std::filesystem::path>& written) {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  const std::string now =
      before + TimeName(std::chrono::duration_cast<std::chrono::nanoseconds>(since).count()) +
      after;
  struct Entry {
    std::ptrdiff_t place;  // in `written`; -1: not there
    bool is_past;
    std::filesystem::path path;
    bool operator<(const Entry& other) const {
      return std::tie(place, is_past, path) < std::tie(other.place, other.is_past, other.path);
    }
  };
  std::vector<Entry> entries;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(directory, ignored)) {
    const std::string name = entry.path().filename();
    if (entry.is_symlink(ignored) || !IsTimeNamed(name, before, after)) continue;
    const auto found = std::find(written.begin(), written.end(), entry.path());
    const bool known = found != written.end();
    entries.push_back({known ? found - written.begin() : -1, name <= now, entry.path()});
  }
  std::sort(entries.begin(), entries.end());
  std::vector<std::filesystem::path> paths;
  paths.reserve(entries.size());
  for (Entry& entry : entries) paths.push_back(std::move(entry.path));
  return paths;
}

}  // namespace motorctl
