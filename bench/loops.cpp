#include "loops.h"

#include <kinco_driver.h>
#include <tt_driver.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <thread>

#include "wakes.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint16_t kHeartbeatMs = 333;  // as Wheels sets it for a limit of 1000
constexpr std::uint32_t kHeartbeat = 0x700;
constexpr std::uint32_t kCommandPdo = 0x200;
constexpr unsigned long kCountsPerRevolution = 10000;
constexpr auto kReportLimit = milliseconds(250);
constexpr auto kFollowLimit = std::chrono::seconds(1);
constexpr auto kSettled = std::chrono::seconds(2);

std::unique_ptr<DriverCommon> Open(const std::string& make, const std::string& interface) {
  if (make == "tt") {
    return std::make_unique<TtDriver>(interface.c_str());
  }
  return std::make_unique<KincoDriver>(interface.c_str(), kCountsPerRevolution);
}

}  // namespace

motor_driver::Vehicle VehicleOf(const std::string& make, std::uint32_t wheels,
                                const std::string& interface) {
  motor_driver::Vehicle vehicle;
  vehicle.make = make;
  vehicle.interface = interface;
  vehicle.period = kControlPeriod;
  vehicle.counts_per_revolution = kCountsPerRevolution;
  for (std::uint32_t node = 1; node <= wheels; ++node) {
    motor_driver::Wheel& wheel = vehicle.wheels.emplace_back();
    wheel.name = "wheel " + std::to_string(node);
    wheel.node = static_cast<int>(node);
  }
  return vehicle;
}

WheelsLoop::WheelsLoop(const motor_driver::Vehicle& vehicle)
    : rpm_(vehicle.wheels.size(), kControlRpm), wheels_(vehicle) {
  if (!wheels_.BringUp()) {
    throw std::runtime_error("bring-up: " + wheels_.GetReport().reason);
  }
}

double WheelsLoop::Run(std::uint32_t cycles, milliseconds command_period, bool look) {
  const std::uint64_t before = wheels_.GetReport().cycles;
  const auto end = Clock::now() + cycles * kControlPeriod;
  for (auto next = Clock::now(); next < end;) {
    if (!wheels_.Command(rpm_.data(), rpm_.size())) {
      throw std::runtime_error("command refused: " + wheels_.GetReport().reason);
    }
    for (std::size_t wheel = 0; look && wheel < rpm_.size(); ++wheel) {
      wheels_.GetWheel(wheel);
    }
    next += command_period;
    std::this_thread::sleep_for(next - Clock::now());
  }
  return static_cast<double>(wheels_.GetReport().cycles - before);
}

HandLoop::HandLoop(const std::string& make, std::uint32_t nodes, const std::string& interface)
    : supervised_(make == "kinco"),
      nodes_(static_cast<std::uint8_t>(nodes)),
      decoded_(std::min<std::uint8_t>(nodes_, supervised_ ? 4 : 2)),
      drive_(Open(make, interface)) {
  for (std::uint8_t node = 1; node <= nodes_; ++node) {
    SetUp(node);
  }
  drive_->SetHeartbeatTimeOut(1);
  drive_->set_is_initialized(true);
  drive_->set_speed_command_enabled(true);
  if (supervised_) {
    static_cast<KincoDriver&>(*drive_).StartErrorParsingLoop();
  }
  std::this_thread::sleep_for(kSettled);
  drive_->ClearReadQueue();
  for (Heard& heard : heard_) {
    heard = {Clock::now(), Clock::now(), 0};
  }
}

HandLoop::~HandLoop() {
  for (std::uint8_t node = 1; node <= nodes_; ++node) {
    drive_->SetSpeed(node, 0);
  }
}

void HandLoop::SetUp(std::uint8_t node) {
  if (supervised_) {
    drive_->Init(node, kControlPeriod.count());
  }
  const bool active = drive_->ActiveNode(node);
  drive_->AddHeartbeatId(kHeartbeat + node);
  if (!active || drive_->EnableSpeedModeAndPdoMode(node, kControlPeriod.count()) != 0) {
    throw std::runtime_error("set-up by hand failed, node " + std::to_string(node));
  }
  drive_->SetHeartbeatPacket(node, kHeartbeatMs);
  if (!supervised_) {
    drive_->StartNode(node);
  }
}

double HandLoop::Run(std::uint32_t cycles) {
  auto next = Clock::now();
  for (std::uint32_t cycle = 0; cycle < cycles; ++cycle) {
    Cycle();
    next += kControlPeriod;
    SleepUntil(next);
  }
  return cycles;
}

void HandLoop::Cycle() {
  const auto now = Clock::now();
  for (std::uint8_t node = 1; node <= nodes_; ++node) {
    drive_->SetSpeed(node, kControlRpm);
  }
  std::uint8_t reporting = 0;
  double rpm = 0;
  int counts = 0;
  while (drive_->GetSpeed(reporting, rpm, counts)) {
    if (reporting >= 1 && reporting <= nodes_) {
      heard_[reporting].reported = now;
      heard_[reporting].rpm = rpm;
    }
    reporting = 0;
  }
  for (std::uint8_t node = 1; node <= nodes_; ++node) {
    if (node <= decoded_ && std::abs(heard_[node].rpm - kControlRpm) <= kControlRpm / 2.0) {
      heard_[node].followed = now;
    }
    Judge(node, now);
  }
  if (drive_->GetCanError() != 0) {
    throw std::runtime_error("by hand: the bus failed");
  }
}

void HandLoop::Judge(std::uint8_t node, Clock::time_point now) const {
  const Heard& heard = heard_[node];
  if (!drive_->IsNodeOnline(node) ||
      (supervised_ && drive_->GetDriverStatus(node) != DriverStatus::Ready) ||
      (node <= decoded_ &&
       (now - heard.reported > kReportLimit || now - heard.followed > kFollowLimit))) {
    throw std::runtime_error("by hand: node " + std::to_string(node) + " is not well");
  }
}

BareLoop::BareLoop(std::uint32_t nodes, const std::string& interface)
    : nodes_(nodes), reader_(interface, true) {}

double BareLoop::Run(std::uint32_t cycles) {
  auto next = Clock::now();
  can_frame frame = {};
  frame.can_dlc = 4;
  for (std::uint32_t cycle = 0; cycle < cycles; ++cycle) {
    for (std::uint32_t node = 1; node <= nodes_; ++node) {
      frame.can_id = kCommandPdo + node;
      reader_.Send(frame);
    }
    reader_.TakeAll();
    next += kControlPeriod;
    SleepUntil(next);
  }
  return cycles;
}
