#include "wheels/bring_up.h"

#include <fmt/format.h>

#include <algorithm>

#include "driver/canopen.h"

namespace motor_driver {
namespace {

using std::chrono::milliseconds;

// A drive that has not sent its boot-up message by then is asked all the same.
constexpr auto kBootTime = std::chrono::seconds(2);
constexpr auto kAnswerTime = std::chrono::seconds(5);
constexpr auto kPause = milliseconds(20);
// A frame that was lost is worth another attempt; a refusal is not.
constexpr int kAttempts = 3;
constexpr std::size_t kMostFailures = 200;

constexpr Object kHeartbeatTime = {cia301::kProducerHeartbeatTime, 0};
constexpr Object kEventTimer = {cia301::kTpdo1Communication, cia301::kPdoEventTimer};
constexpr Object kStatusword = {cia402::kStatusword, 0};

}  // namespace

BringUp::BringUp(Drives& drives, Surroundings& surroundings, bool& enabled)
    : drives_(drives),
      surroundings_(surroundings),
      previous_observer_(SetSdoObserver(this)),
      enabled_(enabled),
      boot_ups_(drives.nodes().size()),
      zeroed_boot_ups_(drives.nodes().size()),
      reset_(drives.nodes().size()) {}

BringUp::~BringUp() { SetSdoObserver(previous_observer_); }

Trouble BringUp::Run(const std::vector<bool>& concerned) {
  const Make& make = drives_.make();
  DriverCommon& drive = drives_.drive();
  const auto for_each = [&](const std::vector<bool>& nodes, const char* step, auto operation) {
    Trouble trouble;
    for (std::size_t node = 0; node < nodes.size() && !trouble; ++node) {
      if (nodes[node]) {
        trouble = surroundings_.Begin(Name(node) + ": " + step) ? (this->*operation)(node)
                                                                : Interrupted();
      }
    }
    return trouble;
  };

  const bool watchdog = drives_.vehicle().drive_watchdog.count() != 0;
  for (std::size_t node = 0; node < NodeCount(); ++node) {
    if (concerned[node]) {
      drives_.TakesCommands(node, false);
    } else if (watchdog) {
      EndWatchdog(node);
    }
  }
  Trouble trouble;
  if (make.must_be_woken) {
    trouble = for_each(concerned, "wake-up", &BringUp::Wake);
  }
  if (!trouble) {
    for (const Node& node : drives_.nodes()) {
      drive.AddHeartbeatId(cia301::kHeartbeat + node.id);
    }
    drive.SetHeartbeatTimeOut(
        std::chrono::duration<double>(drives_.vehicle().heartbeat_timeout).count());
  }
  if (!trouble && make.resets) {
    trouble = for_each(concerned, "reset", &BringUp::Reset);
  }
  if (!trouble) {
    const std::vector<bool> all(NodeCount(), true);
    trouble = for_each(all, "zero", &BringUp::ConfirmZero);
    if (!trouble && watchdog) {
      trouble = for_each(all, "watchdog", &BringUp::SetWatchdog);
    }
  }
  if (!trouble) {
    drives_.Supervise();
  }
  for (std::size_t node = 0; node < NodeCount() && !trouble; ++node) {
    if (concerned[node]) {
      trouble = surroundings_.Begin(Name(node) + ": set-up") ? Trouble() : Interrupted();
      if (!trouble && drives_.watch().Node(node).boot_ups != zeroed_boot_ups_[node]) {
        trouble = ConfirmZero(node);  // it restarted meanwhile
      }
      if (!trouble) {
        trouble = Activate(node);
      }
      if (!trouble) {
        trouble = SetUp(node);
      }
    }
  }
  if (trouble) {
    return trouble;
  }
  drive.set_is_initialized(true);
  drive.set_speed_command_enabled(true);
  return surroundings_.Begin("ready") ? AwaitReady() : Interrupted();
}

Trouble BringUp::Wake(std::size_t node) {
  drives_.SetWaking(true);
  bool woken = drives_.drive().ActiveNode(Id(node));
  if (!woken && !drives_.BusFailed()) {
    drives_.LeaveStopped(node);
    woken = drives_.drive().IsActived(Id(node));
  }
  drives_.drive().ClearCanFilterRules();
  drives_.SetWaking(false);
  if (Trouble bus = drives_.BusTrouble()) {
    return bus;
  }
  return woken ? Trouble() : Silent(node);
}

Trouble BringUp::Reset(std::size_t node) {
  boot_ups_[node] = drives_.watch().Node(node).boot_ups;
  reset_[node] = true;
  if (drives_.drive().ResetNode(Id(node))) {
    return {};
  }
  Trouble bus = drives_.BusTrouble();
  return bus ? bus : NothingSent();
}

// Drives keep what a crashed host commanded last, and would turn as soon as they are enabled.
Trouble BringUp::ConfirmZero(std::size_t node) {
  const auto begin = Clock::now();
  int refusals = 0;
  while (Clock::now() < begin + kAnswerTime) {
    if (surroundings_.Cancelled()) {
      return Interrupted();
    }
    if (Trouble bus = drives_.BusTrouble()) {
      return bus;
    }
    // A write that the drive answers just before it resets would prove nothing.
    const bool booted = drives_.watch().Node(node).boot_ups != boot_ups_[node];
    if (reset_[node] && !booted && Clock::now() < begin + kBootTime) {
      surroundings_.Wait(kPause);
      continue;
    }
    failures_.clear();
    zeroed_boot_ups_[node] = drives_.watch().Node(node).boot_ups;
    const auto& targets = drives_.make().targets;
    if (std::all_of(targets.begin(), targets.end(), [&](const Object& target) {
          return Write(node, drives_.make().target_command, target, 0);
        })) {
      return {};
    }
    if (last_.outcome == Outcome::kRefused && ++refusals == kAttempts) {
      return Refused(node, "zero target velocity is refused, so nothing was enabled");
    }
    if (last_.outcome == Outcome::kSilent && !drives_.TakesCommands(node)) {
      drives_.LeaveStopped(node);
    }
    surroundings_.Wait(kPause);
  }
  return Silent(node);
}

// Clears what error there is.
Trouble BringUp::Activate(std::size_t node) {
  const Make& make = drives_.make();
  drives_.watch().Forget(node, false);
  failures_.clear();
  enabled_ = true;
  if (make.starts_by_init) {
    drives_.drive().Init(Id(node), PeriodMs());
  }
  if (make.must_be_woken || drives_.drive().ActiveNode(Id(node))) {
    return {};
  }
  if (Trouble bus = drives_.BusTrouble()) {
    return bus;
  }
  if (last_.outcome == Outcome::kRefused || Answers(node)) {
    return Refused(node, "it cannot be cleared of its error");
  }
  return Silent(node);
}

Trouble BringUp::SetUp(std::size_t node) {
  const auto refused = [this] {
    return std::any_of(failures_.begin(), failures_.end(),
                       [](const SetUpFailure& failure) { return failure.abort_code.has_value(); });
  };
  enabled_ = true;
  int failures = 0;
  // It may be repeated as a whole.
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (surroundings_.Cancelled()) {
      return Interrupted();
    }
    // Once more: hardly anything but the answers to transfers is heard meanwhile, so that it may
    // have restarted unnoticed.
    if (Trouble trouble = ConfirmZero(node)) {
      return trouble;
    }
    failures_.clear();
    failures = drives_.drive().EnableSpeedModeAndPdoMode(Id(node), PeriodMs());
    if (failures == 0 || refused() || drives_.BusFailed()) {
      break;
    }
  }
  if (failures != 0) {
    Trouble bus = drives_.BusTrouble();
    if (bus || (!refused() && !Answers(node))) {
      return bus ? bus : Silent(node);
    }
    return Refused(node, fmt::format("{} writes of the set-up were not taken", failures));
  }
  if (Trouble trouble = SetTimes(node)) {
    return trouble;
  }
  drives_.TakesCommands(node, true);
  if (!drives_.make().starts_by_init) {
    drives_.drive().StartNode(Id(node));
  }
  return {};
}

