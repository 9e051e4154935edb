#include "driver/kinco/status.h"

#include <fmt/format.h>

#include <algorithm>

#include "driver/canopen.h"
#include "driver/kinco/words.h"
#include "driver/little_endian.h"

namespace motor_driver::kinco {
namespace {

constexpr std::uint16_t kStatusIgnoredBit = 0x20;  // quick stop: set or not in the emergency state

}  // namespace

bool IsEmergencyStatus(std::uint16_t status) {
  return (status & ~kStatusIgnoredBit) == kStatusEmergency;
}

void StoreStatusPdo(const std::uint8_t* data, NodeState& state) {
  const std::uint16_t statusword = little_endian::Load16(data + 2);
  state.error_code = little_endian::Load16(data);
  state.status_low = statusword & 0xFF;
  state.status_high = static_cast<std::uint16_t>(statusword >> 8);
  state.inputs = little_endian::Load16(data + 4);
}

DriverStatus Summary(const NodeState& state) {
  if (state.heartbeat == cia301::kBootUp) {
    return DriverStatus::BootUp;
  }
  if (!state.has_status()) {
    return DriverStatus::Unknown;
  }
  if (state.HasError()) {
    return DriverStatus::Fault;
  }
  if (state.HasInput() || state.InEmergency()) {
    return DriverStatus::EmergencyStop;
  }
  return state.status_low == kStatusReady ? DriverStatus::Ready : DriverStatus::Fault;
}

std::string Details(const NodeState& state) {
  // Ends with a blank: deliberate, hosts append to it.
  return fmt::format(
      "heartbeat=0x{:04X} status_6041=0x{:04X} motor_status=0x{:04X} error_603F=0x{:04X} "
      "input_2010_0A=0x{:04X} ",
      state.heartbeat, state.status_low, state.status_high, state.error_code, state.inputs);
}

bool NodeTable::AnyEmergency() const {
  return std::any_of(nodes_.data(), nodes_.data() + end_,
                     [](const NodeState& state) { return state.InEmergency(); });
}

bool NodeTable::AnyInput() const {
  return std::any_of(nodes_.data(), nodes_.data() + end_,
                     [](const NodeState& state) { return state.HasInput(); });
}

}  // namespace motor_driver::kinco
