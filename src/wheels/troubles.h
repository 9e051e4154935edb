// What bring-up and control both judge of a drive, and the sentences for it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "wheels/drives.h"

namespace motor_driver {

// CiA 402: operation enabled, without regard to bits of mode and manufacturer.
constexpr bool IsEnabled(std::uint16_t statusword) { return (statusword & 0x6F) == 0x27; }

Trouble DriveErrorTrouble(const Drives& drives, std::size_t node, std::uint16_t code);
Trouble NotEnabledTrouble(const Drives& drives, std::size_t node, std::uint16_t statusword);

// Whether the node is ready as far as the supervision loop of the make knows, or the make has none.
bool IsSupervisedReady(Drives& drives, std::size_t node);

// Why it is not. May write to the log.
Trouble SupervisionTrouble(Drives& drives, std::size_t node);

}  // namespace motor_driver
