// What became of SDO transfers, in words.
#pragma once

#include <cstdint>
#include <string>

#include "sdo_client.h"
#include "wheels/set_up_failure.h"

namespace motorctl {

// Why there is no value; empty when there is one.
std::string Explanation(const SdoAnswer& answer);
// The same of a write. Whether it was carried out is told where it is known.
std::string WriteExplanation(const SdoAnswer& answer);

// "node 1: failed: 0x6040 sub 0 (Controlword): no answer"
std::string Describe(const motor_driver::SetUpFailure& failed);
// "0x6040 sub 0 (Controlword): no answer"
std::string Reason(const motor_driver::SetUpFailure& failed);

// "0x60FF sub 1 (Target velocity)"
std::string NameObject(std::uint16_t index, std::uint8_t sub_index);

}  // namespace motorctl
