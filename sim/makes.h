#pragma once

#include <string_view>
#include <vector>

#include "sim/make.h"

namespace sim {

const std::vector<const Make*>& AllMakes();

/// Throws std::invalid_argument, naming the makes there are, on an unknown one.
const Make& FindMake(std::string_view name);

}  // namespace sim
