#include <wheels.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <thread>

std::atomic<bool> g_end{false};
int main() {
  for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP})
    std::signal(s, [](int) { g_end = true; });
  std::signal(SIGPIPE, SIG_IGN);
  motor_driver::Vehicle vehicle;
  vehicle.make = "zl";
  vehicle.wheels = {{"left", 1, 1}, {"right", 1, 2}};  // name, node, motor
  motor_driver::Wheels wheels(vehicle);
  wheels.BringUp({}, [] { return g_end.load(); });
  const double rpm[] = {60, 30};
  for (int cycle = 0; cycle < 300 && !g_end && wheels.Command(rpm, 2); ++cycle) {
    const auto left = wheels.GetWheel(0), right = wheels.GetWheel(1);
    std::printf("%7.1f rpm %7.1f rpm\n", left.measured_rpm, right.measured_rpm);
    std::this_thread::sleep_for(vehicle.period);
  }
  std::puts(wheels.Stop() ? "stopped" : "THE STOP IS NOT CONFIRMED");
  return wheels.GetReport().fault == motor_driver::Fault::kNone ? 0 : 1;  // the log says which
}
