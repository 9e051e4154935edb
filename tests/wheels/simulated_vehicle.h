// A vehicle of two wheels on two nodes: simulated drives on can1, `Wheels` on can0, a record of all
// that passes between them, and a host that commands.
#pragma once

#include <wheels.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "brought_up.h"
#include "eventually.h"
#include "far_end.h"
#include "sim/simulated_drive.h"
#include "wire.h"

using support::Eventually;

// Times are short where a test waits for them.
inline motor_driver::Vehicle TwoWheels(const wire::DriveMake& make) {
  motor_driver::Vehicle vehicle;
  vehicle.make = make.name;
  vehicle.wheels = {{"left", 1, 1, false, 1.0}, {"right", 2, 1, false, 1.0}};
  vehicle.heartbeat_timeout = std::chrono::milliseconds(300);
  vehicle.max_acceleration = 600;
  vehicle.max_deceleration = 300;
  return vehicle;
}

inline const std::vector<int>& TwoNodes() {
  static const std::vector<int> nodes = {1, 2};
  return nodes;
}

// The drives of the vehicle, and the record of their bus.
class SimulatedDrives {
 public:
  explicit SimulatedDrives(const wire::DriveMake& make) : make_(make) {
    for (const int node : TwoNodes()) {
      PlugIn(node);
    }
  }

  // A drive with its power just switched on takes the place of the one before.
  void PlugIn(int node, const std::string& fault = "") {
    sim::SimulatedDrive::Options options;
    options.make = make_.name;
    options.node_id = static_cast<std::uint8_t>(node);
    if (!fault.empty()) {
      options.faults.push_back(sim::ParseFault(fault));
    }
    drives_[Index(node)].reset();
    drives_[Index(node)] = std::make_unique<sim::SimulatedDrive>(options);
  }
  void Unplug(int node) { drives_[Index(node)].reset(); }

  sim::SimulatedDrive& operator[](int node) { return *drives_[Index(node)]; }

  // The drive takes no speed any more and goes on as it is.
  void Deafen(int node) {
    sim::SimulatedDrive& drive = (*this)[node];
    if (make_.commands_by_sdo) {
      drive.Inject("ignore-object=0x2FF0");
    } else {
      drive.WriteObject(0x1400, 1, 0x80000200U + static_cast<std::uint32_t>(node));
      drive.Inject("ignore-object=0x60FF");
    }
  }

  // A target velocity that is stored in the drive, as a host leaves it that crashed.
  void WriteTarget(int node, double rpm) {
    const auto units = static_cast<std::int32_t>(rpm * make_.units_per_rpm);
    for (const std::string& target : make_.targets) {
      const auto index = std::stoul(target.substr(4, 2) + target.substr(2, 2), nullptr, 16);
      const auto sub = std::stoul(target.substr(6, 2), nullptr, 16);
      EXPECT_EQ((*this)[node].WriteObject(static_cast<std::uint16_t>(index),
                                          static_cast<std::uint8_t>(sub),
                                          static_cast<std::uint32_t>(units)),
                sim::AbortCode::kNone);
    }
  }

  double FastestRpm() {
    double fastest = 0;
    for (const auto& drive : drives_) {
      fastest = std::max(fastest, drive == nullptr ? 0 : std::abs(drive->SpeedRpm(1)));
    }
    return fastest;
  }

 private:
  static std::size_t Index(int node) { return static_cast<std::size_t>(node) - 1; }

  wire::DriveMake make_;
  std::unique_ptr<sim::SimulatedDrive> drives_[2];
};

// A host that commands both wheels every 10 ms, on a thread of its own.
class Commanding {
 public:
  Commanding(motor_driver::Wheels& wheels, double rpm)
      : thread_([this, &wheels, rpm] {
          const double speeds[] = {rpm, rpm};
          while (!ending_) {
            accepted_ = wheels.Command(speeds, 2);
            if (accepted_) {
              last_ = bus::Clock::now();
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
        }) {}
  ~Commanding() { End(); }
  Commanding(const Commanding&) = delete;
  Commanding& operator=(const Commanding&) = delete;

  // When the last command was accepted.
  bus::Clock::time_point End() {
    ending_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
    return last_;
  }
  bool accepted() const { return accepted_; }

 private:
  std::atomic<bool> ending_{false};
  std::atomic<bool> accepted_{false};
  bus::Clock::time_point last_;
  std::thread thread_;
};

// Both wheels reach the speed while it is commanded.
inline bool TurnsAt(SimulatedDrives& drives, double rpm) {
  return Eventually([&] {
    return std::abs(std::abs(drives[1].SpeedRpm(1)) - rpm) < 0.5 &&
           std::abs(std::abs(drives[2].SpeedRpm(1)) - rpm) < 0.5;
  });
}

inline bool WaitState(const motor_driver::Wheels& wheels, motor_driver::State state) {
  return Eventually([&] { return wheels.GetReport().state == state; });
}

// The vehicle on its drives, brought up.
struct ReadyVehicle {
  ReadyVehicle(const wire::DriveMake& make, const motor_driver::Vehicle& vehicle)
      : drives(make), wheels(vehicle) {
    if (!BroughtUp(wheels)) {
      throw std::runtime_error(wheels.GetReport().reason);
    }
  }

  SimulatedDrives drives;
  motor_driver::Wheels wheels;
};

// A host, and both wheels turn as it commands.
struct TurningHost : Commanding {
  TurningHost(ReadyVehicle& ready, double rpm) : Commanding(ready.wheels, rpm) {
    if (!TurnsAt(ready.drives, rpm)) {
      throw std::runtime_error("not turning: " + ready.wheels.GetReport().reason);
    }
  }
};
