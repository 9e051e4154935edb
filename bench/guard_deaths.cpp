#include "guard_deaths.h"

#include <dirent.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "guard_host.h"
#include "guard_process.h"
#include "guard_wire.h"
#include "network.h"
#include "sim/simulated_drive.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Words = std::vector<std::string>;

constexpr auto kLongest = std::chrono::seconds(30);
constexpr auto kBetweenLooks = std::chrono::microseconds(200);
constexpr milliseconds kFresh{200};
constexpr milliseconds kDriveWatchdog{200};
// What docs/guards.md promises: of a guard from the end of its host.
constexpr milliseconds kGuardBegins{20};
// The timers and the frame's way, which are not part of a promise that counts in cycles.
constexpr milliseconds kOnTheWay{1};

double Ms(Clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

// A thread that only sleeps: as late as it wakes, the machine stalled.
class Sleeper {
 public:
  Sleeper() : thread_([this] { Run(); }) {}
  ~Sleeper() {
    running_ = false;
    thread_.join();
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;

  void Begin() { worst_ms_ = 0; }
  double WorstMs() const { return std::max(worst_ms_.load(), LateMs()); }

 private:
  static constexpr milliseconds kSleep{1};

  // From wake to wake, so that a stall between two sleeps counts, too.
  double LateMs() const { return Ms(Clock::now() - woke_.load() - kSleep); }
  void Run() {
    while (running_) {
      std::this_thread::sleep_until(woke_.load() + kSleep);
      worst_ms_ = std::max(worst_ms_.load(), LateMs());
      woke_ = Clock::now();
    }
  }

  std::atomic<bool> running_{true};
  std::atomic<Clock::time_point> woke_{Clock::now()};
  std::atomic<double> worst_ms_{0};
  std::thread thread_;
};

// A wheel that a host turns.
class Turning {
 public:
  Turning(const std::string& make, const Words& host) : drive_(Options(make)), wire_(make) {
    process_.emplace(host);
    const auto deadline = Clock::now() + kLongest;
    while (std::abs(drive_.SpeedRpm()) < guard_host::kRpm * 0.999) {
      if (Clock::now() > deadline) throw std::runtime_error("the wheel does not turn");
      std::this_thread::sleep_for(milliseconds(5));
    }
    // Some time in a control cycle.
    std::this_thread::sleep_for(std::chrono::microseconds(std::rand() % 20'000));
    wire_.Forget();
  }

  Process& process() { return *process_; }
  Sleeper& sleeper() { return sleeper_; }
  const Wire& wire() const { return wire_; }

  bool AtFullSpeed() { return std::abs(drive_.SpeedRpm()) >= guard_host::kRpm * 0.999; }
  Clock::time_point AwaitStandstill() {
    while (drive_.SpeedRpm() != 0) std::this_thread::sleep_for(kBetweenLooks);
    return Clock::now();
  }

 private:
  static sim::SimulatedDrive::Options Options(const std::string& make) {
    sim::SimulatedDrive::Options options;
    options.make = make;
    return options;
  }

  sim::SimulatedDrive drive_;
  Wire wire_;
  Sleeper sleeper_;
  std::optional<Process> process_;
};

Words Host(const Setting& setting, milliseconds drive_watchdog = milliseconds(0)) {
  return {"/proc/self/exe", "--host", setting.make, fmt::format("{}", drive_watchdog.count())};
}

Words Guarded(const Setting& setting, const Words& options = {}) {
  Words words = {setting.motorctl, "guard", "1", "--make", setting.make};
  words.insert(words.end(), options.begin(), options.end());
  words.emplace_back("--");
  char self[4096] = {};
  if (::readlink("/proc/self/exe", self, sizeof(self) - 1) < 0) {
    throw std::runtime_error("no /proc");
  }
  Words host = Host(setting);
  host.front() = self;
  words.insert(words.end(), host.begin(), host.end());
  return words;
}

// Does something to a guarded host and takes the time that its guard needs.
template <typename Death>
std::vector<Measure> MeasureGuard(const Setting& setting, const std::string& name,
                                  const Words& options, milliseconds promised, Death die) {
  Measure zero = {name + " to the first zero", Ms(promised)};
  Measure standstill = {name + " to standstill"};
  Measure end = {name + " to the end of the guard"};
  for (int run = 0; run < setting.runs; ++run) {
    Turning turning(setting.make, Guarded(setting, options));
    const pid_t host = turning.process().Child();
    turning.sleeper().Begin();
    const auto death = Clock::now();
    die(host);
    zero.Add(Ms(turning.wire().AwaitZero() - death), turning.sleeper().WorstMs());
    standstill.Add(Ms(turning.AwaitStandstill() - death), turning.sleeper().WorstMs());
    turning.process().Wait();
    end.Add(Ms(Clock::now() - death), turning.sleeper().WorstMs());
  }
  return {zero, standstill, end};
}

// Every thread of it, so that it lives and does nothing.
void HangAllThreads(pid_t process) {
  const std::string name = fmt::format("/proc/{}/task", process);
  const std::unique_ptr<DIR, int (*)(DIR*)> threads(::opendir(name.c_str()), ::closedir);
  while (const dirent* const entry = threads == nullptr ? nullptr : ::readdir(threads.get())) {
    const long thread = std::strtol(entry->d_name, nullptr, 10);
    if (thread > 0) ::syscall(SYS_tgkill, process, thread, SIGSYS);
  }
}

Words Fresh() { return {"--fresh-ms", fmt::format("{}", kFresh.count())}; }

}  // namespace

void Measure::Add(double time_ms, double stalled_ms) {
  if (ms.empty() || time_ms > ms.Quantile(1)) stall_ms = stalled_ms;
  ms.Add(time_ms);
  if (promised_ms == 0 || time_ms <= promised_ms) return;
  ++(time_ms - stalled_ms > promised_ms ? late : stalled);
}

std::vector<Measure> MeasureKill(const Setting& setting) {
  return MeasureGuard(setting, "kill -9", {}, kGuardBegins,
                      [](pid_t host) { ::kill(host, SIGKILL); });
}

std::vector<Measure> MeasureSuspension(const Setting& setting) {
  return MeasureGuard(setting, "SIGSTOP", Fresh(), kGuardBegins,
                      [](pid_t host) { ::kill(host, SIGSTOP); });
}

std::vector<Measure> MeasureHang(const Setting& setting) {
  return MeasureGuard(setting, "hang of all threads", Fresh(), kFresh + kGuardBegins,
                      HangAllThreads);
}

// No guard but `Wheels`.
std::vector<Measure> MeasureHangOfOneThread(const Setting& setting) {
  const std::string name = "last command of a thread that hangs";
  Measure falling = {name + " to the first falling target",
                     Ms(guard_host::kCommandTimeout + guard_host::kPeriod + kOnTheWay)};
  Measure standstill = {name + " to standstill"};
  for (int run = 0; run < setting.runs; ++run) {
    Turning turning(setting.make, Host(setting));
    turning.sleeper().Begin();
    ::kill(turning.process().id(), SIGUSR1);
    const auto fell = turning.wire().AwaitFalling();
    const auto last = turning.process().ReadTime();
    falling.Add(Ms(fell - last), turning.sleeper().WorstMs());
    standstill.Add(Ms(turning.AwaitStandstill() - last), turning.sleeper().WorstMs());
  }
  return {falling, standstill};
}

// No guard but the drive.
std::vector<Measure> MeasureUnplugging(const Setting& setting) {
  Measure braking = {"unplugging to braking", Ms(kDriveWatchdog + kOnTheWay)};
  Measure late = {"braking, after the drive's time had run out"};
  Measure standstill = {"unplugging to standstill"};
  for (int run = 0; run < setting.runs; ++run) {
    Turning turning(setting.make, Host(setting, kDriveWatchdog));
    std::optional<Clock::time_point> heartbeat;
    const auto look = [&] {
      if (const auto heard = turning.wire().TakeHeartbeat()) heartbeat = heard;
      std::this_thread::sleep_for(kBetweenLooks);
    };
    // With one on the record, at any time between two.
    while (!heartbeat) look();
    const auto from = Clock::now() + std::chrono::microseconds(std::rand() % 50'000);
    while (Clock::now() < from) look();
    turning.sleeper().Begin();
    SetInterface("can0", false);
    const auto unplugged = Clock::now();
    while (turning.AtFullSpeed()) {
      if (Clock::now() > unplugged + kLongest) throw std::runtime_error("the drive does not brake");
      look();
    }
    const auto braked = Clock::now();
    braking.Add(Ms(braked - unplugged), turning.sleeper().WorstMs());
    late.Add(Ms(braked - *heartbeat - kDriveWatchdog), turning.sleeper().WorstMs());
    standstill.Add(Ms(turning.AwaitStandstill() - unplugged), turning.sleeper().WorstMs());
    ::kill(turning.process().id(), SIGKILL);
    turning.process().Wait();
    SetInterface("can0", true);
  }
  return {braking, late, standstill};
}
