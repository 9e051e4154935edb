// A host's control loop on a machine without drive, bus or CAN: the make "fake" logs what drives
// would be told, and reports what was commanded. With another make as argument the same loop drives
// real wheels, of nodes 1 and 2 on can0. Needs nothing but the installed package:
//   g++ -std=c++17 without_hardware.cpp $(pkg-config --cflags --libs motor_driver_wheels)
#include <wheels.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <thread>

namespace {

constexpr int kCycles = 100;

std::atomic<bool> g_end{false};

// Knows no make.
bool Drive(motor_driver::Wheels& wheels, std::chrono::milliseconds period) {
  wheels.BringUp({}, [] { return g_end.load(); });
  int cycle = 0;
  for (const double rpm[] = {60, 30}; cycle < kCycles && !g_end && wheels.Command(rpm, 2);
       ++cycle) {
    std::this_thread::sleep_for(period);
    std::printf("%7.1f rpm %7.1f rpm\n", wheels.GetWheel(0).measured_rpm,
                wheels.GetWheel(1).measured_rpm);
  }
  const bool stopped = wheels.Stop();
  if (const motor_driver::Report report = wheels.GetReport(); !report.reason.empty()) {
    std::fprintf(stderr, "%s\n", report.reason.c_str());
  }
  return cycle == kCycles && stopped;
}

}  // namespace

int main(int argc, char** argv) {
  for (const int end : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
    std::signal(end, [](int) { g_end = true; });
  }
  std::signal(SIGPIPE, SIG_IGN);
  // Speeds are logged at debug. What the user has set stays.
  setenv("SPDLOG_STDOUT", "true", 0);
  setenv("SPDLOG_SYSTEMD", "false", 0);
  setenv("SPDLOG_LEVEL", "debug", 0);
  try {
    motor_driver::Vehicle vehicle;
    vehicle.make = argc > 1 ? argv[1] : "fake";
    vehicle.wheels = {{"left", 1, 1, false, 1.0}, {"right", 2, 1, false, 1.0}};
    motor_driver::Wheels wheels(vehicle);
    const bool done = Drive(wheels, vehicle.period);
    std::puts(done ? "the control loop ran; the wheels stand still" : "FAILED");
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return EXIT_FAILURE;
  }
}
