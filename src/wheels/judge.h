// Looks at what is heard of the nodes once per cycle and finds what is wrong.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "wheels/drives.h"

namespace motor_driver {

// Motor speeds are what the classes take, wheel speeds what a host thinks in.
double WheelRpm(const Wheel& wheel, double motor_rpm);
double MotorRpmOf(const Wheel& wheel, double wheel_rpm);

class Judge {
 public:
  explicit Judge(Drives& drives);

  // From here on silence counts anew: nobody could be heard before.
  void Restart();

  // Keeps count of who is silent, and tells the drives who does not hear PDOs. True: the bus, a
  // node or its reports are gone.
  bool Listen(std::chrono::nanoseconds passed);

  // Whether the node does not hear PDOs or is not heard.
  bool Gone(std::size_t node) const {
    return silences_[node].left || silences_[node].silent || silences_[node].blind;
  }

  // After Listen(): the first trouble there is. `target_rpm`: of each wheel, as sent. `passed`:
  // since the last look; a host that was held up has not looked, so that it is less than the time
  // that went by.
  Trouble Look(const std::vector<double>& target_rpm, std::chrono::nanoseconds passed);

 private:
  struct Silence {
    bool left = false;    // the operational state
    bool silent = false;  // no heartbeats
    bool blind = false;   // no reports
    std::uint32_t heartbeats = 0;
    std::uint32_t reports = 0;
    std::uint32_t absences = 0;  // when counting began
    std::uint32_t errors = 0;    // likewise
    std::chrono::nanoseconds without_heartbeat{0};
    std::chrono::nanoseconds without_report{0};
    std::chrono::nanoseconds disabled{0};  // for as long as its status PDO says so
  };

  Trouble LookAtNode(std::size_t node) const;
  Trouble LookAtWheels(std::size_t node, const std::vector<double>& target_rpm,
                       std::chrono::nanoseconds passed);

  Drives& drives_;
  std::vector<Silence> silences_;              // by node
  std::vector<std::chrono::nanoseconds> off_;  // by wheel: how long it has been off its target
};

}  // namespace motor_driver
