#include "wheels/control.h"

#include <time.h>

#include <algorithm>
#include <cmath>

#include "driver/blocked_signals.h"
#include "log/logger.h"
#include "wheels/limiter.h"
#include "wheels/realtime.h"
#include "wheels/troubles.h"

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

// What the wheels shall do: the command as long as it is fresh, otherwise stand.
Control::Speeds Control::Goals(Clock::time_point now) {
  const std::lock_guard<PriorityMutex> lock(shared_mutex_);
  Report& report = shared_.report;
  const bool follows = report.state == State::kReady || report.state == State::kRunning;
  if (!follows || !shared_.has_command) {
    return {};
  }
  report.command_stale = now - shared_.commanded_at > vehicle_.command_timeout;
  return report.command_stale ? Speeds() : shared_.command;
}

void Control::Move(const Speeds& goals) {
  const State state = CurrentState();
  const bool fault = state == State::kFault;
  const double period_s = std::chrono::duration<double>(vehicle_.period).count();
  const double up = vehicle_.max_acceleration * period_s;
  const double down = (fault ? vehicle_.fault_deceleration : vehicle_.max_deceleration) * period_s;
  bool wanted = false;
  for (std::size_t wheel = 0; wheel < vehicle_.wheels.size(); ++wheel) {
    speeds_[wheel] = fault && abrupt_ ? 0 : Approach(speeds_[wheel], goals[wheel], up, down);
    wanted = wanted || goals[wheel] != 0;
  }
  if (state == State::kReady && wanted) {
    SetState(State::kRunning);
  }
  for (std::size_t node = 0; node < motor_rpm_.size(); ++node) {
    for (std::size_t motor = 0; motor < kMaxMotors; ++motor) {
      const std::optional<std::size_t>& number = drives_.nodes()[node].wheels[motor];
      if (number) {
        const Wheel& wheel = vehicle_.wheels[*number];
        // The classes take whole rpm.
        const double rpm = std::round(MotorRpmOf(wheel, speeds_[*number]));
        motor_rpm_[node][motor] = static_cast<int>(rpm);
        target_rpm_[*number] = WheelRpm(wheel, rpm);
      }
    }
  }
}

void Control::SendTargets() {
  for (std::size_t node = 0; node < drives_.nodes().size(); ++node) {
    // Somebody may have changed what PDOs the drive takes.
    const bool zeroed = CurrentState() == State::kFault && zero_since_;
    drives_.SetUnheeding(node, zeroed && !Stands(node));
  }
  drives_.Send(motor_rpm_);
  const bool zero =
      std::all_of(target_rpm_.begin(), target_rpm_.end(), [](double rpm) { return rpm == 0; });
  if (!zero || !drives_.Sent()) {
    zero_since_.reset();
  } else if (!zero_since_) {
    zero_since_ = Clock::now();
  }
  const std::lock_guard<PriorityMutex> lock(shared_mutex_);
  for (std::size_t wheel = 0; wheel < target_rpm_.size(); ++wheel) {
    shared_.target_rpm[wheel] = target_rpm_[wheel] + 0.0;  // no negative zero
    // A simulated make has done what it was told.
    shared_.revolutions[wheel] +=
        target_rpm_[wheel] * std::chrono::duration<double, std::ratio<60>>(vehicle_.period).count();
  }
}

// Ends a stop, and the way down to standstill.
void Control::Settle() {
  const State state = CurrentState();
  if (stopping_) {
    const bool standing = Standing();
    if (!standing && Clock::now() < stop_deadline_) {
      return;
    }
    stopping_ = false;
    if (state != State::kFault) {
      if (standing) {
        SetState(State::kReady);
      } else {
        EnterFault({Fault::kStopNotConfirmed, 0,
                    "THE STOP IS NOT CONFIRMED: zero is sent, but a wheel may still turn; secure "
                    "the vehicle"});
      }
    }
    return Finish(standing);
  }
  if (state != State::kRunning) {
    return;
  }
  const std::size_t wheels = vehicle_.wheels.size();
  bool wanted = false;
  {
    const std::lock_guard<PriorityMutex> lock(shared_mutex_);
    const Speeds& command = shared_.command;
    wanted = shared_.has_command && !shared_.report.command_stale &&
             std::any_of(command.begin(), command.begin() + static_cast<std::ptrdiff_t>(wheels),
                         [](double rpm) { return rpm != 0; });
  }
  if (!wanted && Standing()) {
    SetState(State::kReady);
  }
}

bool Control::Standing() const {
  if (!zero_since_) {
    return false;
  }
  for (std::size_t node = 0; node < drives_.nodes().size(); ++node) {
    if (!Stands(node)) {
      return false;
    }
  }
  return true;
}

bool Control::Stands(std::size_t node) const {
  for (std::size_t motor = 0; motor < kMaxMotors; ++motor) {
    if (drives_.nodes()[node].wheels[motor] && !drives_.make().simulated &&
        !drives_.watch().StandsSince(node, motor, *zero_since_)) {
      return false;
    }
  }
  return true;
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