// The times at which the node is to be heard.
Trouble BringUp::SetTimes(std::size_t node) {
  if (drives_.make().needs_event_timer) {
    bool taken = false;
    for (int attempt = 0; attempt < kAttempts && !taken; ++attempt) {
      taken = Write(node, cia301::kDownload2, kEventTimer, PeriodMs());
    }
    if (!taken) {
      return Refused(node, "it takes no event timer for its position reports");
    }
  }
  const auto heartbeat_ms =
      static_cast<std::uint16_t>(drives_.vehicle().heartbeat_timeout.count() / 3);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    // Read back: the set-ups write this object, too, and do not wait for the answer, which may be
    // taken for the one to this write.
    std::uint32_t value = 0;
    Write(node, cia301::kDownload2, kHeartbeatTime, heartbeat_ms);
    if (Read(node, kHeartbeatTime, value) && (value & 0xFFFF) == heartbeat_ms) {
      failures_.clear();
      return {};
    }
  }
  return Refused(node, "it takes no heartbeat time");
}

void BringUp::Finished(const SdoTransfer& transfer) {
  last_ = transfer;
  if (transfer.outcome != Outcome::kAccepted && transfer.command != cia301::kUpload &&
      failures_.size() < kMostFailures) {
    SetUpFailure failure;
    failure.node = static_cast<int>(transfer.can_id - cia301::kSdoRequest);
    failure.index = transfer.index;
    failure.sub_index = transfer.sub_index;
    failure.value = transfer.value;
    if (transfer.outcome == Outcome::kRefused) {
      failure.abort_code = transfer.answer;
    }
    failures_.push_back(failure);
  }
  surroundings_.Transferred();
}

