#include "wheels/drives.h"

#include <fmt/format.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "driver/canopen.h"

namespace motor_driver {
namespace {

constexpr auto kBetweenZeros = std::chrono::milliseconds(100);
constexpr auto kBetweenRecoveries = std::chrono::milliseconds(100);

// Values of DriverCan::GetCanError().
constexpr std::uint32_t kNoSocket = 1;
constexpr std::uint32_t kNoSuchInterface = 2;

// Asked before a recovery: one on an interface that is away only fills the log.
bool IsUp(const std::string& interface) {
  const int any = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (any < 0) {
    return true;  // unknown
  }
  ifreq request = {};
  std::copy_n(interface.data(), std::min(interface.size(), sizeof(request.ifr_name) - 1),
              request.ifr_name);
  const bool known = ::ioctl(any, SIOCGIFFLAGS, &request) == 0;
  ::close(any);
  return known && (request.ifr_flags & IFF_UP) != 0;
}

}  // namespace

Drives::Drives(const Vehicle& vehicle)
    : vehicle_(vehicle),
      make_(*FindMake(vehicle.make)),
      nodes_(NodesOf(vehicle)),
      commanded_(nodes_.size()),
      zeros_(nodes_.size(), MotorRpm{}),
      watch_(make_, nodes_, vehicle.period) {}

Drives::~Drives() = default;

Trouble Drives::Open() {
  drive_ = make_.create(vehicle_);
  watch_.SetCountsPerRevolution(drive_->GetNumberOfPulsesPerRevolution());
  if (make_.simulated) {
    return {};
  }
  // Of its own: the one of this object is gone before the drive object ends its receive thread.
  DriverCommon* const drive = drive_.get();
  drive->SetFrameHandler([this, drive](const CanFrame& frame) {
    if (waking_) {
      return false;
    }
    const bool heartbeat = drive->HandleCanFrame(frame);
    return watch_.Take(frame, heartbeat);
  });
  Trouble trouble = BusTrouble();
  if (trouble || vehicle_.texts.empty() || make_.supervise == nullptr) {
    return trouble;
  }
  try {
    if (drive_->LoadDriverConfig(vehicle_.texts)) {
      return {};
    }
  } catch (const std::logic_error&) {  // a code that is not a number: said below
  }
  return {Fault::kSetUpRefused, 0,
          vehicle_.texts + " cannot be loaded as texts of error codes: mend it or leave it out"};
}

bool Drives::AnyTakesCommands() const {
  return std::any_of(commanded_.begin(), commanded_.end(),
                     [](const Commanded& node) { return node.takes_commands; });
}

void Drives::Send(const std::vector<MotorRpm>& rpm) {
  if (!make_.simulated) {
    // Answers that nobody waits for.
    drive_->ClearReadQueue();
    if (BusFailed()) {
      return;
    }
  }
  SendHeartbeat();
  for (std::size_t node = 0; node < nodes_.size(); ++node) {
    if (commanded_[node].takes_commands) {
      make_.command(*drive_, nodes_[node].id, rpm[node]);
    }
    const Commanded& commanded = commanded_[node];
    if (!make_.simulated && (commanded.deaf || commanded.unheeding || !commanded.takes_commands)) {
      ZeroByObject(node);
    }
  }
}

void Drives::SendZeros() { Send(zeros_); }

void Drives::SendHeartbeat() {
  const auto now = Clock::now();
  if (!sends_heartbeat_ || now < next_heartbeat_) {
    return;
  }
  // A cycle early rather than one late.
  next_heartbeat_ = now + vehicle_.drive_watchdog / 4 - vehicle_.period / 2;
  const std::uint8_t operational[] = {cia301::kOperational};
  drive_->WriteData(cia301::kHeartbeat + kHostNode, operational, sizeof(operational));
}

void Drives::SendZerosMeanwhile() {
  SendHeartbeat();
  for (std::size_t node = 0; node < nodes_.size(); ++node) {
    if (commanded_[node].takes_commands && !BusFailed()) {
      make_.command(*drive_, nodes_[node].id, zeros_[node]);
    }
  }
}

void Drives::Supervise() {
  if (make_.supervise != nullptr && !supervised_) {
    supervised_ = true;
    make_.supervise(*drive_);
  }
}

void Drives::Close() {
  drive_.reset();
  supervised_ = false;
  sends_heartbeat_ = false;
  commanded_.assign(nodes_.size(), Commanded());
}

void Drives::ZeroByObject(std::size_t node) {
  const auto now = Clock::now();
  if (now < commanded_[node].zeroed + kBetweenZeros) {
    return;
  }
  commanded_[node].zeroed = now;
  if (watch_.Node(node).nmt_state == kStopped) {
    LeaveStopped(node);
  }
  for (const Object& target : make_.targets) {
    drive_->SdoWrite(cia301::kSdoRequest + nodes_[node].id, make_.target_command, target.index,
                     target.sub_index, 0);
  }
}

void Drives::LeaveStopped(std::size_t node) {
  const std::uint8_t command[] = {cia301::kEnterPreOperational, nodes_[node].id};
  drive_->WriteData(cia301::kNmt, command, sizeof(command));
}

bool Drives::Sent() const {
  return make_.simulated || (!BusFailed() && drive_->GetWriteErrorCount() == 0);
}

Trouble Drives::BusTrouble() const {
  const std::string& name = vehicle_.interface;
  switch (const std::uint32_t error = BusFailed() ? drive_->GetCanError() : 0) {
    case 0:
      return {};
    case kNoSocket:
      return {Fault::kNoInterface, 0,
              "no CAN socket can be opened: load SocketCAN (modprobe can-raw)"};
    case kNoSuchInterface:
      return {Fault::kNoInterface, 0,
              fmt::format("there is no CAN interface {}: see \"ip link\"", name)};
    default:
      return {Fault::kBusFailed, 0,
              fmt::format("the bus {} failed (error {}): is the interface up, and does anything "
                          "acknowledge? See \"ip -details link show {}\"",
                          name, error, name)};
  }
}

bool Drives::InterfaceUp() const { return make_.simulated || IsUp(vehicle_.interface); }

bool Drives::Recover() {
  const auto now = Clock::now();
  if (now < next_recovery_ || !InterfaceUp()) {
    return false;
  }
  next_recovery_ = now + kBetweenRecoveries;
  try {
    return drive_->CanRecover() && !BusFailed();
  } catch (const std::exception&) {
    return false;  // no thread to be had: the next attempt may find one
  }
}

}  // namespace motor_driver
