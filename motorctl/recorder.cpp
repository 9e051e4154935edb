#include "recorder.h"

#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>
#include <system_error>
#include <thread>

#include "link.h"

namespace motorctl {
namespace {

// Frames come one by one, and each would wake the process. What waits meanwhile has room in the
// sockets: 5 ms of the fullest bus are some hundred frames.
constexpr auto kPause = std::chrono::milliseconds(5);
constexpr int kIdleMilliseconds = 100;
constexpr auto kLook = std::chrono::milliseconds(100);
constexpr auto kMark = std::chrono::seconds(1);
constexpr std::size_t kMostEvents = 2000;
constexpr auto kLongestFinish = std::chrono::seconds(20);

std::chrono::nanoseconds Nanoseconds(double seconds) {
  return std::chrono::nanoseconds(static_cast<std::int64_t>(seconds * 1e9));
}

}  // namespace

Recorder::Recorder(const Context& context, const RecordPlan& plan)
    : context_(context),
      plan_(plan),
      interface_(context.vehicle.interface),
      output_(context),
      store_(plan.directory, interface_, plan.limits, context.vehicle_file),
      control_(interface_),
      tap_(interface_),
      log_(plan.continuous
               ? std::make_unique<ContinuousLog>(context, output_, plan.directory, *plan.continuous,
                                                 [this] {
                                                   control_.Close();
                                                   tap_.Close();
                                                 })
               : nullptr),
      frames_(plan.memory_mb * 1024 * 1024 / sizeof(BusFrame)),
      watch_(context.make == nullptr || context.make->simulated ? nullptr : context.make,
             [this](const BusEvent& event) { Hear(event); }) {
  tap_.Open();
  store_.RemoveUnfinished();
  // In the background of a terminal, writing to it would stop the process.
  ::signal(SIGTTOU, SIG_IGN);
  sigset_t taken = {};
  sigemptyset(&taken);
  for (const int signal : {SIGUSR1, SIGINT, SIGTERM, SIGHUP}) sigaddset(&taken, signal);
  ::sigprocmask(SIG_BLOCK, &taken, nullptr);
  signals_ = ::signalfd(-1, &taken, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signals_ < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
}

Recorder::~Recorder() {
  for (const int descriptor : {signals_, outcome_}) {
    if (descriptor >= 0) ::close(descriptor);
  }
}

int Recorder::Run() {
  output_.Say("recording " + interface_ + " into " + plan_.directory +
              (tap_.hears_sent() ? ""
                                 : "; only what it receives: what this machine sends needs the "
                                   "capability CAP_NET_RAW, as root has it"));
  if (!control_.holder().empty()) {
    output_.Say(control_.holder() + " has the address of the recorder of " + interface_ +
                ": \"motorctl record --now\" does not reach this one, SIGUSR1 does");
  }
  now_ = Clock::now();
  KeepMark();  // before the first frame
  while (!ended_ || gathering_ || writer_ > 0) {
    Await();
    TakeSignals();
    ended_ = ended_ || output_.NobodyReads();
    TakeFrames();
    if (log_) log_->Offer(frames_);
    WatchInterface();
    KeepMark();
    TakeOutcome();
    if (control_.Asked()) Ask("motorctl record --now");
    if (gathering_ && writer_ < 0 && (ended_ || now_ >= gathering_->due)) StartWriting();
  }
  FinishLog();
  // `| head` has what it wanted.
  if (output_.NobodyReads()) throw NobodyReads("standard output");
  return kSuccess;
}

void Recorder::FinishLog() {
  const auto deadline = Clock::now() + kLongestFinish;
  while (log_ && !log_->Offer(frames_) && Clock::now() < deadline) {
    std::this_thread::sleep_for(kPause);
  }
}

void Recorder::Await() {
  if (busy_) std::this_thread::sleep_for(kPause);
  pollfd waited[] = {{tap_.received(), POLLIN, 0},
                     {tap_.sent(), POLLIN, 0},
                     {signals_, POLLIN, 0},
                     {control_.descriptor(), POLLIN, 0},
                     {outcome_, POLLIN, 0}};
  ::poll(waited, std::size(waited), busy_ ? 0 : kIdleMilliseconds);
}

void Recorder::TakeSignals() {
  signalfd_siginfo signal = {};
  while (::read(signals_, &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo == SIGUSR1) {
      Ask("SIGUSR1");
    } else {
      ended_ = true;
    }
  }
}

void Recorder::TakeFrames() {
  now_ = Clock::now();
  const auto keep = [this](const BusFrame& frame) { Keep(frame); };
  const bool good = tap_.Take(keep);
  if (ended_) tap_.TakeHeld(keep);
  busy_ = tap_.holds_frames();
  if (tap_.is_open() && !good && !lost_interface_) {
    lost_interface_ = true;
    const bool gone = ::if_nametoindex(interface_.c_str()) == 0;
    BusEvent event;
    event.nanoseconds = WallClockNanoseconds();
    event.kind = gone ? "interface_gone" : "interface_down";
    event.text = interface_ + (gone ? " is gone" : " went down");
    Hear(event);
  }
  if (lost_interface_) {
    watch_.Forget();
  } else {
    watch_.Tick(now_);
  }
}

void Recorder::Keep(const BusFrame& frame) {
  frames_.Push(frame);
  watch_.Hear(frame, now_);
}

// The sockets of an interface that went away stay deaf, even when it comes back.
void Recorder::WatchInterface() {
  if (!lost_interface_ || now_ - looked_ < kLook) return;
  looked_ = now_;
  tap_.Close();
  if (!IsUp(interface_)) return;
  try {
    tap_.Open();
  } catch (const CommandFailed&) {
    return;  // it is gone again
  }
  lost_interface_ = false;
  output_.Say(interface_ + " is back");
}

void Recorder::KeepMark() {
  if (!marks_.empty() && now_ - marks_.back().first < kMark) return;
  marks_.emplace_back(now_, frames_.pushed());
  const auto kept = Nanoseconds(plan_.seconds + plan_.after) + kMark;
  while (marks_.size() > 1 && now_ - marks_[1].first >= kept) marks_.pop_front();
}

void Recorder::Ask(const std::string& text) {
  BusEvent event;
  event.nanoseconds = WallClockNanoseconds();
  event.kind = "request";
  event.text = text;
  last_.erase({event.kind, 0});
  Hear(event);
}

void Recorder::Hear(const BusEvent& event) {
  const auto kept = Nanoseconds(plan_.seconds + plan_.after);
  while (!events_.empty() && now_ - events_.front().first > kept) events_.pop_front();
  // What does not stop is one incident: many would push each other, and the first, out.
  bool begins = !gathering_ && event.triggers;
  if (event.triggers) {
    const auto [last, first] = last_.try_emplace({event.kind, event.node}, now_);
    begins = begins && (first || now_ - last->second > Nanoseconds(plan_.seconds));
    last->second = now_;
  }
  if (begins || events_.size() < kMostEvents) {
    events_.emplace_back(now_, event);
  } else {
    ++unlisted_;
  }
  if (!begins) return;
  gathering_ = Gathering{event, now_ + Nanoseconds(plan_.after)};
  if (event.kind != "request") output_.Say(event.text);
}

// In a process of its own, which has a copy of the memory at no cost and may wait for its disk.
void Recorder::StartWriting() {
  tap_.TakeHeld([this](const BusFrame& frame) { Keep(frame); });
  Incident incident;
  incident.trigger = gathering_->trigger;
  for (const auto& [heard, event] : events_) incident.events.push_back(event);
  incident.first_frame =
      frames_.size() - static_cast<std::size_t>(std::min<std::uint64_t>(
                           frames_.size(), frames_.pushed() - marks_.front().second));
  incident.begin = incident.trigger.nanoseconds - Nanoseconds(plan_.seconds).count();
  incident.end = WallClockNanoseconds();
  incident.lost_frames = tap_.lost();
  incident.unlisted_events = unlisted_;
  incident.hears_sent = tap_.hears_sent();
  trigger_text_ = incident.trigger.text;
  gathering_.reset();
  unlisted_ = 0;

  control_.Promise();
  int ends[2] = {};
  if (::pipe2(ends, O_CLOEXEC) != 0) return Report("!no pipe for the process that writes");
  const pid_t recorder = ::getpid();
  writer_ = ::fork();
  if (writer_ == 0) {
    // It must not write into a folder that the next recorder takes for left behind.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != recorder) ::_exit(kFailure);
    control_.Close();
    ::setpriority(PRIO_PROCESS, 0, kWriterNice);
    std::string outcome;
    try {
      outcome = "+" + store_.Write(incident, frames_);
    } catch (const std::exception& error) {
      outcome = std::string("!") + error.what();
    }
    if (::write(ends[1], outcome.data(), outcome.size()) < 0) ::_exit(kFailure);
    ::_exit(kSuccess);
  }
  ::close(ends[1]);
  outcome_ = ends[0];
  if (writer_ < 0) {
    ::close(outcome_);
    outcome_ = -1;
    Report("!no process that writes");
  }
}

void Recorder::TakeOutcome() {
  pollfd readable = {outcome_, POLLIN, 0};
  if (writer_ < 0 || ::poll(&readable, 1, 0) == 0) return;
  char text[4096];
  const ssize_t bytes = ::read(outcome_, text, sizeof(text));
  ::close(outcome_);
  outcome_ = -1;
  ::waitpid(writer_, nullptr, 0);
  writer_ = -1;
  Report(bytes > 0 ? std::string(text, static_cast<std::size_t>(bytes))
                   : "!the process that writes was ended");
}

void Recorder::Report(const std::string& outcome) {
  const bool good = outcome[0] == '+';
  const std::string text = outcome.substr(1);
  if (good) store_.Remember(text);
  control_.Answer(outcome);
  if (context_.json) {
    using Json = nlohmann::ordered_json;
    output_.Line(Json{{"command", "record"},
                      {"ok", good},
                      {"trigger", trigger_text_},
                      {"folder", good ? Json(text) : Json(nullptr)},
                      {"failure", good ? Json(nullptr) : Json(text)}}
                     .dump(-1, ' ', false, Json::error_handler_t::replace));
  } else if (good) {
    output_.Line(text);
  }
  if (!good) {
    output_.Say("AN INCIDENT WAS NOT WRITTEN (" + trigger_text_ + "): " + text +
                "; make room or name another place with --directory. Still recording");
  }
}

}  // namespace motorctl
