// Target velocities on their way to a drive: in the PDO of its make, or written by SDO.
#pragma once

#include <cstddef>
#include <cstdint>

#include "decode.h"
#include "identifiers.h"
#include "pdo_fields.h"
#include "wheels/makes.h"

namespace motorctl {

// Sign and bytes as the drive takes them.
inline double SignedValue(std::uint32_t value, unsigned bytes) {
  if (bytes < 4) {
    const std::uint32_t sign = 1U << (8 * bytes - 1);
    value &= (sign << 1) - 1;
    value = (value ^ sign) - sign;
  }
  return static_cast<double>(static_cast<std::int32_t>(value));
}

// `take(motor, units)` for each motor, from 0, whose target is in the frame, in the drive's unit;
// `base`: the identifier without the node-ID.
template <typename Take>
void ForEachTarget(const motor_driver::Make& make, std::uint32_t base, const std::uint8_t* data,
                   unsigned length, Take take) {
  constexpr unsigned kWrite = 1;
  if (base != kSdoRequest) {
    ForEachMotor(make, make.target, base, data, length, [&](int motor, std::uint32_t value) {
      take(motor, SignedValue(value, make.target.bits / 8));
    });
    return;
  }
  // Some makes take no others.
  if (length != 8 || data[0] >> 5U != kWrite || (data[0] & 2U) == 0) return;
  const bool size_given = (data[0] & 1U) != 0;
  const unsigned bytes = size_given ? 4 - (data[0] >> 2U & 3U) : 4;
  const std::uint32_t index = LittleEndian(data + 1, 2);
  for (std::size_t motor = 0; motor < make.targets.size(); ++motor) {
    const motor_driver::Object& target = make.targets[motor];
    if (index != target.index || data[3] != target.sub_index) continue;
    take(static_cast<int>(motor), SignedValue(LittleEndian(data + 4, 4), bytes));
  }
}

}  // namespace motorctl
