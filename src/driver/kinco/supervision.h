// What the supervision of Kinco drives listens on, and what it remembers of an emergency stop.
#pragma once

#include <driver_can.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace motor_driver::kinco {

enum class StatusFrame { kHeartbeat, kStatusPdo, kOther };

StatusFrame KindOf(std::uint32_t can_id);
std::uint8_t NodeOf(std::uint32_t can_id);

// A socket that hears heartbeats and status PDOs of every node, and has not heard any yet.
std::unique_ptr<DriverCan> OpenStatusSocket(const std::string& interface_name);

// As CanRecover(). No thread to be had is a failed recovery like any other: it must not end a
// process whose wheels may be turning.
bool Recover(DriverCan& can);

// In slices, so that stopping need not wait for the end of the pause.
void PauseWhile(const std::atomic<bool>& running, std::chrono::milliseconds pause);

// The time between the release of the last input and the reset of the drives.
class ResetTimer {
 public:
  enum class State { kStarted, kRunning, kOver };

  // Starts the timer when it is not; when it is over it runs anew.
  State Look(std::chrono::milliseconds wait);
  void Stop() { started_ = false; }

 private:
  std::atomic<bool> started_{false};
  std::atomic<std::chrono::steady_clock::time_point> start_{};
};

// Once for the whole process: deliberate, see the comment of the class. Atomic so that several
// objects do no worse than mix their values.
struct EmergencyStop {
  std::atomic<bool> entered{false};
  ResetTimer reset_timer;
};

extern EmergencyStop g_emergency_stop;

}  // namespace motor_driver::kinco
