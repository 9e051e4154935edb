#include "wheels/troubles.h"

#include <fmt/format.h>

namespace motor_driver {

Trouble DriveErrorTrouble(const Drives& drives, std::size_t node, std::uint16_t code) {
  const Node& which = drives.nodes()[node];
  const auto text = drives.make().error_text;
  return {Fault::kDriveError, which.id,
          fmt::format("{} reports error 0x{:04X}{}: find its cause, then Clear()", which.name(),
                      code, text != nullptr ? " (" + text(drives.drive(), code) + ")" : "")};
}

Trouble NotEnabledTrouble(const Drives& drives, std::size_t node, std::uint16_t statusword) {
  const Node& which = drives.nodes()[node];
  return {Fault::kDriveError, which.id,
          fmt::format("{} is not enabled (statusword 0x{:04X}): is its power stage supplied and "
                      "released?",
                      which.name(), statusword)};
}

bool IsSupervisedReady(Drives& drives, std::size_t node) {
  return drives.make().supervise == nullptr ||
         drives.drive().GetDriverStatus(drives.nodes()[node].id) == DriverStatus::Ready;
}

Trouble SupervisionTrouble(Drives& drives, std::size_t node) {
  const Node& which = drives.nodes()[node];
  DriverCommon& drive = drives.drive();
  const DriverStatus status = drive.GetDriverStatus(which.id);
  switch (status) {
    case DriverStatus::Ready:
      return {};
    case DriverStatus::EmergencyStop:
      return {Fault::kEmergencyStop, which.id,
              which.name() + " is in emergency stop: release it, then Clear()"};
    case DriverStatus::BootUp:
      return {Fault::kNodeRestarted, which.id, which.name() + " restarted: look at its supply"};
    case DriverStatus::Fault: {
      const ErrorCodeInfo error = drive.GetErrorCode(which.id);
      return {Fault::kDriveError, which.id,
              fmt::format("{} is not ready: {} ({}): find the cause, then Clear()", which.name(),
                          error.msg, drive.GetDriverStatusDetails(which.id))};
    }
    case DriverStatus::Unknown:
      break;
  }
  return {Fault::kNodeSilent, which.id,
          which.name() + " does not report its state (TPDO4): was its set-up changed?"};
}

}  // namespace motor_driver
