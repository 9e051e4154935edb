#pragma once

#include <cstdint>
#include <vector>

#include "sim/axis.h"
#include "sim/object_dictionary.h"

namespace sim {

/// The CiA 402 objects that a node has once, whatever the number of its motors: modes of operation
/// (0x6060, 0x6061, 0x6502) and what stops the motors (0x605A, 0x6007).
void AddModeObjects(ObjectDictionary& dictionary, const std::vector<Axis*>& axes,
                    const std::vector<std::int8_t>& modes);
void AddStopObjects(ObjectDictionary& dictionary, const std::vector<Axis*>& axes);

/// Target position and speed of a positioning of one motor, in sub-index `sub`.
void AddPositioningObjects(ObjectDictionary& dictionary, std::uint8_t sub, Axis& axis);

}  // namespace sim
