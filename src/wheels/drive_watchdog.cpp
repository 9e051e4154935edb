// The drives watch this host: without its heartbeat they stop by themselves (CiA 301 heartbeat
// consumer, CiA 402 abort connection option).
#include <fmt/format.h>

#include "driver/canopen.h"
#include "wheels/bring_up.h"

namespace motor_driver {
namespace {

constexpr int kAttempts = 3;

constexpr Object kConsumerHeartbeatTime = {0x1016, 1};
constexpr Object kAbortConnectionOption = {0x6007, 0};

constexpr std::uint32_t kDisableVoltage = 2;
constexpr std::uint32_t kQuickStop = 3;

}  // namespace

// Nothing is watched before the first heartbeat, so that this can be written long before.
Trouble BringUp::SetWatchdog(std::size_t node) {
  const auto time_ms = static_cast<std::uint32_t>(drives_.vehicle().drive_watchdog.count());
  const std::uint32_t producer = std::uint32_t{kHostNode} << 16;
  failures_.clear();
  const bool taken =
      WriteAndReadBack(node, cia301::kDownload4, kConsumerHeartbeatTime, producer | time_ms) &&
      (WriteAndReadBack(node, cia301::kDownload2, kAbortConnectionOption, kQuickStop) ||
       WriteAndReadBack(node, cia301::kDownload2, kAbortConnectionOption, kDisableVoltage));
  if (taken) {
    failures_.clear();
    return {};
  }
  if (drives_.BusFailed()) {
    return drives_.BusTrouble();
  }
  return Refused(node, "it cannot watch this host, drive_watchdog 0 drives without");
}

// The transfers of a bring-up take longer than a drive would wait for a heartbeat.
void BringUp::EndWatchdog(std::size_t node) {
  drives_.SendsHeartbeat(false);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (Write(node, cia301::kDownload4, kConsumerHeartbeatTime, 0)) {
      return;
    }
  }
}

}  // namespace motor_driver
