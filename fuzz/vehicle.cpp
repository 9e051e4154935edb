// The file of a vehicle: whatever it holds, loading ends with a vehicle that the rules allow, or
// with one line that begins with the file and, unless it is not the file of a vehicle at all, a
// place in it.
#include <sys/mman.h>
#include <unistd.h>
#include <vehicle.h>

#include <cmath>
#include <string>

#include "input.h"

namespace {

void RequireSense(const motor_driver::Vehicle& vehicle) {
  fuzz::Require(!vehicle.make.empty(), "a make");
  fuzz::Require(!vehicle.interface.empty() && vehicle.interface.size() <= 15, "an interface");
  fuzz::Require(!vehicle.wheels.empty() && vehicle.wheels.size() <= 8, "number of wheels");
  fuzz::Require(vehicle.period.count() >= 2 && vehicle.period.count() <= 255, "period");
  fuzz::Require(vehicle.command_timeout >= 2 * vehicle.period, "command timeout");
  fuzz::Require(vehicle.feedback_timeout >= 2 * vehicle.period, "feedback timeout");
  for (const double value : {vehicle.max_rpm, vehicle.max_acceleration, vehicle.max_deceleration,
                             vehicle.fault_deceleration}) {
    fuzz::Require(std::isfinite(value) && value > 0, "limit of motion");
  }
  fuzz::Require(vehicle.realtime_priority >= 0 && vehicle.realtime_priority <= 99, "priority");
  for (const motor_driver::Wheel& wheel : vehicle.wheels) {
    fuzz::Require(wheel.node >= 1 && wheel.node <= 127 && wheel.motor >= 1, "motor");
    fuzz::Require(std::isfinite(wheel.gear_ratio) && wheel.gear_ratio > 0, "gear ratio");
    fuzz::Require(vehicle.max_rpm * wheel.gear_ratio <= 2147483647.0, "speed of a motor");
    for (const motor_driver::Wheel& other : vehicle.wheels) {
      fuzz::Require(&wheel == &other || wheel.name != other.name, "one name each");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const int file = ::memfd_create("vehicle", MFD_CLOEXEC);
  fuzz::Require(::write(file, bytes, size) == static_cast<ssize_t>(size), "the file is written");
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  try {
    RequireSense(motor_driver::LoadVehicle(path));
  } catch (const motor_driver::VehicleError& error) {
    const std::string line = error.what();
    fuzz::Require(line.rfind(path + ":", 0) == 0, "the file is named");
    fuzz::Require(line.size() < path.size() + 500, "the line is not long");
    for (const char c : line) {
      fuzz::Require(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F,
                    "one line that can be printed");
    }
  }
  ::close(file);
  return 0;
}
