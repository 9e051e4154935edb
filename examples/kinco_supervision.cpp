// Two Kinco drives through an emergency stop: pressed, released, acknowledged by the operator.
//
// Meant to be copied. The division of labour:
//   - the library commands zero from the first moment of the stop, and leads the drives out of it
//     once it is released; the wheels stay at zero
//   - whether they may turn again is decided by a person who sees them, and told by Clear(). Never
//     by a timer, unless nobody can be near them
//   - what the person sees is printed by a thread of its own: one that commands must not wait for
//     a terminal
#include <poll.h>
#include <unistd.h>
#include <wheels.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "host.h"

namespace {

using Clock = std::chrono::steady_clock;
using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::VehicleError;
using motor_driver::Wheels;

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

constexpr auto kBetweenLooks = std::chrono::milliseconds(20);
constexpr auto kBetweenRows = std::chrono::seconds(1);
// Of a wheel that turns as told, over 100 ms.
constexpr double kTolerance = 0.25;

struct Options {
  Vehicle vehicle;
  std::vector<int> nodes = {1, 2};
  int rpm = 60;
  double seconds = 10;
  double acknowledge_after_s = 0;
};

void Say(const std::string& text) { std::fprintf(stderr, "kinco_supervision: %s\n", text.c_str()); }

const char* NameOf(State state) {
  constexpr const char* kNames[] = {"off", "bring-up", "ready", "running", "stopping", "fault"};
  return kNames[static_cast<int>(state)];
}

// Shows the vehicle on standard output: every change, and a row per second. Its thread may be held
// up for as long as anybody likes; it only reads.
class Screen {
 public:
  explicit Screen(const Wheels& wheels, std::size_t count)
      : wheels_(wheels), count_(count), thread_([this] { Run(); }) {}
  ~Screen() {
    ended_ = true;
    thread_.join();
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

 private:
  void Run() {
    Report before;
    auto next = begin_;
    for (bool last = false; !last; std::this_thread::sleep_for(kBetweenLooks)) {
      last = ended_;
      const Report now = wheels_.GetReport();
      const bool changed = now.state != before.state || now.reason != before.reason;
      if (changed || last || Clock::now() >= next) {
        next = Clock::now() + kBetweenRows;
        Show(now);
      }
      before = now;
    }
  }

  void Show(const Report& report) const {
    std::printf("%6.2f s  %-8s", std::chrono::duration<double>(Clock::now() - begin_).count(),
                NameOf(report.state));
    for (std::size_t wheel = 0; wheel < count_; ++wheel) {
      std::printf("  %5.0f rpm", wheels_.GetWheel(wheel).measured_rpm);
    }
    std::printf("  %s\n", report.reason.c_str());
    if (report.fault == Fault::kEmergencyStop && report.state == State::kFault) {
      std::puts("          Released, and nobody near the wheels? Enter acknowledges: THEY TURN.");
    }
    std::fflush(stdout);
  }

  const Wheels& wheels_;
  const std::size_t count_;
  const Clock::time_point begin_ = Clock::now();
  std::atomic<bool> ended_{false};
  std::thread thread_;  // the last: it uses the members above
};

// The person who acknowledges, by Enter on standard input.
class Operator {
 public:
  explicit Operator(double acknowledges_after_s) : after_(acknowledges_after_s) {}

  // To be called all the time: what was typed before the fault acknowledges nothing.
  bool Acknowledges(bool fault) {
    if (!fault) {
      since_ = Clock::now();
    }
    bool acknowledged = Typed() && fault;
    if (after_.count() > 0 && fault && Clock::now() >= since_ + after_) {
      acknowledged = true;
    }
    if (acknowledged) {
      since_ = Clock::now();
    }
    return acknowledged;
  }

 private:
  bool Typed() {
    pollfd input = {STDIN_FILENO, POLLIN, 0};
    char typed[64];
    if (!open_ || ::poll(&input, 1, 0) != 1) {
      return false;
    }
    const ssize_t size = ::read(STDIN_FILENO, typed, sizeof(typed));
    open_ = size > 0;
    return open_;
  }

