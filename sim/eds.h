#pragma once

#include <string>

#include "sim/make.h"

namespace sim {

/// The electronic data sheet of a make (CiA 306), from the dictionary of a node as it is after
/// power-on. Throws std::logic_error when an object has no name, or a type of another size.
std::string DataSheet(const Make& make);

}  // namespace sim
