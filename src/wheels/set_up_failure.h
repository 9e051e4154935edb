// Which writes of a bring-up were not taken, for programs that show them one by one.
#pragma once

#include <vehicle.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace motor_driver {

class Wheels;

struct SetUpFailure {
  int node = 0;
  std::uint16_t index = 0;
  std::uint8_t sub_index = 0;
  std::uint32_t value = 0;
  std::optional<std::uint32_t> abort_code;  // nothing: no answer
};

// Of the last attempt of the last BringUp() or Clear(); empty after a good one.
MOTOR_DRIVER_WHEELS_EXPORT std::vector<SetUpFailure> SetUpFailures(const Wheels& wheels);

}  // namespace motor_driver
