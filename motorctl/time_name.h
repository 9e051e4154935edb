// Names of files that tell a time.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace motorctl {

// "20261122T014500.123Z".
std::string TimeName(std::int64_t nanoseconds);
// Two times that are this far apart have two names.
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

// Whether a name is `before`, a time and `after`: names of interfaces may end alike.
bool IsTimeNamed(const std::string& name, const std::string& before, const std::string& after);

// Entries of a directory that are `before`, a time and `after`, in the order in which they may be
// removed. A clock that was set cannot make the latest the first: those of `written` are the last,
// in the order in which they stand there; those that by their names are still to come, from before
// the clock was set back, are the first; the rest by their names. Links are somebody else's.
std::vector<std::filesystem::path> OldestFirst(const std::filesystem::path& directory,
                                               const std::string& before, const std::string& after,
                                               const std::vector<std::filesystem::path>& written);

}  // namespace motorctl
