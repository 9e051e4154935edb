#pragma once

#include <cstdint>
#include <vector>

#include "sim/axis.h"
#include "sim/object_dictionary.h"

namespace sim {

/// The CiA 402 objects of a node with one motor, all in sub-index 0, with statusword and error code
/// of 16 bits. `modes` are the modes of operation that can be set.
void AddSingleAxisObjects(ObjectDictionary& dictionary, Axis& axis,
                          const std::vector<std::int8_t>& modes);

}  // namespace sim
