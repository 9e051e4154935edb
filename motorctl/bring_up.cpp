#include "bring_up.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <regex>
#include <string>
#include <thread>

#include "listener.h"
#include "sdo_client.h"
#include "words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint32_t kSdoResponse = 0x580;
constexpr std::uint32_t kHeartbeat = 0x700;
constexpr std::uint16_t kProducerHeartbeatTime = 0x1017;
constexpr std::uint32_t kHeartbeatPeriodMs = 2000;
constexpr double kHeartbeatTimeoutSeconds = 5;
constexpr std::uint8_t kAbort = 0x80;

// A drive that has not sent its boot-up message by then is asked all the same.
constexpr auto kBootTime = std::chrono::seconds(2);
constexpr auto kAnswerTime = std::chrono::seconds(3);
constexpr auto kPause = std::chrono::milliseconds(20);

// The library only counts the writes that fail. A refusal is heard on the bus, and what was not
// answered is in the library's log.
class FailureWatch {
 public:
  FailureWatch(const std::string& interface, std::uint8_t node)
      : response_id_(kSdoResponse + node), listener_(interface, response_id_) {
    LibraryOutput::Take();
  }

  std::vector<FailedWrite> Take(bool verbose) {
    std::vector<FailedWrite> failures;
    HeardFrame heard;
    while (listener_.Hear(heard, std::chrono::milliseconds(0))) {
      if (heard.frame.data[0] != kAbort) continue;
      failures.push_back({static_cast<std::uint16_t>(Load(heard.frame, 1, 2)), heard.frame.data[3],
                          Load(heard.frame, 4, 4)});
    }
    const std::string text = LibraryOutput::Take();
    if (verbose) std::fputs(text.c_str(), stderr);
    // Some of the set-ups' own texts have no line break: a log line may follow one.
    static const std::regex silence(
        "SDO response timeout, can_id: 0x([0-9A-F]+), index: 0x([0-9A-F]+), sub: 0x([0-9A-F]+)");
    for (std::sregex_iterator line(text.begin(), text.end(), silence), end; line != end; ++line) {
      const auto number = [&line](std::size_t group) {
        return std::stoul((*line)[group], nullptr, 16);
      };
      if (number(1) == response_id_) {
        failures.push_back({static_cast<std::uint16_t>(number(2)),
                            static_cast<std::uint8_t>(number(3)), std::nullopt});
      }
    }
    return failures;
  }

 private:
  std::uint32_t response_id_;
  Listener listener_;
};

}  // namespace

Drive::Drive(const Context& context, const Make& make, int node, int period_ms)
    : context_(context),
      make_(make),
      node_(static_cast<std::uint8_t>(node)),
      period_ms_(period_ms),
      driver_(make.create(context.interface.c_str(), context.counts_per_revolution)) {
  if (make_.motors > 0) CheckBus(*driver_, context_);
}

std::string Drive::Name() const { return "node " + std::to_string(node_); }

BringUpResult Drive::BringUp(const std::function<bool()>& interrupted) {
  BringUpResult result;
  // Before the heartbeat is registered: from then on the boot-up message that tells success would
  // be consumed as a heartbeat.
  if (make_.must_be_woken) {
    const bool woken = driver_->ActiveNode(node_);
    driver_->ClearCanFilterRules();
    if (!woken) {
      result.failure = Name() +
                       " does not wake up: check its supply, node number and bit rate, and "
                       "the termination of the bus";
      return result;
    }
  }
  const std::uint32_t heartbeat = kHeartbeat + node_;
  driver_->AddHeartbeatCallback(heartbeat, [this](HeartbeatTimeout& record) {
    driver_->HeartbeatCallback(record);
    nmt_state_ = record.state;
  });
  driver_->SetHeartbeatTimeOut(kHeartbeatTimeoutSeconds);
  if (!driver_->ResetNode(node_)) {
    result.failure = "cannot send on " + context_.interface + ": see motorctl doctor";
    return result;
  }
  if (!WaitForAnswer(interrupted, result.failure)) return result;

  if (!make_.must_be_woken && !driver_->ActiveNode(node_)) {
    result.failure = Name() + " cannot be cleared of its fault";
    return result;
  }
  if (interrupted()) {
    result.failure = "interrupted before " + Name() + " was enabled";
    return result;
  }
  nmt_state_ = kNotHeard;
  result.enabled = true;
  const int failures = SetUp(interrupted, result.failed_writes);
  if (failures != 0) {
    result.failure = std::to_string(failures) + " of the writes of the set-up failed on " + Name();
    return result;
  }
  // Not every make's set-up asks for one.
  if (make_.motors > 0) {
    const SdoAnswer answer =
        WriteObject(*driver_, node_, kProducerHeartbeatTime, 0, kHeartbeatPeriodMs, 2, kAttempts);
    if (!answer.ok()) {
      result.failure = Name() + " takes no heartbeat period: " + Explanation(answer);
      return result;
    }
  }
  make_.start(*driver_, node_, static_cast<std::uint16_t>(period_ms_));
  driver_->set_is_initialized(true);
  result.done = true;
  return result;
}

// The set-up may be repeated as a whole: worth it where frames were lost, not where the drive
// refuses.
int Drive::SetUp(const std::function<bool()>& interrupted, std::vector<FailedWrite>& failed) {
  const auto period = static_cast<std::uint16_t>(period_ms_);
  if (make_.motors == 0) return driver_->EnableSpeedModeAndPdoMode(node_, period);
  int failures = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    FailureWatch watch(context_.interface, node_);
    failures = driver_->EnableSpeedModeAndPdoMode(node_, period);
    failed = watch.Take(context_.verbose);
    const bool refused = std::any_of(failed.begin(), failed.end(), [](const FailedWrite& write) {
      return write.abort_code.has_value();
    });
    if (failures == 0 || refused || interrupted()) break;
  }
  return failures;
}

// Also zeroes the target velocities: the drive keeps what a crashed host commanded last, and would
// turn its wheels as soon as it is enabled.
bool Drive::WaitForAnswer(const std::function<bool()>& interrupted, std::string& failure) {
  const auto reset = Clock::now();
  do {
    if (interrupted()) {
      failure = "interrupted before " + Name() + " was enabled";
      return false;
    }
    // A write that the drive answers just before it resets would prove nothing.
    if (make_.resets && nmt_state_ == kNotHeard && Clock::now() < reset + kBootTime) {
      std::this_thread::sleep_for(kPause);
      continue;
    }
    if (ZeroTargetVelocities(failure)) return true;
    std::this_thread::sleep_for(kPause);
  } while (Clock::now() < reset + kAnswerTime);
  return false;
}

bool Drive::ZeroTargetVelocities(std::string& failure) {
  for (const Object& target : make_.targets) {
    const unsigned size = make_.target_command == 0x2B ? 2 : 4;
    const SdoAnswer answer = WriteObject(*driver_, node_, target.index, target.sub_index, 0, size);
    if (!answer.ok()) {
      failure = Name() + ", zero to " + NameObject(target.index, target.sub_index) + ": " +
                Explanation(answer);
      return false;
    }
  }
  return true;
}

std::string Describe(const FailedWrite& failed) {
  SdoAnswer answer;
  if (failed.abort_code) {
    answer.kind = SdoAnswer::Kind::kAborted;
    answer.value = *failed.abort_code;
  }
  return NameObject(failed.index, failed.sub_index) + ": " + Explanation(answer);
}

}  // namespace motorctl
