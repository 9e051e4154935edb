/// @file
/// The wheels of a vehicle: brought up, commanded, watched and stopped, whatever happens.
#pragma once

#include <vehicle.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace motor_driver {

/// What a vehicle is doing.
enum class State {
  kOff,       ///< nothing was enabled by this object
  kBringUp,   ///< BringUp() or Clear() is at work; zeros flow to what is enabled
  kReady,     ///< enabled, standing, zero commanded; takes commands
  kRunning,   ///< a command is being followed, or its end is: see Report::command_stale
  kStopping,  ///< Stop() is at work
  kFault      ///< zero is commanded whatever the host says, until Clear()
};

/// What went wrong; Report::reason says it in words.
enum class Fault {
  kNone,
  kNoInterface,       ///< no such CAN interface, or no SocketCAN
  kBusFailed,         ///< the interface is down or gone, or takes no frames
  kNodeSilent,        ///< no answer, or no heartbeat any more
  kSetUpRefused,      ///< a write of the set-up was not taken
  kNoFeedback,        ///< no position reports any more
  kNodeRestarted,     ///< a node is not operational any more
  kDriveError,        ///< a drive reports an error, or is not enabled
  kEmergencyStop,     ///< kinco: an emergency stop is pressed, or was and is not cleared
  kNotFollowing,      ///< a wheel does not turn as it is told
  kStopNotConfirmed,  ///< Stop() measured no standstill within its limit
  kInterrupted,       ///< `cancelled` ended the bring-up
  kNoRealtime         ///< the system refuses Vehicle::realtime_priority
};

/// One wheel, as it is now.
struct WheelReport {
  double target_rpm = 0;    ///< what was sent last
  double measured_rpm = 0;  ///< over the last 100 ms; right also when reports were lost or late
  double revolutions = 0;   ///< of the wheel since bring-up, signed, never wraps
  std::chrono::steady_clock::time_point measured_at;  ///< arrival of the latest position report
  std::uint32_t lost_reports = 0;                     ///< whole periods without one
  std::uint16_t error_code = 0;  ///< of the status PDO (0x603F); tt, amps: of the last emergency
};

/// The vehicle, as it is now.
struct Report {
  State state = State::kOff;   ///< when the report was made
  Fault fault = Fault::kNone;  ///< the first one, until Clear() or the next BringUp()
  int node = 0;                ///< that caused the fault; 0: none
  std::string reason;          ///< one sentence: what is wrong and what to do
  bool command_stale = false;  ///< the host did not command in time; no fault
  std::uint64_t cycles = 0;    ///< of the control thread
  std::chrono::microseconds latest_cycle{0};  ///< how late the control thread woke, worst so far
};

struct SetUpFailure;  // for programs that show every write that was not taken

/// The wheels of one vehicle. A wheel turns only while a living host asks for it: a command counts
/// for Vehicle::command_timeout, a fault of one node stops all, and only Clear() ends a fault.
///
/// BringUp(), then Command() at least every command_timeout, Stop() at the end. A control thread of
/// this object sends and judges once per Vehicle::period; it alone touches the bus, and nothing
/// that a person sees (terminal, log, pipe, held or full) holds it up. While an object of this
/// class exists, what the library writes to standard output and to its log is written by a thread
/// of its own; what cannot be written in time is dropped and counted there.
///
/// Threads: BringUp(), Stop() and Clear() are for one thread at a time; a second call waits, for
/// itself when it is made from `progress` or `cancelled`. Everything else may be called from any
/// thread at any time. Not for a forked child: it has no control thread. One object per CAN
/// interface and process.
class MOTOR_DRIVER_WHEELS_EXPORT Wheels {
 public:
  /// Checks the vehicle; throws VehicleError when it makes no sense or when another object of this
  /// process has the interface. Opens nothing, sends nothing.
  explicit Wheels(const Vehicle& vehicle);

  /// Stop() unless kOff, and ends the control thread. When the stop is not confirmed, one line in
  /// capitals on standard error says so. At most 3.5 s, and with drive_watchdog 0.3 s more for every
  /// node that does not answer. The drives stay enabled, at zero.
  ~Wheels();

  Wheels(const Wheels&) = delete;
  Wheels& operator=(const Wheels&) = delete;

  /// Everything up to kReady: opens the bus, wakes and resets the nodes, confirms zero target
  /// velocity in every node (0x60FF, amps: 0x2FF0 sub 9), clears faults, sets up PDOs, enables
  /// (0x6040), sets the heartbeat period (0x1017), starts the nodes and waits until each was seen
  /// operational, enabled, without error, reporting and standing. Nothing is enabled before zero
  /// was confirmed in every node.
  /// `progress` is called on this thread before each step ("node 2: set-up"), `cancelled` between
  /// steps: true ends with kInterrupted. An exception of either ends likewise and comes out.
  /// True: kReady. False: GetReport() tells why; the state is kOff when nothing was enabled, kFault
  /// with zeros flowing otherwise. In kReady true at once, sending nothing; in kRunning, kStopping
  /// and kFault false. Takes some 0.5 s per node and up to a third of heartbeat_timeout; at most
  /// 5 s more for each that does not answer.
  bool BringUp(const std::function<void(const std::string&)>& progress = {},
               const std::function<bool()>& cancelled = {});

  /// Wheel speeds in rpm, in the order of Vehicle::wheels, clamped to max_rpm; reached with
  /// max_acceleration and max_deceleration, rounded to whole rpm of the motor. `count` must be the
  /// number of wheels. NaN or infinity in one: zero for all, false, and the command counts as
  /// fresh. False, and nothing changes, with another count and outside kReady and kRunning.
  /// Any thread; never waits for the bus, allocates nothing.
  bool Command(const double* rpm, std::size_t count);

  /// The state now. Any thread; never waits for the bus.
  Report GetReport() const;

  /// Wheel number `wheel`, counted from 0 in the order of Vehicle::wheels; throws
  /// std::out_of_range. Any thread; never waits for the bus, allocates nothing.
  WheelReport GetWheel(std::size_t wheel) const;

  /// Ramps down and ends when every wheel was measured to stand still (less than 1 rpm of the motor
  /// over 200 ms); the nodes are left enabled at zero. True: kReady (kOff: nothing to stop). False:
  /// kFault with kStopNotConfirmed, zeros flow on. In kFault it only measures, and the first fault
  /// stays. At most `limit` and a period.
  bool Stop(std::chrono::milliseconds limit = std::chrono::seconds(3));

  /// After a fault: brings the bus and the nodes concerned back, at zero, and answers whether that
  /// ended in kReady; then the fault is forgotten, and so is the last command. After a failed
  /// BringUp() it does all of it again. True at once in kReady and kRunning. Longest time: as
  /// BringUp().
  bool Clear();

 private:
  class Impl;
  friend std::vector<SetUpFailure> SetUpFailures(const Wheels& wheels);
  std::unique_ptr<Impl> impl_;
};

}  // namespace motor_driver
