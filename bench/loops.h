// The same control of a vehicle three times: by Wheels, by a loop written on a drive class as hosts
// write it, and by a bare socket that sends and reads and judges nothing.
#pragma once

#include <wheels.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bare.h"

class DriverCommon;

constexpr auto kControlPeriod = std::chrono::milliseconds(10);
constexpr int kControlRpm = 60;

// One wheel on each of the nodes 1 to `wheels`.
motor_driver::Vehicle VehicleOf(const std::string& make, std::uint32_t wheels,
                                const std::string& interface);

// Brought up, and commanded by the calling thread for as long as Run() runs.
class WheelsLoop {
 public:
  // Throws std::runtime_error with the reason when the bring-up fails.
  explicit WheelsLoop(const motor_driver::Vehicle& vehicle);
  // For some `cycles`; returns how many there were. Commands only as often as it has to.
  double Run(std::uint32_t cycles) { return Run(cycles, std::chrono::milliseconds(50), false); }
  // Commands, and looks at every wheel, once per cycle.
  double RunClosely(std::uint32_t cycles) { return Run(cycles, kControlPeriod, true); }
  motor_driver::Wheels& wheels() { return wheels_; }

 private:
  double Run(std::uint32_t cycles, std::chrono::milliseconds command_period, bool look);

  std::vector<double> rpm_;
  motor_driver::Wheels wheels_;
};

// On drives that are awake. Judges what a careful host judges: the transport, heartbeats, the age
// of the reports, whether the wheels follow, and what a supervision loop knows.
class HandLoop {
 public:
  // "tt" or "kinco". Throws std::runtime_error when the set-up fails.
  HandLoop(const std::string& make, std::uint32_t nodes, const std::string& interface);
  ~HandLoop();
  HandLoop(const HandLoop&) = delete;
  HandLoop& operator=(const HandLoop&) = delete;
  double Run(std::uint32_t cycles);

 private:
  using Clock = std::chrono::steady_clock;
  struct Heard {
    Clock::time_point reported;
    Clock::time_point followed;
    double rpm = 0;
  };

  void SetUp(std::uint8_t node);
  void Cycle();
  void Judge(std::uint8_t node, Clock::time_point now) const;

  bool supervised_;
  std::uint8_t nodes_;
  std::uint8_t decoded_;  // GetSpeed() tells of the nodes up to here
  std::unique_ptr<DriverCommon> drive_;
  std::array<Heard, 9> heard_{};  // by node-ID
};

class BareLoop {
 public:
  BareLoop(std::uint32_t nodes, const std::string& interface);
  double Run(std::uint32_t cycles);

 private:
  std::uint32_t nodes_;
  BareReader reader_;
};
