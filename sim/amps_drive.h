#pragma once

#include "sim/make.h"

namespace sim {

/// One motor per node, velocities in rpm, commanded by SDO. TPDO1 has a layout of its own from
/// power-on and is sent once per inhibit time, in milliseconds.
const Make& AmpsDrive();

}  // namespace sim
