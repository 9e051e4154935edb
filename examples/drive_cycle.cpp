// A complete small host: brings a vehicle up, turns its wheels through a speed profile, and does
// not end before they stand still.
//
// Meant to be copied. What a host must not leave out:
//   - it commands at least every command_timeout, and has a look at what Command() answers
//   - whatever ends it, signals included, ends in a stop that was measured
//   - it succeeds only when what it was there for was done
// Everything else (zero before enabling, who is alive, ramps, faults) is done by Wheels.
#include <unistd.h>
#include <wheels.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "host.h"
#include "speeds.h"

namespace {

using motor_driver::Fault;
using motor_driver::Vehicle;
using motor_driver::VehicleError;
using motor_driver::Wheels;
using std::chrono::milliseconds;

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

// Shares of the highest speed, for wheels with odd and even numbers, and of the time.
struct Phase {
  const char* name;
  double first;
  double second;
  double length;
};
constexpr std::array<Phase, 3> kPhases = {{
    {"forward", 1, 1, 0.34},
    {"curve", 1, 0.5, 0.33},
    {"reverse", -0.5, -1, 0.33},
}};
// The longest way is that to the third phase, and takes a third of it.
constexpr double kLongestWay = 1.5;
constexpr double kRamp = 0.11;
// From then on the measured speed is judged. It is that of the last 100 ms.
constexpr double kSettling = 0.5;

struct Options {
  std::string vehicle_file;
  Vehicle vehicle;
  std::vector<int> nodes = {1};
  int period_ms = 10;
  int rpm = 60;
  double seconds = 8;
  double heartbeat_timeout_s = 5;
  std::string table = "auto";
};

void Say(const std::string& text) { std::fprintf(stderr, "drive_cycle: %s\n", text.c_str()); }

// The vehicle of the options. A make with two motors per node takes a second one, the others
// refuse it.
Vehicle VehicleOf(const Options& options) {
  if (!options.vehicle_file.empty()) {
    return motor_driver::LoadVehicle(options.vehicle_file);
  }
  Vehicle vehicle = options.vehicle;
  vehicle.period = milliseconds(options.period_ms);
  vehicle.heartbeat_timeout = milliseconds(static_cast<int>(options.heartbeat_timeout_s * 1000));
  vehicle.max_rpm = options.rpm;
  vehicle.max_acceleration = kLongestWay * options.rpm / (kRamp * options.seconds);
  vehicle.max_deceleration = vehicle.max_acceleration;
  const auto add_wheels = [&vehicle, &options](int motor) {
    for (const int node : options.nodes) {
      vehicle.wheels.push_back(
          {"wheel " + std::to_string(vehicle.wheels.size() + 1), node, motor, false, 1.0});
    }
    const Wheels refuses_what_makes_no_sense(vehicle);
  };
  add_wheels(1);
  Vehicle with_one_motor = vehicle;
  try {
    add_wheels(2);
    return vehicle;
  } catch (const VehicleError&) {
    return with_one_motor;
  }
}

// False when the wheels did not go through all of it.
//
// Prints between two commands, on the thread that commands. Behind Ctrl-S, or a pipe that nobody
// reads, it stands still there; then the command grows stale, and the wheels stop: right for a host
// whose person sees what it does. How to go on commanding: kinco_supervision.cpp.
bool RunCycle(Wheels& wheels, const Vehicle& vehicle, const Options& options, SpeedTable& table,
              SpeedVerdict& verdict) {
  const double period_s = std::chrono::duration<double>(vehicle.period).count();
  const std::size_t count = vehicle.wheels.size();
  double second = 0;
  for (std::size_t number = 0; number < kPhases.size(); ++number) {
    const Phase& phase = kPhases[number];
    std::vector<double> rpm(count, options.rpm * phase.first);
    for (std::size_t wheel = 1; wheel < count; wheel += 2) {
      rpm[wheel] = options.rpm * phase.second;
    }
    std::vector<double> held_s(count);
    // Time advances by cycles: a host that was held up goes on where it was instead of jumping.
    const double end = second + phase.length * options.seconds;
    while (second < end) {
      if (EndRequested() || !wheels.Command(rpm.data(), count)) {
        return false;
      }
      std::this_thread::sleep_for(vehicle.period);
      for (std::size_t wheel = 0; wheel < count; ++wheel) {
        const motor_driver::WheelReport report = wheels.GetWheel(wheel);
        // What is sent are whole rpm of the motor.
        const bool held = std::abs(report.target_rpm - rpm[wheel]) < 1;
        held_s[wheel] = held ? held_s[wheel] + period_s : 0;
        if (!held) {
          verdict.Leave(number, wheel);
        } else if (held_s[wheel] > kSettling) {
          verdict.Add(number, wheel, report);
        }
      }
      table.Show(second, phase.name, wheels);
      second += period_s;
    }
  }
  return true;
}

int Run(const Options& options, const Vehicle& vehicle) {
  std::vector<std::string> names;
  for (const motor_driver::Wheel& wheel : vehicle.wheels) {
    names.push_back(wheel.name);
  }
  const bool in_place =
      options.table == "live" || (options.table == "auto" && isatty(STDOUT_FILENO) != 0);
  SpeedTable table(in_place, names, options.seconds);
  SpeedVerdict verdict(names, kPhases.size());

  Wheels wheels(vehicle);
  const bool up = wheels.BringUp({}, EndRequested);
  const bool done = up && RunCycle(wheels, vehicle, options, table, verdict);
  // Where the bring-up failed nothing has turned, and nodes that were not set up tell nothing.
  const bool stopped = up ? StopForSure(wheels, Say) : wheels.Stop();

  const motor_driver::Report report = wheels.GetReport();
  if (report.fault != Fault::kNone) {
    Say(report.reason);
  } else if (!done) {
    Say("interrupted");
  }
  if (report.state != motor_driver::State::kOff && stopped) {
    Say("zero speed sent; every wheel stands still");
  }
  if (up) {
    std::printf("%s\n", verdict.Summary().c_str());
  }
  const bool well = done && stopped && report.fault == Fault::kNone;
  return well && verdict.Complete() && verdict.WithinTolerance() ? kSuccess : kFailure;
}

int ParseAndRun(int argc, char** argv) {
  Options options;
  options.vehicle.make = "zl";
  CLI::App app("Turns the wheels of a vehicle through a speed profile of " +
                   std::to_string(kPhases.size()) +
                   " phases and a stop, and compares\nmeasured with commanded speed once a phase "
                   "has settled (0.5 s after its ramp).\n\n"
                   "Exit status: 0 every phase measured, all speeds within 2 % and the stop "
                   "confirmed;\n1 not so, or interrupted; 2 usage.\n"
                   "SPDLOG_STDOUT=true shows the library's log.",
               "drive_cycle");
  app.get_formatter()->column_width(46);
  app.option_defaults()->always_capture_default();
  std::vector<CLI::Option*> vehicle_options = {
      app.add_option("--interface", options.vehicle.interface, "CAN interface"),
      app.add_option("--node", options.nodes, "node-ID, may be given several times"),
      app.add_option("--make", options.vehicle.make,
                     "make of drive, as motor-drive-sim --list-makes names it"),
      app.add_option("--period-ms", options.period_ms, "PDO and control period"),
      app.add_option("--heartbeat-timeout", options.heartbeat_timeout_s,
                     "seconds without heartbeat that make a node dead")
          ->check(Between(0.3, 30))};
  CLI::Option* const file = app.add_option("--vehicle", options.vehicle_file,
                                           "file of the vehicle, in place of the options above");
  for (CLI::Option* const option : vehicle_options) {
    file->excludes(option);
  }
  app.add_option("--rpm", options.rpm, "highest speed")->check(CLI::Range(10, 3000));
  app.add_option("--seconds", options.seconds, "length of the motion")->check(Between(4, 86400));
  app.add_option("--table", options.table, "speeds as table in place, or as lines")
      ->check(CLI::IsMember({"auto", "live", "lines"}));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == kSuccess ? kSuccess : kUsage;
  }
  // The library logs to standard output unless told otherwise, and would tear the table apart.
  setenv("SPDLOG_STDOUT", "false", 0);
  setenv("SPDLOG_SYSTEMD", "false", 0);
  setenv("SPDLOG_LEVEL", "info", 0);
  EndOnSignals();
  try {
    return Run(options, VehicleOf(options));
  } catch (const VehicleError& error) {
    Say(error.what());
    return kUsage;
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return ParseAndRun(argc, argv);
  } catch (const std::exception& error) {
    Say(error.what());
    return kFailure;
  }
}
