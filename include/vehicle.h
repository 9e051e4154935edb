/// @file
/// What a vehicle consists of: its make of drive, its bus, its wheels, and how they may move.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

/// Marks what the shared library exports.
#if defined(__GNUC__)
#define MOTOR_DRIVER_WHEELS_EXPORT __attribute__((visibility("default")))
#else
#define MOTOR_DRIVER_WHEELS_EXPORT
#endif

namespace motor_driver {

/// One wheel and the motor that turns it.
struct Wheel {
  std::string name;         ///< unique, not empty, can be printed: "left"
  int node = 1;             ///< node-ID, 1 to 127, with every make
  int motor = 1;            ///< 2: second motor of the node (zl)
  bool mirrored = false;    ///< forward of the vehicle is backward of this motor
  double gear_ratio = 1.0;  ///< motor revolutions per revolution of the wheel, above 0
};

/// A vehicle. Speeds are those of the wheel. What is allowed is checked by the constructor of
/// Wheels and by LoadVehicle().
struct Vehicle {
  std::string make;                ///< "zl", "fake"; the error about an unknown make lists all
  std::string interface = "can0";  ///< CAN interface, 1 to 15 characters; fake: opens none
  std::vector<Wheel> wheels;       ///< 1 to 8
  std::chrono::milliseconds period{10};               ///< of control and feedback, 2 to 255
  std::chrono::milliseconds command_timeout{100};     ///< at least 2 periods
  std::chrono::milliseconds feedback_timeout{250};    ///< at least 2 periods
  std::chrono::milliseconds heartbeat_timeout{1000};  ///< 300 to 30000; the nodes send every third
  /// 0, or 10 periods to 65535: the drives stop by themselves when they have not heard this host's
  /// heartbeat (0x77F) for this long (0x1016, 0x6007).
  std::chrono::milliseconds drive_watchdog{0};
  double fault_deceleration = 600.0;  ///< rpm per second, after a fault
  double max_rpm = 100.0;             ///< above 0
  double max_acceleration = 120.0;    ///< rpm per second, towards higher speed
  double max_deceleration = 240.0;    ///< rpm per second, towards zero; after a stale command, too
  unsigned long counts_per_revolution = 10000;  ///< of the motor; only kinco uses it
  std::string texts;          ///< kinco: YAML file with the texts of error codes, may be empty
  int realtime_priority = 0;  ///< 1 to 99: SCHED_FIFO for all that carries motion; 0: as the caller
};

/// The vehicle makes no sense, or its file cannot be read. One line that says what is allowed.
class MOTOR_DRIVER_WHEELS_EXPORT VehicleError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Reads a vehicle from a YAML file whose keys are the names above; times are `period_ms`,
/// `command_timeout_ms` and so on. Keys that are left out keep their default, unknown ones are
/// errors. `texts` is relative to the file. Throws VehicleError "FILE:LINE:COLUMN: KEY: what is
/// wrong, what is allowed"; "FILE: ..." when it cannot be read. Blocks as reading a file does.
MOTOR_DRIVER_WHEELS_EXPORT Vehicle LoadVehicle(const std::string& path);

}  // namespace motor_driver
