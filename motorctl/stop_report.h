// What became of a stop, in words.
#pragma once

#include <string>
#include <vector>

#include "wheels/stopper.h"

namespace motorctl {

// "node 1: zero confirmed, standing"
std::string Describe(const motor_driver::StoppedNode& node);

// Of those that do not stand, in capitals.
std::string NotConfirmed(const std::vector<motor_driver::StoppedNode>& nodes);

}  // namespace motorctl
