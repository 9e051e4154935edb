// The two parsers of KincoDriver, and the state that they leave behind.
#include <kinco_driver.h>

#include <array>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "input.h"

namespace {

constexpr std::uint8_t kNodes = 128;

// What a node last said, if anything.
struct Known {
  std::optional<std::uint8_t> heartbeat;
  std::optional<CanFrame> status;
};

DriverStatus StatusOf(const Known& node) {
  if (node.heartbeat == 0) {
    return DriverStatus::BootUp;
  }
  if (!node.status) {
    return DriverStatus::Unknown;
  }
  const std::uint8_t* data = node.status->data;
  if (fuzz::Load(data, 2) != 0) {
    return DriverStatus::Fault;
  }
  if (fuzz::Load(data + 4, 2) != 0 || data[2] == 0x50 || data[2] == 0x70) {
    return DriverStatus::EmergencyStop;
  }
  return data[2] == 0x37 ? DriverStatus::Ready : DriverStatus::Fault;
}

std::string DetailsOf(const Known& node) {
  const auto value = [&](int offset, int bytes) {
    return node.status ? fuzz::Load(node.status->data + offset, bytes) : 0xFFFF;
  };
  char text[160];
  std::snprintf(text, sizeof(text),
                "heartbeat=0x%04X status_6041=0x%04X motor_status=0x%04X error_603F=0x%04X "
                "input_2010_0A=0x%04X ",
                node.heartbeat ? *node.heartbeat : 0xFFFFU, value(2, 1), value(3, 1), value(0, 2),
                value(4, 2));
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  KincoDriver drive("absent", 10000);
  std::array<bool, kNodes> managed = {};
  for (int count = input.Byte() % 8; count > 0; --count) {
    const std::uint8_t node = input.Byte() % kNodes;
    drive.AddHeartbeatId(0x700U + node);
    managed[node] = true;
  }

  std::array<Known, kNodes> known;
  for (const CanFrame& frame : input.Frames()) {
    // In a block of exactly its length, so that reading beyond it shows.
    const auto data = std::make_unique<std::uint8_t[]>(frame.len);
    std::copy_n(frame.data, frame.len, data.get());
    const std::uint8_t node = frame.can_id % kNodes;
    // Bit 7 of the identifier distinguishes no parser's function code from the other's.
    if ((frame.can_id & 0x80) != 0) {
      drive.ParseTpdo3Frame(frame.can_id, data.get(), frame.len);
      if (managed[node] && frame.len >= 6) {
        known[node].status = frame;
      }
    } else {
      drive.ParseHeartBeatFrame(frame.can_id, data.get(), frame.len);
      if (managed[node] && frame.len >= 1) {
        known[node].heartbeat = frame.data[0];
      }
    }
  }
  for (std::uint8_t node = 0; node < kNodes; ++node) {
    fuzz::Require(drive.GetDriverStatus(node) == StatusOf(known[node]), "status");
    if (managed[node]) {
      fuzz::Require(drive.GetDriverStatusDetails(node) == DetailsOf(known[node]), "details");
      fuzz::Require(drive.GetErrorCode(node).msg == "unknown", "text without a file");
    }
  }
  return 0;
}
