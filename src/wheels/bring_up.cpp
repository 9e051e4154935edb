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

constexpr Object kHeartbeatTime = {cia301::kProducerHeartbeatTime, 0};
constexpr Object kEventTimer = {cia301::kTpdo1Communication, cia301::kPdoEventTimer};

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
  last_ = {};
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
  // The last thing that was asked is whether it is awake.
  if (!woken && last_.outcome == Outcome::kRefused) {
    return Refused(node, fmt::format("it refuses to tell whether it is awake (0x{:04X} sub {}, "
                                     "abort code 0x{:08X})",
                                     last_.index, last_.sub_index, last_.answer));
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
      reset_[node] = false;  // it answers: nothing is waited for the next time
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
  if (!WriteAndReadBack(node, cia301::kDownload2, kHeartbeatTime, heartbeat_ms)) {
    return Refused(node, "it takes no heartbeat time");
  }
  failures_.clear();
  return {};
}

}  // namespace motor_driver
