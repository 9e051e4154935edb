// A host outside the tree that has a vehicle, and names nothing of the drive classes itself.
#include <vehicle.h>
#include <wheels.h>

#include <cstdio>

namespace {

// An exception of the library is caught here only when both sides mean the same type.
bool LoadsNothingFrom(const char* path) {
  try {
    motor_driver::LoadVehicle(path);
  } catch (const motor_driver::VehicleError&) {
    return true;
  }
  return false;
}

}  // namespace

int main() {
  motor_driver::Vehicle vehicle;
  vehicle.make = "fake";
  vehicle.wheels.resize(2);
  vehicle.wheels[0].name = "left";
  vehicle.wheels[1].name = "right";
  vehicle.wheels[1].node = 2;
  motor_driver::Wheels wheels(vehicle);
  const bool ready = wheels.BringUp();
  const double rpm[] = {30, -30};
  const bool commanded = wheels.Command(rpm, 2);
  const bool stopped = wheels.Stop();
  std::printf("ready: %d, commanded: %d, stopped: %d, without a file: %d\n", ready, commanded,
              stopped, LoadsNothingFrom("/no/such/vehicle.yaml"));
  return 0;
}