  const std::chrono::duration<double> after_;
  Clock::time_point since_ = Clock::now();
  bool open_ = true;
};

bool Turn(Wheels& wheels, const Options& options) {
  const std::vector<double> rpm(options.nodes.size(), options.rpm);
  Operator person(options.acknowledge_after_s);
  const auto end = Clock::now() + std::chrono::duration<double>(options.seconds);
  while (Clock::now() < end) {
    if (EndRequested()) {
      Say("interrupted");
      return false;
    }
    const bool taken = wheels.Command(rpm.data(), rpm.size());
    if (!taken && wheels.GetReport().fault != Fault::kEmergencyStop) {
      return false;
    }
    if (person.Acknowledges(!taken)) {
      wheels.Clear();  // false: still pressed, or something else; the report says what
    }
    std::this_thread::sleep_for(options.vehicle.period);
  }
  for (std::size_t wheel = 0; wheel < rpm.size(); ++wheel) {
    const double off = wheels.GetWheel(wheel).measured_rpm - options.rpm;
    if (std::abs(off) > std::max(1.0, kTolerance * std::abs(options.rpm))) {
      Say("not every wheel turns as told at the end");
      return false;
    }
  }
  return true;
}

int Run(const Options& options) {
  Wheels wheels(options.vehicle);
  bool well = false;
  bool stopped = false;
  bool enabled = false;
  {
    const Screen screen(wheels, options.nodes.size());
    const bool up = wheels.BringUp({}, EndRequested);
    well = up && Turn(wheels, options);
    enabled = wheels.GetReport().state != State::kOff;
    // Where the bring-up failed nothing has turned, and nodes that were not set up tell nothing.
    stopped = up ? StopForSure(wheels, Say) : wheels.Stop();
  }
  const Report report = wheels.GetReport();
  if (report.fault != Fault::kNone) {
    Say(report.reason);
  }
  if (enabled && stopped) {
    Say("zero speed sent; every wheel stands still");
  }
  return well && stopped && report.fault == Fault::kNone ? kSuccess : kFailure;
}

int ParseAndRun(int argc, char** argv) {
  Options options;
  options.vehicle.make = "kinco";
  CLI::App app("Turns Kinco drives and shows what becomes of them in an emergency stop.",
               "kinco_supervision");
  app.footer(
      "Exit status: 0 every wheel turned as told at the end and was measured to stand still\n"
      "afterwards; 1 not so, or interrupted; 2 usage.");
  app.option_defaults()->always_capture_default();
  app.add_option("--interface", options.vehicle.interface, "CAN interface");
  app.add_option("--node", options.nodes, "node-ID, may be given several times");
  app.add_option("--config", options.vehicle.texts, "texts and wait, for instance kinco.yaml");
  app.add_option("--counts-per-revolution", options.vehicle.counts_per_revolution,
                 "of the encoder");
  app.add_option("--rpm", options.rpm, "speed of the wheels")->check(CLI::Range(-3000, 3000));
  app.add_option("--seconds", options.seconds, "length of the run")->check(Between(1, 9999));
  app.add_option("--acknowledge-after", options.acknowledge_after_s,
                 "seconds after which an emergency stop is acknowledged by itself, and again as\n"
                 "long as it is not released; 0: by Enter alone. WHEELS THEN TURN UNASKED")
      ->check(Between(0, 9999));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kSuccess : kUsage;
  }
  for (const int node : options.nodes) {
    options.vehicle.wheels.push_back({"node " + std::to_string(node), node, 1, false, 1.0});
  }
  options.vehicle.max_rpm = std::max(1, std::abs(options.rpm));
  // The library logs to standard output unless told otherwise, between the rows of the screen.
  setenv("SPDLOG_STDOUT", "false", 0);
  setenv("SPDLOG_SYSTEMD", "false", 0);
  setenv("SPDLOG_LEVEL", "info", 0);
  EndOnSignals();
  try {
    return Run(options);
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
