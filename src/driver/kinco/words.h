// Controlwords and statuswords of the Kinco drive's own.
#pragma once

#include <cstdint>

namespace motor_driver::kinco {

constexpr std::uint16_t kFaultResetAndEnable = 0x0086;  // controlword

// Low byte of the statusword.
constexpr std::uint16_t kStatusReady = 0x37;
constexpr std::uint16_t kStatusEmergency = 0x50;

}  // namespace motor_driver::kinco
