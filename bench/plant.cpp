#include "plant.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <thread>

#include "network.h"

Plant::Plant(std::string interface, const std::string& far_interface, int nodes, unsigned seed)
    : interface_(std::move(interface)), random_(seed) {
  for (int node = 1; node <= nodes; ++node) {
    sim::SimulatedDrive::Options drive;
    drive.interface = far_interface;
    drive.make = "kinco";
    drive.node_id = static_cast<std::uint8_t>(node);
    drives_.push_back(std::make_unique<sim::SimulatedDrive>(drive));
  }
}

int Plant::Turning(int rpm) {
  return static_cast<int>(std::count_if(drives_.begin(), drives_.end(), [rpm](const auto& drive) {
    return std::abs(drive->SpeedRpm() - rpm) < 1;
  }));
}

void Plant::Last() { std::this_thread::sleep_for(std::chrono::milliseconds(Random(200, 1500))); }

void Plant::Break() {
  sim::SimulatedDrive& drive =
      *drives_[static_cast<std::size_t>(Random(0, static_cast<int>(drives_.size()) - 1))];
  switch (Random(0, 8)) {
    case 0:
      ++faults_["power cut"];
      drive.PowerCut();
      Last();
      drive.PowerOn();
      break;
    case 1:
      ++faults_["drive error"];
      drive.LatchError(0x7380);
      Last();
      break;
    case 2:
      ++faults_["emergency stop"];
      drive.PressEmergencyStop();
      Last();
      drive.ReleaseEmergencyStop();
      break;
    case 3:
      ++faults_["wrong SDO answers"];
      Misbehave(drive);
      break;
    case 4:
      ++faults_["no heartbeats"];
      drive.Inject("no-heartbeat-after-ms=0");
      Last();
      drive.ClearFaults();
      break;
    case 5:
      ++faults_["frames lost"];
      Disturb("loss 10%");
      break;
    case 6:
      ++faults_["frames doubled, late, out of order"];
      Disturb("delay 10ms 5ms duplicate 20%");
      break;
    case 7:
      ++faults_["transmit queue full"];
      Disturb("limit 1 delay 10s");
      break;
    default:
      ++faults_["interface down"];
      RunCommand({"ip", "link", "set", interface_, "down"});
      Last();
      RunCommand({"ip", "link", "set", interface_, "up"});
      break;
  }
}

// In a set-up that it has to go through again.
void Plant::Misbehave(sim::SimulatedDrive& drive) {
  constexpr std::array<const char*, 6> kWays = {"abort-write=3",        "ignore-write=2",
                                                "delay-replies-ms=150", "duplicate-replies",
                                                "truncate-replies=5",   "wrong-index"};
  drive.PowerCut();
  drive.Inject(kWays[static_cast<std::size_t>(Random(0, static_cast<int>(kWays.size()) - 1))]);
  drive.PowerOn();
  Last();
  drive.ClearFaults();
}

void Plant::Disturb(const std::string& discipline) {
  std::vector<std::string> command = {"tc", "qdisc", "replace", "dev", interface_, "root", "netem"};
  for (std::size_t begin = 0; begin < discipline.size();) {
    const std::size_t end = std::min(discipline.find(' ', begin), discipline.size());
    command.push_back(discipline.substr(begin, end - begin));
    begin = end + 1;
  }
  RunCommand(command);
  Last();
  RunCommand({"tc", "qdisc", "del", "dev", interface_, "root"});
}
