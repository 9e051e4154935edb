#pragma once

#include "sim/make.h"

namespace sim {

/// Two motors in one node: sub-index 1 and 2 of the motion objects. Controlword and mode of
/// operation are one object for both; statusword and error code are one 32-bit object, motor 1 in
/// the low half.
const Make& ZlDrive();

}  // namespace sim
