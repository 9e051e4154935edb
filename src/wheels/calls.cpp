// What a host asks of the control thread and waits for: bring-up, stop, the end of a fault.
#include <algorithm>
#include <exception>

#include "base/blocked_signals.h"
#include "wheels/control.h"
#include "wheels/troubles.h"

namespace motor_driver {
namespace {

using std::chrono::milliseconds;

constexpr auto kRecoveryTime = std::chrono::seconds(1);
constexpr auto kPause = milliseconds(20);
// Any longer one is as good, and overflows no clock.
constexpr milliseconds kLongestStop = std::chrono::hours(24);
// How often a host is asked whether it has enough.
constexpr auto kBetweenQuestions = milliseconds(20);

}  // namespace

// --- The host's side ---------------------------------------------------------------------------

bool Control::BringUp(const Progress& progress, const IsCancelled& cancelled) {
  const State state = CurrentState();
  if (state != State::kOff) {
    return state == State::kReady;
  }
  if (thread_.joinable()) {
    thread_.join();  // of a bring-up that ended in kOff
  }
  return Ask(Job::kBringUp, milliseconds(0), progress, cancelled);
}

bool Control::Clear() {
  switch (CurrentState()) {
    case State::kReady:
    case State::kRunning:
      return true;
    case State::kFault:
      return Ask(Job::kClear, milliseconds(0), {}, {});
    case State::kOff:
      return GetReport().fault != Fault::kNone && BringUp({}, {});
    default:
      return false;
  }
}

bool Control::Stop(milliseconds limit) {
  return CurrentState() == State::kOff ||
         Ask(Job::kStop, std::clamp(limit, milliseconds(0), kLongestStop), {}, {});
}

void Control::Release() {
  if (CurrentState() != State::kOff) {
    Ask(Job::kRelease, milliseconds(0), {}, {});
  }
}

bool Control::Ask(Job job, milliseconds limit, const Progress& progress,
                  const IsCancelled& cancelled) {
  std::unique_lock<std::mutex> lock(call_mutex_);
  call_ = {};
  call_.job = job;
  call_.deadline = Clock::now() + limit;
  cancelled_ = false;
  asked_ = true;
  if (!thread_.joinable()) {
    const BlockedSignals inherited_by_the_thread;
    thread_ = std::thread([this] { Run(); });
  }
  std::exception_ptr thrown;
  while (!call_.done) {
    call_changed_.wait_for(lock, kBetweenQuestions);
    if (!call_.done && (job == Job::kBringUp || job == Job::kClear)) {
      // The classes take seconds to wake a drive; no wheel follows a command meanwhile.
      caller_notifier_.Alive(Clock::now());
    }
    const std::optional<std::string> step = call_.step;
    lock.unlock();
    try {
      if (step && progress && !cancelled_) {
        progress(*step);
      }
      if (cancelled && !cancelled_ && cancelled()) {
        cancelled_ = true;
      }
    } catch (...) {
      thrown = std::current_exception();
      cancelled_ = true;
    }
    lock.lock();
    if (step) {
      call_.step.reset();
      call_changed_.notify_all();
    }
  }
  const bool result = call_.result;
  lock.unlock();
  if (thrown) {
    std::rethrow_exception(thrown);
  }
  return result;
}

// --- The control thread's side -------------------------------------------------------------------

void Control::Finish(bool result) {
  const std::lock_guard<std::mutex> lock(call_mutex_);
  call_.result = result;
  call_.done = true;
  call_changed_.notify_all();
}

void Control::Serve(Job job) {
  if (job == Job::kStop) {
    stopping_ = true;
    if (CurrentState() != State::kFault) {
      SetState(State::kStopping);
    }
    return;
  }
  if (job == Job::kRelease) {
    motor_driver::BringUp bring_up(drives_, *this, enabled_);
    for (std::size_t node = 0;
         node < drives_.nodes().size() && vehicle_.drive_watchdog.count() != 0; ++node) {
      bring_up.EndWatchdog(node);
    }
    released_ = true;
    return Finish(true);
  }
  SetState(State::kBringUp);
  speeds_.fill(0);
  Trouble trouble;
  try {
    trouble = job == Job::kBringUp ? BringUpAll() : ClearFault();
  } catch (const std::exception& error) {
    trouble = {Fault::kBusFailed, 0, error.what()};
  }
  std::fill(motor_rpm_.begin(), motor_rpm_.end(), MotorRpm{});
  std::fill(target_rpm_.begin(), target_rpm_.end(), 0);
  zero_since_.reset();
  // Nobody could be heard meanwhile.
  judge_.Restart();
  last_cycle_ = Clock::now();
  if (!trouble) {
    was_ready_ = true;
    Publish([](Shared& shared) {
      shared.report.fault = Fault::kNone;
      shared.report.node = 0;
      shared.report.reason.clear();
    });
    SetState(State::kReady);
    return Finish(true);
  }
  EnterFault(trouble, enabled_ ? State::kFault : State::kOff);
  Finish(false);
}

Trouble Control::BringUpAll() {
  enabled_ = was_ready_ = false;
  if (!Begin("bus " + vehicle_.interface)) {
    return {Fault::kInterrupted, 0, "interrupted"};
  }
  if (Trouble trouble = drives_.Open()) {
    return trouble;
  }
  if (drives_.make().simulated) {
    return BringUpSimulated();
  }
  motor_driver::BringUp bring_up(drives_, *this, enabled_);
  Trouble trouble = bring_up.Run(std::vector<bool>(drives_.nodes().size(), true));
  Publish([&](Shared& shared) { shared.failures = bring_up.failures(); });
  return trouble;
}

Trouble Control::BringUpSimulated() {
  for (std::size_t node = 0; node < drives_.nodes().size(); ++node) {
    const std::uint8_t id = drives_.nodes()[node].id;
    if (!Begin(drives_.nodes()[node].name() + ": set-up")) {
      return {Fault::kInterrupted, 0, "interrupted"};
    }
    drives_.drive().ResetNode(id);
    drives_.drive().ActiveNode(id);
    drives_.drive().EnableSpeedModeAndPdoMode(id,
                                              static_cast<std::uint16_t>(vehicle_.period.count()));
    drives_.drive().StartNode(id);
    drives_.TakesCommands(node, true);
  }
  return {};
}

Trouble Control::ClearFault() {
  if (drives_.make().simulated) {
    return {};
  }
  for (const auto deadline = Clock::now() + kRecoveryTime;
       drives_.BusFailed() && !drives_.Recover();) {
    if (Clock::now() > deadline) {
      return drives_.BusTrouble();
    }
    Wait(kPause);
  }
  drives_.SendZerosMeanwhile();
  motor_driver::BringUp bring_up(drives_, *this, enabled_);
  Trouble trouble = bring_up.Run(NodesConcerned(bring_up));
  Publish([&](Shared& shared) { shared.failures = bring_up.failures(); });
  return trouble;
}

std::vector<bool> Control::NodesConcerned(motor_driver::BringUp& bring_up) {
  const Report report = GetReport();
  const int faulty = report.fault == Fault::kEmergencyStop ? 0 : report.node;
  std::vector<bool> concerned(drives_.nodes().size(), !was_ready_);
  for (std::size_t node = 0; node < concerned.size(); ++node) {
    concerned[node] = concerned[node] || !drives_.TakesCommands(node);
    if (!concerned[node] && drives_.make().supervise != nullptr) {
      // Its supervision leads it out of an emergency stop, and nobody else.
      const DriverStatus status = drives_.drive().GetDriverStatus(drives_.nodes()[node].id);
      if (status == DriverStatus::EmergencyStop) {
        continue;
      }
      concerned[node] = status != DriverStatus::Ready;
    }
    if (!concerned[node]) {
      // What it was set up for may be gone though it looks well: it restarted, or PDOs are not
      // what they were.
      concerned[node] = drives_.nodes()[node].id == faulty || judge_.Gone(node) ||
                        drives_.watch().Node(node).ErrorCode() != 0 || bring_up.LookAtDrive(node);
    }
  }
  return concerned;
}

bool Control::Begin(const std::string& step) {
  {
    const std::lock_guard<std::mutex> lock(call_mutex_);
    call_.step = step;
    call_changed_.notify_all();
  }
  // A host that takes its time, perhaps behind a held terminal, must not keep zeros from flowing.
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(call_mutex_);
      if (call_changed_.wait_for(lock, vehicle_.period, [this] { return !call_.step; })) {
        break;
      }
    }
    Transferred();
    if (ending_) {
      return false;
    }
  }
  return !cancelled_;
}

void Control::Wait(milliseconds time) {
  for (const auto end = Clock::now() + time; Clock::now() < end && !ending_;) {
    Transferred();
    std::this_thread::sleep_for(std::min<Clock::duration>(end - Clock::now(), vehicle_.period));
  }
}

void Control::Transferred() {
  const auto now = Clock::now();
  notifier_.Alive(now);
  if (drives_.AnyTakesCommands() && now >= last_zeros_ + vehicle_.period) {
    last_zeros_ = now;
    drives_.SendZerosMeanwhile();
  }
}

}  // namespace motor_driver
