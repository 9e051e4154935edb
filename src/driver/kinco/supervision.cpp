#include "driver/kinco/supervision.h"

#include <system_error>
#include <thread>

#include "driver/canopen.h"

namespace motor_driver::kinco {

// NOLINTNEXTLINE(cert-err58-cpp): a point in time is a number, it does not throw
EmergencyStop g_emergency_stop;

namespace {

constexpr std::uint32_t kFunctionMask = 0x780;
constexpr std::uint32_t kNodeMask = 0x7F;

constexpr auto kPauseSlice = std::chrono::milliseconds(5);

}  // namespace

StatusFrame KindOf(std::uint32_t can_id) {
  switch (can_id & kFunctionMask) {
    case cia301::kHeartbeat:
      return StatusFrame::kHeartbeat;
    case cia301::kTpdo4:
      return StatusFrame::kStatusPdo;
    default:
      return StatusFrame::kOther;
  }
}

std::uint8_t NodeOf(std::uint32_t can_id) { return static_cast<std::uint8_t>(can_id & kNodeMask); }

std::unique_ptr<DriverCan> OpenStatusSocket(const std::string& interface_name) {
  auto can = std::make_unique<DriverCan>(interface_name.c_str());
  const std::uint32_t filters[] = {cia301::kTpdo4, kFunctionMask, cia301::kHeartbeat,
                                   kFunctionMask};
  can->CanFiltersConfig(filters, sizeof(filters));
  can->ClearReadQueue();
  return can;
}

bool Recover(DriverCan& can) {
  try {
    return can.CanRecover();
  } catch (const std::system_error&) {
    return false;
  }
}

void PauseWhile(const std::atomic<bool>& running, std::chrono::milliseconds pause) {
  const auto end = std::chrono::steady_clock::now() + pause;
  while (running && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kPauseSlice);
  }
}

ResetTimer::State ResetTimer::Look(std::chrono::milliseconds wait) {
  const auto now = std::chrono::steady_clock::now();
  if (!started_) {
    started_ = true;
    start_ = now;
    return State::kStarted;
  }
  if (wait > std::chrono::duration_cast<std::chrono::milliseconds>(now - start_.load())) {
    return State::kRunning;
  }
  start_ = now;
  return State::kOver;
}

}  // namespace motor_driver::kinco
