#include "wheels/vehicle_rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "wheels/makes.h"

namespace motor_driver {
namespace {

using Problem = std::optional<VehicleProblem>;

constexpr std::size_t kMostWheels = 8;
constexpr double kMostRpmPerSecond = 1e6;
constexpr double kMostGearRatio = 1e4;
constexpr unsigned long kFewestCounts = 4;  // below, a kinco drive's unit of velocity is nothing
constexpr unsigned long kMostCounts = 1UL << 24U;

constexpr std::size_t kLongestQuote = 60;

bool IsControl(unsigned char c) { return c < 0x20 || c == 0x7F; }

std::string Key(std::size_t wheel, const char* field) {
  return fmt::format("wheels[{}].{}", wheel, field);
}

Problem CheckRange(const std::string& key, long value, long low, long high) {
  if (value >= low && value <= high) {
    return std::nullopt;
  }
  return VehicleProblem{key, fmt::format("{} is not in {} to {}", value, low, high)};
}

Problem CheckPositive(const std::string& key, double value, double most) {
  if (value > 0 && value <= most) {  // not so for a NaN
    return std::nullopt;
  }
  return VehicleProblem{key, fmt::format("{} is not above 0 and at most {}", value, most)};
}

// What the make takes for a speed, in rpm of the motor: more would come out as another speed.
double HighestMotorRpm(const Vehicle& vehicle, const Make& make) {
  constexpr double kHighestUnits = 2147483647.0;
  if (!make.counts_are_configured) {
    return make.max_motor_rpm;
  }
  const double units_per_rpm =
      make.velocity_units_per_rpm * static_cast<double>(vehicle.counts_per_revolution);
  return std::floor(kHighestUnits / units_per_rpm);
}

Problem CheckTimes(const Vehicle& vehicle) {
  constexpr long kLongestTimeout = 60'000;
  const long period = vehicle.period.count();
  Problem problem = CheckRange("period_ms", period, 2, 255);
  if (!problem) {
    problem = CheckRange("command_timeout_ms", vehicle.command_timeout.count(), 2 * period,
                         kLongestTimeout);
  }
  if (!problem) {
    problem = CheckRange("feedback_timeout_ms", vehicle.feedback_timeout.count(), 2 * period,
                         kLongestTimeout);
  }
  if (!problem) {
    problem = CheckRange("heartbeat_timeout_ms", vehicle.heartbeat_timeout.count(), 300, 30'000);
  }
  if (!problem && vehicle.drive_watchdog.count() != 0) {
    problem = CheckRange("drive_watchdog_ms", vehicle.drive_watchdog.count(), 10 * period, 65'535);
    if (problem) {
      problem->text += ", and is not 0, which is none";
    }
  }
  return problem;
}

Problem CheckMotion(const Vehicle& vehicle, const Make& make) {
  Problem problem =
      CheckPositive("fault_deceleration", vehicle.fault_deceleration, kMostRpmPerSecond);
  if (!problem) {
    problem = CheckPositive("max_acceleration", vehicle.max_acceleration, kMostRpmPerSecond);
  }
  if (!problem) {
    problem = CheckPositive("max_deceleration", vehicle.max_deceleration, kMostRpmPerSecond);
  }
  if (!problem) {
    problem = CheckPositive("max_rpm", vehicle.max_rpm, make.max_motor_rpm);
  }
  if (!problem && make.counts_are_configured) {
    const unsigned long counts = vehicle.counts_per_revolution;
    if (counts < kFewestCounts || counts > kMostCounts) {
      problem = VehicleProblem{"counts_per_revolution", fmt::format("{} is not in {} to {}", counts,
                                                                    kFewestCounts, kMostCounts)};
    }
  }
  return problem ? problem : CheckRange("realtime_priority", vehicle.realtime_priority, 0, 99);
}

Problem CheckWheel(const Vehicle& vehicle, const Make& make, std::size_t number) {
  const Wheel& wheel = vehicle.wheels[number];
  if (wheel.name.empty()) {
    return VehicleProblem{Key(number, "name"), "is empty, every wheel has a name of its own"};
  }
  if (std::any_of(wheel.name.begin(), wheel.name.end(), IsControl)) {
    return VehicleProblem{Key(number, "name"),
                          Quoted(wheel.name) + " has a character that cannot be printed"};
  }
  Problem problem = CheckRange(Key(number, "node"), wheel.node, 1, 127);
  if (!problem) {
    problem = CheckRange(Key(number, "motor"), wheel.motor, 1, static_cast<long>(make.motors));
  }
  if (!problem) {
    problem = CheckPositive(Key(number, "gear_ratio"), wheel.gear_ratio, kMostGearRatio);
  }
  if (problem) {
    return problem;
  }
  const double fastest = vehicle.max_rpm * wheel.gear_ratio;
  const double highest = HighestMotorRpm(vehicle, make);
  if (fastest > highest) {
    return VehicleProblem{
        "max_rpm", fmt::format("{} x gear_ratio {} of wheel {} is {} rpm of the motor, a {} "
                               "takes at most {}",
                               vehicle.max_rpm, wheel.gear_ratio, Quoted(wheel.name), fastest,
                               make.name, highest)};
  }
  for (std::size_t other = 0; other < number; ++other) {
    if (vehicle.wheels[other].name == wheel.name) {
      return VehicleProblem{Key(number, "name"), Quoted(wheel.name) + " names another wheel, too"};
    }
    if (vehicle.wheels[other].node == wheel.node && vehicle.wheels[other].motor == wheel.motor) {
      return VehicleProblem{Key(number, "node"),
                            fmt::format("motor {} of node {} turns wheel {} already", wheel.motor,
                                        wheel.node, Quoted(vehicle.wheels[other].name))};
    }
  }
  return std::nullopt;
}

}  // namespace

std::string Quoted(const std::string& text) {
  std::string line = text.substr(0, kLongestQuote);
  std::replace_if(line.begin(), line.end(), IsControl, '?');
  return '"' + line + (line.size() < text.size() ? "...\"" : "\"");
}

std::optional<VehicleProblem> FindProblem(const Vehicle& vehicle) {
  const Make* make = FindMake(vehicle.make);
  if (make == nullptr) {
    return VehicleProblem{"make", fmt::format("{} is not {}", Quoted(vehicle.make), MakeNames())};
  }
  if (!IsInterfaceName(vehicle.interface)) {
    return VehicleProblem{"interface",
                          fmt::format("{} is not a name of 1 to 15 letters, digits, '.', '_' or "
                                      "'-', which may not come first",
                                      Quoted(vehicle.interface))};
  }
  if (vehicle.wheels.empty() || vehicle.wheels.size() > kMostWheels) {
    return VehicleProblem{"wheels", fmt::format("{} wheels, a vehicle has 1 to {}",
                                                vehicle.wheels.size(), kMostWheels)};
  }
  Problem problem = CheckTimes(vehicle);
  if (!problem) {
    problem = CheckMotion(vehicle, *make);
  }
  for (std::size_t number = 0; number < vehicle.wheels.size() && !problem; ++number) {
    problem = CheckWheel(vehicle, *make, number);
  }
  return problem;
}

const Vehicle& Checked(const Vehicle& vehicle) {
  if (const auto problem = FindProblem(vehicle)) {
    throw VehicleError(problem->key + ": " + problem->text);
  }
  return vehicle;
}

}  // namespace motor_driver