bool BringUp::Write(std::size_t node, std::uint8_t command, const Object& object,
                    std::uint32_t value) {
  return drives_.drive().SdoWriteWithFeedback(SdoId(node), command, object.index, object.sub_index,
                                              value);
}

bool BringUp::Read(std::size_t node, const Object& object, std::uint32_t& value) {
  return drives_.drive().SdoWriteWithFeedbackData(SdoId(node), cia301::kUpload, object.index,
                                                  object.sub_index, 0, &value);
}

// A refusal is an answer, too.
bool BringUp::Answers(std::size_t node) {
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::uint32_t ignored = 0;
    if (Read(node, kStatusword, ignored) || last_.outcome == Outcome::kRefused) {
      return true;
    }
  }
  return false;
}

Trouble BringUp::Refused(std::size_t node, const std::string& what) const {
  std::string reason = Name(node) + ": " + what;
  if (!failures_.empty()) {
    const SetUpFailure& first = failures_.front();
    reason +=
        fmt::format("; 0x{:04X} sub {} = 0x{:X}: ", first.index, first.sub_index, first.value);
    reason += first.abort_code ? fmt::format("abort code 0x{:08X}", *first.abort_code)
                               : std::string("no answer");
  }
  return {Fault::kSetUpRefused, Id(node),
          reason + "; is it of make " + drives_.make().name + ", and is its firmware known?"};
}

Trouble BringUp::NothingSent() const {
  return {Fault::kBusFailed, 0,
          fmt::format("nothing can be sent on {}: is the interface up, and does anything on the "
                      "bus acknowledge?",
                      drives_.vehicle().interface)};
}

Trouble BringUp::Silent(std::size_t node) const {
  if (!drives_.Sent()) {
    return NothingSent();
  }
  return {Fault::kNodeSilent, Id(node),
          fmt::format("{} does not answer on {}: check its supply, node-ID and bit rate, and the "
                      "termination of the bus",
                      Name(node), drives_.vehicle().interface)};
}

Trouble BringUp::Interrupted() const { return {Fault::kInterrupted, 0, "interrupted"}; }

std::uint32_t BringUp::SdoId(std::size_t node) const { return cia301::kSdoRequest + Id(node); }

std::uint16_t BringUp::PeriodMs() const {
  return static_cast<std::uint16_t>(drives_.vehicle().period.count());
}

}  // namespace motor_driver
