#pragma once

#include "sim/make.h"

namespace sim {

/// One motor per node, velocities in 1875/512 counts per minute. Has an emergency-stop input.
const Make& KincoDrive();

}  // namespace sim
