#pragma once

#include "sim/make.h"

namespace sim {

/// One motor per node, velocities in rpm. Can be left inactive at power-on, until a frame of its
/// own wakes it.
const Make& TtDrive();

}  // namespace sim
