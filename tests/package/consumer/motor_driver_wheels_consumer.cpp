// A host outside the tree that has a vehicle.
#include <vehicle.h>
#include <wheels.h>

#include <cstdio>

int main() {
  motor_driver::Vehicle vehicle;
  vehicle.make = "fake";
  vehicle.wheels.resize(2);
  vehicle.wheels[1].node = 2;
  std::printf("%s, control every %d ms\n", vehicle.interface.c_str(),
              static_cast<int>(vehicle.period.count()));
  return 0;
}
