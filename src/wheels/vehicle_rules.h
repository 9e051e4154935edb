// What a vehicle must be like, for those who read one and those who drive one.
#pragma once

#include <vehicle.h>

#include <optional>
#include <string>

namespace motor_driver {

struct VehicleProblem {
  std::string key;   // as in the file: "max_rpm", "wheels[1].node"
  std::string text;  // what is wrong, what is allowed
};

std::optional<VehicleProblem> FindProblem(const Vehicle& vehicle);

// The vehicle, or a VehicleError.
const Vehicle& Checked(const Vehicle& vehicle);

// In quotes and fit for one line, whatever it holds: "can0".
std::string Quoted(const std::string& text);

}  // namespace motor_driver
