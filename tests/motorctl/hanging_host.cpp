// A host on `Wheels` whose thread that commands hangs while the wheel of node 1 turns; its other
// threads live on. Its argument: max_deceleration.
#include <unistd.h>
#include <wheels.h>

#include <chrono>
#include <cstdlib>
#include <thread>

int main(int argc, char** argv) {
  motor_driver::Vehicle vehicle;
  vehicle.make = "zl";
  vehicle.wheels.resize(1);
  vehicle.wheels[0].name = "wheel";
  vehicle.max_acceleration = 300;
  vehicle.max_deceleration = argc > 1 ? std::atof(argv[1]) : 0;
  motor_driver::Wheels wheels(vehicle);
  if (!wheels.BringUp() && !wheels.Clear()) return 1;
  const double rpm = 60;
  for (int cycle = 0; cycle < 150; ++cycle) {
    wheels.Command(&rpm, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  for (;;) ::pause();
}
