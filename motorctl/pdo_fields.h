// Values of the motors of a node in its PDOs, where the table of makes says.
#pragma once

#include <cstdint>

#include "decode.h"
#include "wheels/makes.h"

namespace motorctl {

// `take(motor, value)` for each motor, from 0, whose value is in the frame; `base`: the identifier
// without the node-ID.
template <typename Take>
void ForEachMotor(const motor_driver::Make& make, const motor_driver::Field& field,
                  std::uint32_t base, const std::uint8_t* data, unsigned length, Take take) {
  if (field.bits == 0 || field.base_id != base) return;
  const unsigned bytes = field.bits / 8;
  for (unsigned motor = 0; motor < make.motors; ++motor) {
    const unsigned offset = field.offset + motor * bytes;
    if (offset + bytes > length) return;
    take(static_cast<int>(motor), LittleEndian(data + offset, bytes));
  }
}

}  // namespace motorctl
