// The encoder resolution that is assumed, and the one that the drives have.
#pragma once

#include <string>

#include "context.h"

namespace motorctl {

// "node 1" or "nodes 1, 2"
std::string NodeNames(const Vehicle& vehicle);

// Compares the encoder resolution that is assumed with what the drives tell. Throws CommandFailed
// when they differ. Otherwise a sentence about what could not be checked, empty when all is well.
std::string CheckResolution(const Context& context, const Vehicle& vehicle);

}  // namespace motorctl
