// The frame handler of DriverCommon: consumes the registered identifiers and no other, and keeps
// what the last heartbeat of each said.
#include <driver_common.h>

#include <array>
#include <map>
#include <optional>

#include "input.h"

namespace {

class Drive : public DriverCommon {
 public:
  Drive() : DriverCommon("absent") {}
  bool ActiveNode(std::uint8_t) override { return false; }
  std::uint16_t SetSpeedMode(std::uint8_t) override { return 0; }
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t, std::uint16_t) override { return 0; }
  bool CheckStatus(std::uint8_t) override { return false; }
  bool SaveAllParams(std::uint8_t) override { return false; }
  std::uint32_t GetNumberOfPulsesPerRevolution() override { return 0; }
  void HeartbeatCallback(HeartbeatTimeout& heartbeat) override {
    DriverCommon::HeartbeatCallback(heartbeat);
    last = heartbeat;
  }

  std::optional<HeartbeatTimeout> last;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzz::SilenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  fuzz::Input input(bytes, size);
  Drive drive;
  std::map<std::uint32_t, bool> heard;  // by registered identifier
  for (int count = input.Byte() % 8; count > 0; --count) {
    const std::uint32_t id = input.Number(4);
    drive.AddHeartbeatId(id);
    heard[id] = false;
  }
  drive.set_is_initialized(input.Byte() % 2 != 0);

  for (const CanFrame& frame : input.Frames()) {
    drive.last.reset();
    const auto known = heard.find(frame.can_id);
    fuzz::Require(drive.HandleCanFrame(frame) == (known != heard.end()), "consumed or not");
    fuzz::Require(drive.last.has_value() == (known != heard.end()), "called back or not");
    if (known != heard.end()) {
      known->second = true;
      fuzz::Require(drive.last->id == frame.can_id, "identifier of the heartbeat");
      fuzz::Require(drive.last->state == frame.data[0], "state of the heartbeat");
      fuzz::Require(drive.last->received && drive.last->heard, "marks of the heartbeat");
    }
  }
  for (unsigned node = 0; node < 8; ++node) {
    const auto known = heard.find(0x700 + node);
    const bool managed = known != heard.end();
    const auto id = static_cast<std::uint8_t>(node);
    fuzz::Require(drive.IsManagedNode(id) == managed, "managed or not");
    fuzz::Require(drive.IsNodeOnline(id) == (managed && known->second), "online or not");
  }
  return 0;
}
