// Names of files that tell a time.
#pragma once

#include <cstdint>
#include <string>

namespace motorctl {

// "20261122T014500.123Z".
std::string TimeName(std::int64_t nanoseconds);

// Whether a name is `before`, a time and `after`: names of interfaces may end alike.
bool IsTimeNamed(const std::string& name, const std::string& before, const std::string& after);

}  // namespace motorctl
