#pragma once

#include "sim/make.h"

namespace sim {

/// One motor per node, velocities in tenths of rpm. Parameters of every axis can be reached through
/// SDO channel 0; an error is cleared by an object of its own, not by the controlword.
const Make& HlsDrive();

}  // namespace sim
