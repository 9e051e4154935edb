// Objects that turn a wheel, or let it turn.
#pragma once

#include <cstdint>

namespace motorctl {

// Target velocities, torque and position, controlword and mode, of every axis and of every make.
bool Moves(std::uint16_t index);

// Objects of CiA 402 repeat for each axis; the one of the first axis, others as they are.
std::uint16_t OfFirstAxis(std::uint16_t index);

}  // namespace motorctl
