// The makes of drive: all in which they differ for a host. A further make is one more entry of the
// table in makes.cpp.
#pragma once

#include <driver_common.h>
#include <vehicle.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace motor_driver {

constexpr std::size_t kMaxMotors = 2;  // of one node
using MotorRpm = std::array<int, kMaxMotors>;

struct Object {
  std::uint16_t index;
  std::uint8_t sub_index;
};

// Where a PDO carries a value; `bits` 0: nowhere.
struct Field {
  std::uint32_t base_id = 0;  // 0x180 for TPDO1, 0x200 for RPDO1; the node-ID is added
  unsigned offset = 0;        // bytes
  unsigned bits = 0;          // of each motor; the motors follow each other
};

// An object of the maker's own, for programs that name objects.
struct NamedObject {
  enum class Shown { kUnsigned, kSigned, kHex };
  static constexpr int kEveryMotor = -1;

  std::uint16_t index = 0;
  int sub_index = 0;  // or kEveryMotor
  const char* name = "";
  Shown shown = Shown::kUnsigned;
};

struct NamedMode {
  std::int8_t mode = 0;
  const char* name = "";
};

struct Make {
  const char* name = "";   // as in Vehicle::make
  const char* title = "";  // as it is written in documents
  std::size_t motors = 1;  // of one node
  bool simulated = false;  // no bus: reports what it was commanded

  std::unique_ptr<DriverCommon> (*create)(const Vehicle& vehicle) = nullptr;

  // Hears nothing before ActiveNode, which enables nothing and must run before heartbeats are
  // registered: it looks for the boot-up message itself.
  bool must_be_woken = false;
  // ResetNode sends the NMT reset, so that a boot-up message follows.
  bool resets = true;
  // Init starts the node, and comes before ActiveNode; otherwise StartNode comes last.
  bool starts_by_init = false;
  // Starts a loop that watches the drives and leads them out of an emergency stop; GetDriverStatus
  // tells what it knows, and Vehicle::texts are its texts. Null: the make has none.
  void (*supervise)(DriverCommon& drive) = nullptr;
  // An error code in words, from Vehicle::texts; null: the make has none.
  std::string (*error_text)(const DriverCommon& drive, std::uint16_t code) = nullptr;
  // The set-up writes no event timer: it is written afterwards.
  bool needs_event_timer = false;
  // Vehicle::counts_per_revolution counts; otherwise the class knows the number, which is this.
  bool counts_are_configured = false;
  unsigned long counts_per_revolution = 0;  // of the motor

  // What the class takes for a speed, in rpm of the motor.
  double max_motor_rpm = 2147483647.0;
  // Commands every motor of a node.
  void (*command)(DriverCommon& drive, std::uint8_t node, const MotorRpm& rpm) = nullptr;

  // Objects that store target velocities, written with `target_command`, and those that hold
  // positions and actual velocities, one of each motor.
  std::uint8_t target_command = 0x23;
  std::vector<Object> targets;
  std::vector<Object> positions;
  std::vector<Object> velocities;
  // Units of `velocities` and of target velocities per rpm; kinco: per rpm and count per revolution.
  double velocity_units_per_rpm = 1.0;

  // Others that a node of this make must have.
  std::vector<Object> expected;

  Field target;
  Field position;
  int direction = 1;  // -1: positions count against the commanded speed
  Field statusword;
  Field error_code;
  Field inputs;

  // How a drive shows a pressed emergency stop in its statusword; mask 0: not at all.
  std::uint16_t emergency_stop_mask = 0;
  std::uint16_t emergency_stop = 0;

  // The two bytes that wake it, sent with the node-ID as identifier; 0: none.
  std::uint16_t wake_up = 0;
  // Node-ID 0 is one of its own: SDO and PDOs are served there, too.
  bool serves_node_zero = false;

  std::vector<NamedMode> modes;
  std::vector<NamedObject> objects;
  // Those whose first digit is 2 and the axis, added.
  std::vector<NamedObject> axis_parameters;
};

// Of the motor; `configured` is Vehicle::counts_per_revolution.
inline unsigned long CountsPerRevolution(const Make& make, unsigned long configured) {
  return make.counts_are_configured ? configured : make.counts_per_revolution;
}

// Of a velocity as the drive takes and tells it.
inline double UnitsPerRpm(const Make& make, unsigned long configured) {
  return make.velocity_units_per_rpm *
         (make.counts_are_configured ? static_cast<double>(configured) : 1.0);
}

// In the order in which documents name them.
MOTOR_DRIVER_WHEELS_EXPORT const std::vector<Make>& Makes();

// nullptr when there is none of this name.
MOTOR_DRIVER_WHEELS_EXPORT const Make* FindMake(const std::string& name);

// "zl, tt, hls, amps, kinco or fake"
MOTOR_DRIVER_WHEELS_EXPORT std::string MakeNames();

// Whether the name is that of an interface that Linux takes and a shell leaves alone.
MOTOR_DRIVER_WHEELS_EXPORT bool IsInterfaceName(const std::string& name);

}  // namespace motor_driver
