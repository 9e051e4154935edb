#include "guard.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "stop_report.h"

namespace motorctl {
namespace {

using std::chrono::milliseconds;
using State = GuardedCommand::State;

// Until the first zero speed; what lives longer is ended behind it.
constexpr auto kEndAtOnce = milliseconds(10);
constexpr auto kEndAtLast = std::chrono::seconds(1);
constexpr auto kStopLimit = std::chrono::seconds(5);
constexpr auto kBetweenLooks = milliseconds(20);  // at a stop on its way
constexpr auto kBetweenAttempts = milliseconds(100);

// Everything that can be caught, but for what a thread does to itself.
sigset_t PassedSignals() {
  sigset_t signals;
  sigfillset(&signals);
  for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGPIPE}) {
    sigdelset(&signals, own);
  }
  return signals;
}

// The threads of the library leave this one open, for their own ends.
void PassToMainThread(int signal) {
  if (::gettid() != ::getpid()) ::tgkill(::getpid(), ::getpid(), signal);
}

// Before any thread is started.
int TakeSignals(sigset_t& previous_mask) {
  ::signal(SIGABRT, PassToMainThread);
  const sigset_t signals = PassedSignals();
  ::sigprocmask(SIG_BLOCK, &signals, &previous_mask);
  const int descriptor = ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "signals");
  return descriptor;
}

std::string EndInWords(int status) {
  const int signal = status - GuardedCommand::kBySignal;
  if (signal > 0) return "ended by signal " + std::to_string(signal);
  return "ended with status " + std::to_string(status);
}

}  // namespace

Guard::Guard(const Context& context, const GuardPlan& plan)
    : plan_(plan),
      signals_(TakeSignals(previous_mask_)),
      lock_(plan.vehicle.interface, plan.nodes, "guard", "is guarded already"),
      stopper_(plan.vehicle),
      output_(context) {
  const std::string trouble = stopper_.BusTrouble();
  if (!trouble.empty()) throw CommandFailed(trouble);
}

// The mask stays: a signal that waits must not end the process now.
Guard::~Guard() { ::close(signals_); }

int Guard::Run() {
  GuardedCommand::Plan plan;
  plan.words = plan_.words;
  plan.environment = notify_.EnvironmentOf(plan_.environment, plan_.fresh);
  plan.signal_mask = previous_mask_;
  plan.output = DataDescriptor();
  const int failure = command_.Start(plan);
  if (failure != 0) {
    output_.Say(plan_.words.front() + " cannot be executed: " +
                std::generic_category().message(failure) + "; nothing was sent");
    return failure == ENOENT ? kNotFound : kNotExecutable;
  }
  Watch();
  return Finish();
}

void Guard::Watch() {
  for (State before = State::kRunning;;) {
    Wait();
    PassSignals();
    lock_.Answer();
    notify_.Take(command_.pid());
    const State now = command_.Look();
    if (now == State::kEnded) return;
    if (now == State::kStopped && before == State::kRunning) {
      BeginStop();
      output_.Say(plan_.words.front() + " is stopped, the wheels are being stopped; " +
                  "SIGCONT lets it go on");
    } else if (now == State::kRunning && before == State::kStopped) {
      CancelStop();
    }
    before = now;
    ReportPause();
    const auto alive_at = notify_.alive_at();
    if (plan_.fresh && alive_at && Clock::now() - *alive_at > *plan_.fresh) {
      reason_ = "no sign of life for " + std::to_string(plan_.fresh->count()) + " ms";
      return;
    }
  }
}

void Guard::Wait() {
  std::vector<pollfd> descriptors = {{signals_, POLLIN, 0}, {notify_.descriptor(), POLLIN, 0}};
  for (const int descriptor : lock_.descriptors()) descriptors.push_back({descriptor, POLLIN, 0});
  std::optional<Clock::duration> timeout;
  const auto at_most = [&timeout](Clock::duration time) {
    timeout = std::max(Clock::duration(0), timeout ? std::min(*timeout, time) : time);
  };
  if (const auto alive_at = notify_.alive_at(); plan_.fresh && alive_at) {
    at_most(*alive_at + *plan_.fresh - Clock::now());
  }
  if (stop_.valid()) at_most(kBetweenLooks);
  if (notify_.has_untold()) at_most(kBetweenAttempts);
  timespec time = {};
  if (timeout) {
    // A millisecond late rather than a loop that waits for the clock to move on.
    const auto rounded = std::chrono::duration_cast<milliseconds>(*timeout) + milliseconds(1);
    time.tv_sec = rounded.count() / 1000;
    time.tv_nsec = rounded.count() % 1000 * 1'000'000;
  }
  ::ppoll(descriptors.data(), descriptors.size(), timeout ? &time : nullptr, nullptr);
}

void Guard::PassSignals() {
  signalfd_siginfo signal = {};
  while (::read(signals_, &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo != SIGCHLD) command_.Pass(static_cast<int>(signal.ssi_signo));
  }
}

void Guard::BeginStop() {
  CancelStop();
  if (stop_.valid()) stop_.wait();
  stop_cancelled_ = false;
  stop_ = std::async(std::launch::async, [this] {
    return stopper_.Stop(kStopLimit, [this] { return stop_cancelled_.load(); });
  });
}

bool Guard::StopDone() const {
  return stop_.valid() && stop_.wait_for(milliseconds(0)) == std::future_status::ready;
}

void Guard::CancelStop() { stop_cancelled_ = true; }

// What became of the stop of a command that is stopped itself.
void Guard::ReportPause() {
  if (!StopDone()) return;
  const bool stopped = stop_.get();
  if (!stopped && !stop_cancelled_) output_.Say(NotConfirmed(stopper_.nodes()));
}

// True when the wheels stand. Whoever watches this process knows meanwhile that it is at work.
bool Guard::Stop() {
  BeginStop();
  const auto interval = notify_.interval();
  while (interval && stop_.wait_for(*interval) != std::future_status::ready) {
    notify_.Tell(motor_driver::kAlive);
  }
  return stop_.get();
}

int Guard::Finish() {
  bool found = false;
  command_.EndAll(kEndAtOnce, found);
  notify_.Tell(motor_driver::kAlive);
  bool stopped = Stop();
  const bool gone = command_.EndAll(kEndAtLast, found);
  if (found) stopped = Stop();  // it may have commanded a speed behind the zeros
  const std::string end = plan_.words.front() + " " +
                          (reason_.empty() ? "" : "was ended (" + reason_ + ") and ") +
                          EndInWords(command_.status());
  output_.Say(end + (stopped ? "; the wheels stand" : ""));
  if (!gone) output_.Say("what it started cannot be ended: see \"ps\"");
  if (!stopped) {
    for (const motor_driver::StoppedNode& node : stopper_.nodes()) {
      if (!node.standing) output_.Say(Describe(node));
    }
    output_.Say(NotConfirmed(stopper_.nodes()));
  }
  return stopped && gone ? command_.status() : kFailure;
}

}  // namespace motorctl
