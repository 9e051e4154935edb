#include "wheels/control.h"

#include <time.h>

#include <algorithm>

#include "base/blocked_signals.h"
#include "log/logger.h"
#include "wheels/realtime.h"

namespace motor_driver {
namespace {

using std::chrono::nanoseconds;

const char* NameOf(State state) {
  switch (state) {
    case State::kOff:
      return "off";
    case State::kBringUp:
      return "bring-up";
    case State::kReady:
      return "ready";
    case State::kRunning:
      return "running";
    case State::kStopping:
      return "stopping";
    case State::kFault:
      break;
  }
  return "fault";
}

// Who is gone cannot be led down a ramp, and in an emergency stop nobody wants one.
bool EndsMotionAtOnce(Fault fault) {
  switch (fault) {
    case Fault::kNoInterface:
    case Fault::kBusFailed:
    case Fault::kNodeSilent:
    case Fault::kNoFeedback:
    case Fault::kNodeRestarted:
    case Fault::kEmergencyStop:
      return true;
    default:
      return false;
  }
}

void SleepUntil(std::chrono::steady_clock::time_point time) {
  const auto since_boot = time.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_boot);
  timespec until = {};
  until.tv_sec = seconds.count();
  until.tv_nsec = nanoseconds(since_boot - seconds).count();
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
  }
}

}  // namespace

Control::Control(const Vehicle& vehicle)
    : vehicle_(vehicle),
      drives_(vehicle_),
      judge_(drives_),
      target_rpm_(vehicle_.wheels.size()),
      motor_rpm_(drives_.nodes().size()) {}

Control::~Control() {
  ending_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
}

void Control::Run() {
  const std::string refused = SetRealtimePriority(vehicle_.realtime_priority);
  if (!refused.empty()) {
    EnterFault({Fault::kNoRealtime, 0, refused}, State::kOff);
    return Finish(false);
  }
  auto next = Clock::now();
  while (!ending_) {
    if (asked_.exchange(false)) {
      Serve(TakeCall());
      if (CurrentState() == State::kOff) {
        break;
      }
      next = Clock::now();
    }
    const auto now = Clock::now();
    const auto late = std::chrono::duration_cast<std::chrono::microseconds>(now - next);
    Publish([late](Shared& shared) {
      ++shared.report.cycles;
      shared.report.latest_cycle = std::max(shared.report.latest_cycle, late);
    });
    Cycle(now);
    // A late cycle is not made up for: a burst of cycles would take a healthy drive for a silent
    // one.
    next = std::max(next + vehicle_.period, Clock::now());
    SleepUntil(next);
  }
  drives_.Close();
  if (released_ || CurrentState() == State::kOff) {
    notifier_.Over();
  }
}

Control::Job Control::TakeCall() {
  const std::lock_guard<std::mutex> lock(call_mutex_);
  stop_deadline_ = call_.deadline;
  return call_.job;
}

void Control::Cycle(Clock::time_point now) {
  const auto passed = std::min<nanoseconds>(now - last_cycle_, 2 * vehicle_.period);
  last_cycle_ = now;
  JudgeCycle(passed);
  Move(Goals(now));
  SendTargets();
  Settle();
  NotifyAlive();
}

// Not for a wheel that turns although nobody asks for it any more: then a guard is wanted.
void Control::NotifyAlive() {
  bool turns = false;
  for (const double rpm : target_rpm_) {
    turns = turns || rpm != 0;
  }
  bool stale = false;
  {
    const std::lock_guard<PriorityMutex> lock(shared_mutex_);
    stale = shared_.report.command_stale;
  }
  if (!turns || !stale) {
    notifier_.Alive(last_cycle_);
  }
}

void Control::JudgeCycle(nanoseconds passed) {
  const bool gone = judge_.Listen(passed);
  if (CurrentState() == State::kFault) {
    abrupt_ = abrupt_ || gone;
  } else if (Trouble trouble = judge_.Look(target_rpm_, passed)) {
    EnterFault(trouble);
  }
  // Whatever happened to the bus, wheels may still turn at the last speed commanded.
  if (drives_.BusFailed() && drives_.Recover()) {
    CORVEL_LOG_INFO("wheels: the bus {} is back", vehicle_.interface);
  }
}

void Control::SetState(State state) {
  State before = state;
  Publish([&](Shared& shared) {
    before = shared.report.state;
    shared.report.state = state_ = state;
    if (state != State::kReady && state != State::kRunning) {
      // What was wanted before is not wanted after.
      shared.has_command = false;
      shared.report.command_stale = false;
    }
  });
  if (before != state) {
    CORVEL_LOG_INFO("wheels: {}, was {}", NameOf(state), NameOf(before));
  }
}

void Control::EnterFault(const Trouble& trouble, State next) {
  Publish([&trouble](Shared& shared) {
    shared.report.fault = trouble.fault;
    shared.report.node = trouble.node;
    shared.report.reason = trouble.reason;
  });
  abrupt_ = EndsMotionAtOnce(trouble.fault);
  CORVEL_LOG_ERROR("wheels: {}", trouble.reason);
  SetState(next);
}

}  // namespace motor_driver
