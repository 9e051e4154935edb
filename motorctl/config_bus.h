// The drive of a configuration, on the bus.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "bus_tap.h"
#include "config_device.h"
#include "listener.h"

namespace motorctl {

class BusDevice : public ConfigDevice {
 public:
  // `interrupted`: asked before every object. Throws CommandFailed without the interface.
  BusDevice(const std::string& interface, int node, std::chrono::milliseconds timeout,
            std::function<bool()> interrupted);

  SdoAnswer Read(std::uint16_t index, std::uint8_t sub) override;
  SdoAnswer Write(std::uint16_t index, std::uint8_t sub, const Bytes& bytes) override;
  std::string Disturbance() override;
  bool booted_up() const override { return booted_up_; }

  // Storing takes a drive its time.
  SdoAnswer Store();

  // From now on another host is a disturbance: SDO requests that are not ours, of this machine,
  // too, and PDOs that the node receives, unless it is known not to be operational. Hears the
  // identifiers of its PDOs besides the usual ones.
  void RefuseOtherHosts();
  // A PDO that the node is to receive, too.
  void Watch(canid_t pdo);
  // Whether hosts on this machine are heard that do not hear themselves; see BusTap.
  bool hears_this_machine() const { return tap_.hears_sent(); }

 private:
  void Hear(const can_frame& frame);
  void HearHost(const BusFrame& frame);
  void HearPdo(canid_t id);
  void HearRequest();
  bool IsOurs(const BusFrame& frame);

  const std::string interface_;
  const int node_;
  const std::function<bool()> interrupted_;
  SdoClient client_;
  std::vector<std::unique_ptr<Listener>> listeners_;
  BusTap tap_;
  std::deque<can_frame> ours_;  // that were sent and have not been heard yet
  std::vector<canid_t> pdos_;
  bool refuses_others_ = false;
  bool booted_up_ = false;
  bool not_operational_ = false;  // as its last heartbeat tells
  std::string other_host_;
};

// Why nothing may be written to the drive: it is enabled, it moves, or it does not tell. Reads
// only, for `patience`; empty where nothing is against it.
std::string WhyNotNow(ConfigDevice& device, std::chrono::milliseconds patience);

}  // namespace motorctl
