// A vehicle of two wheels with simulated drives at the far end, and a host that commands them.
#pragma once

#include <gtest/gtest.h>
#include <wheels.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "brought_up.h"
#include "eventually.h"
#include "makes.h"
#include "sim/simulated_drive.h"

using support::Eventually;

namespace two_wheels {

using motor_driver::Vehicle;
using motor_driver::Wheels;

// Both motors of node 1 where it has two, otherwise those of nodes 1 and 2; the right one mirrored
// and geared down.
inline Vehicle VehicleOf(const tested::Make& make) {
  Vehicle vehicle;
  vehicle.make = make.name;
  const bool both = make.motors == 2;
  vehicle.wheels = {{"left", 1, 1, false, 1.0}, {"right", both ? 1 : 2, both ? 2 : 1, true, 2.5}};
  vehicle.max_acceleration = 600;
  vehicle.max_deceleration = 600;
  return vehicle;
}

class Drives {
 public:
  explicit Drives(const tested::Make& make) {
    for (const int node : {1, 2}) {
      if (static_cast<std::size_t>(node) <= 2 / make.motors) {
        sim::SimulatedDrive::Options options;
        options.make = make.name;
        options.node_id = static_cast<std::uint8_t>(node);
        // Both wrap around soon, wherever they turn.
        options.start_positions = {0x7FFFFF00, -0x7FFFFF00};
        drives_.push_back(std::make_unique<sim::SimulatedDrive>(options));
      }
    }
  }

  sim::SimulatedDrive& operator[](std::size_t drive) { return *drives_[drive]; }

  // The encoder of a wheel's motor.
  std::int32_t Position(std::size_t wheel) {
    return drives_.size() == 1 ? drives_[0]->Position(wheel + 1) : drives_[wheel]->Position(1);
  }
  double SpeedRpm(std::size_t wheel) {
    return drives_.size() == 1 ? drives_[0]->SpeedRpm(wheel + 1) : drives_[wheel]->SpeedRpm(1);
  }

 private:
  std::vector<std::unique_ptr<sim::SimulatedDrive>> drives_;
};

// Commands the same every 10 ms, on a thread of its own.
class Host {
 public:
  Host(Wheels& wheels, std::vector<double> rpm)
      : thread_([this, &wheels, speeds = std::move(rpm)] {
          while (!ending_) {
            wheels.Command(speeds.data(), speeds.size());
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
        }) {}
  ~Host() {
    ending_ = true;
    thread_.join();
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

 private:
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

}  // namespace two_wheels
