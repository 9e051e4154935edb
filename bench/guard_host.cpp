#include "guard_host.h"

#include <signal.h>
#include <unistd.h>
#include <wheels.h>

#include <stdexcept>
#include <thread>

#include "guard_process.h"

namespace guard_host {
namespace {

using Clock = std::chrono::steady_clock;

// The wheel is at its speed 0.1 s after the bring-up.
constexpr double kRamp = 600;

volatile sig_atomic_t g_commands = 1;

void StopCommanding(int /*signal*/) { g_commands = 0; }

[[noreturn]] void Hang(int /*signal*/) {
  for (;;) ::pause();
}

}  // namespace

void Run(const std::string& make, std::chrono::milliseconds drive_watchdog) {
  ::signal(SIGUSR1, StopCommanding);
  // The threads of `Wheels` block all others but faults.
  ::signal(SIGSYS, Hang);
  motor_driver::Vehicle vehicle;
  vehicle.make = make;
  vehicle.wheels.resize(1);
  vehicle.wheels[0].name = "wheel";
  vehicle.period = kPeriod;
  vehicle.command_timeout = kCommandTimeout;
  vehicle.drive_watchdog = drive_watchdog;
  vehicle.max_acceleration = kRamp;
  vehicle.max_deceleration = kRamp;
  motor_driver::Wheels wheels(vehicle);
  if (!wheels.BringUp()) throw std::runtime_error("bring-up: " + wheels.GetReport().reason);
  auto last = Clock::now();
  while (g_commands != 0) {
    last = Clock::now();
    wheels.Command(&kRpm, 1);
    std::this_thread::sleep_for(kPeriod / 2);
  }
  [[maybe_unused]] const ssize_t written = ::write(kTimeDescriptor, &last, sizeof(last));
  Hang(0);
}

}  // namespace guard_host
