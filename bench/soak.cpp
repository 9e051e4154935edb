// A vehicle's host in full: eight simulated drives that are brought up, turned and stopped through
// Wheels for a given time, under random faults that an operator clears. Tells what came through,
// what it cost, and whether anything is left behind.
#include <fmt/core.h>
#include <malloc.h>
#include <unistd.h>
#include <wheels.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "network.h"
#include "plant.h"

namespace {

using Clock = std::chrono::steady_clock;
using motor_driver::State;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kHealthy = 0;
constexpr int kUnhealthy = 1;
constexpr int kUsage = 2;

constexpr int kNodes = 8;
constexpr int kRpm = 300;
constexpr auto kPeriod = milliseconds(10);
constexpr auto kOperatorPeriod = milliseconds(100);
constexpr auto kAllTurnWithin = seconds(120);
constexpr auto kMostlyTurnWithin = seconds(10);
constexpr double kTolerableGrowth = 2 << 20;

// In the order of Fault.
constexpr std::array<const char*, 13> kFaultNames = {
    "none",          "no interface",   "bus failed",  "node silent",    "set-up refused",
    "no feedback",   "node restarted", "drive error", "emergency stop", "not following",
    "not confirmed", "interrupted",    "no realtime"};

struct Options {
  std::string interface = "can0";
  std::string far_interface = "can1";
  double seconds = 600;
  unsigned seed = 1;
  bool own_network = false;
};

std::size_t EntriesOf(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

struct Holdings {
  double resident_bytes;
  double heap_bytes;
  std::size_t descriptors;
  std::size_t threads;
};

Holdings Held() {
  std::ifstream pages("/proc/self/statm");
  double total = 0;
  double resident = 0;
  pages >> total >> resident;
  return {resident * static_cast<double>(::sysconf(_SC_PAGESIZE)),
          static_cast<double>(::mallinfo2().uordblks), EntriesOf("/proc/self/fd"),
          EntriesOf("/proc/self/task")};
}

// A thread that does the same at fixed times, and how late it ever was.
class Periodic {
 public:
  Periodic(Clock::duration period, std::function<void()> work)
      : thread_([this, period, work = std::move(work)] {
          for (auto next = Clock::now(); running_; next = std::max(next + period, Clock::now())) {
            std::this_thread::sleep_until(next);
            latest_ = std::max(latest_.load(), Clock::now() - next);
            work();
          }
        }) {}
  ~Periodic() {
    running_ = false;
    thread_.join();
  }
  Periodic(const Periodic&) = delete;
  Periodic& operator=(const Periodic&) = delete;

  double LatestMs() const {
    return std::chrono::duration<double, std::milli>(latest_.load()).count();
  }

 private:
  std::atomic<bool> running_{true};
  std::atomic<Clock::duration> latest_{Clock::duration::zero()};
  std::thread thread_;
};

motor_driver::Vehicle VehicleOf(const Options& options) {
  motor_driver::Vehicle vehicle;
  vehicle.make = "kinco";
  vehicle.interface = options.interface;
  vehicle.period = kPeriod;
  vehicle.max_rpm = kRpm;
  vehicle.max_acceleration = vehicle.max_deceleration = 2 * kRpm;
  for (int node = 1; node <= kNodes; ++node) {
    vehicle.wheels.push_back({"wheel " + std::to_string(node), node, 1, false, 1.0});
  }
  return vehicle;
}

// Commands all the time, whatever becomes of it, and clears every fault as soon as it is there.
class Host {
 public:
  explicit Host(const Options& options)
      : wheels_(VehicleOf(options)),
        commands_(kPeriod, [this] { Command(); }),
        operator_(kOperatorPeriod, [this] { Clear(); }) {}

  bool AllTurn() const {
    for (std::size_t wheel = 0; wheel < kNodes; ++wheel) {
      if (std::abs(wheels_.GetWheel(wheel).measured_rpm - kRpm) > 0.01 * kRpm) {
        return false;
      }
    }
    return true;
  }
  bool Stop() {
    rpm_ = 0;
    return wheels_.Stop();
  }
  void Report() const;
  std::string Reason() const { return wheels_.GetReport().reason; }

 private:
  void Command() {
    std::array<double, kNodes> rpm{};
    rpm.fill(rpm_);
    ++(wheels_.Command(rpm.data(), rpm.size()) ? taken_ : refused_);
  }
  void Clear() {
    const motor_driver::Report report = wheels_.GetReport();
    if (report.state == State::kFault) {
      ++faults_.at(static_cast<std::size_t>(report.fault));
      ++(wheels_.Clear() ? cleared_ : not_cleared_);
    } else if (report.state == State::kOff) {
      ++(wheels_.BringUp() ? brought_up_ : not_brought_up_);
    }
  }

  std::atomic<double> rpm_{kRpm};
  std::atomic<std::uint64_t> taken_{0};
  std::atomic<std::uint64_t> refused_{0};
  std::atomic<int> brought_up_{0};
  std::atomic<int> not_brought_up_{0};
  std::atomic<int> cleared_{0};
  std::atomic<int> not_cleared_{0};
  std::array<std::atomic<int>, kFaultNames.size()> faults_{};
  motor_driver::Wheels wheels_;
  Periodic commands_;
  Periodic operator_;  // the last, and so the first to go
};

template <typename Value>
void Tell(const std::string& name, Value value) {
  fmt::print(stderr, "{:<44}{:>12}\n", name, value);
}

std::string Rounded(double value) { return fmt::format("{:.1f}", value); }

void Host::Report() const {
  Tell("commands taken", taken_.load());
  Tell("commands refused", refused_.load());
  Tell("bring-ups", brought_up_.load());
  Tell("bring-ups that failed", not_brought_up_.load());
  for (std::size_t fault = 1; fault < faults_.size(); ++fault) {
    Tell(std::string("faults to clear: ") + kFaultNames[fault], faults_[fault].load());
  }
  Tell("faults cleared", cleared_.load());
  Tell("faults not cleared at once", not_cleared_.load());
  const motor_driver::Report report = wheels_.GetReport();
  Tell("control cycles", report.cycles);
  Tell("worst late begin of a cycle, ms",
       Rounded(static_cast<double>(report.latest_cycle.count()) / 1000));
}

template <typename Condition>
bool Within(Clock::duration time, Condition condition) {
  for (const auto end = Clock::now() + time; Clock::now() < end;) {
    if (condition()) {
      return true;
    }
    std::this_thread::sleep_for(kPeriod);
  }
  return false;
}

bool Good(bool holds, const std::string& what) {
  if (!holds) {
    fmt::print(stderr, "NOT GOOD: {}\n", what);
  }
  return holds;
}

int Run(const Options& options) {
  if (options.own_network) {
    EnterOwnNetwork(options.interface, options.far_interface);
  }
  const Holdings nothing = Held();
  bool good = true;
  {
    Plant plant(options.interface, options.far_interface, kNodes, options.seed);
    Host host(options);
    Periodic bare(kPeriod, [] {});
    const auto all_turn = [&] { return plant.Turning(kRpm) == kNodes && host.AllTurn(); };
    good = Good(Within(kAllTurnWithin, all_turn), "bring-up without faults: " + host.Reason());
    const Holdings before = Held();
    for (const auto end = Clock::now() + std::chrono::duration<double>(options.seconds);
         Clock::now() < end;) {
      // Two in a row meet a host that is still busy with the first.
      plant.Break();
      plant.Break();
      Within(kMostlyTurnWithin, all_turn);
    }
    const bool turning = Within(kAllTurnWithin, all_turn);
    good = Good(turning, "every drive turns and is read back: " + host.Reason()) && good;
    good = Good(host.Stop(), "the stop is confirmed: " + host.Reason()) && good;
    good = Good(plant.Turning(0) == kNodes, "every drive stands") && good;
    const Holdings after = Held();

    Tell("seconds", options.seconds);
    Tell("seed", options.seed);
    for (const auto& [name, count] : plant.faults()) {
      Tell("fault: " + name, count);
    }
    host.Report();
    Tell("the same of a thread that does nothing, ms", Rounded(bare.LatestMs()));
    const double growth = after.resident_bytes - before.resident_bytes;
    Tell("resident memory before faults, KiB", Rounded(before.resident_bytes / 1024));
    Tell("its growth, KiB", Rounded(growth / 1024));
    Tell("growth of the heap in use, KiB", Rounded((after.heap_bytes - before.heap_bytes) / 1024));
    good = Good(growth < kTolerableGrowth, "memory") && good;
    good = Good(after.descriptors == before.descriptors, "descriptors while running") && good;
    good = Good(after.threads == before.threads, "threads while running") && good;
  }
  const Holdings left = Held();
  const auto left_behind = [](std::size_t now, std::size_t then) {
    return static_cast<int>(now) - static_cast<int>(then);
  };
  Tell("descriptors left behind", left_behind(left.descriptors, nothing.descriptors));
  Tell("threads left behind", left_behind(left.threads, nothing.threads));
  good = Good(left.descriptors == nothing.descriptors, "descriptors at the end") && good;
  good = Good(left.threads == nothing.threads, "threads at the end") && good;
  return good ? kHealthy : kUnhealthy;
}

int ParseAndRun(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Drives eight simulated drives under random faults, on a connected pair of CAN interfaces "
      "whose queueing discipline and state it changes. The report goes to standard error; on "
      "standard output are the library's lines on failed writes.",
      "motor-driver-soak");
  app.footer("Exit status: 0 all well in the end and nothing left behind, 1 not so, 2 usage.");
  app.option_defaults()->always_capture_default();
  app.add_option("--interface", options.interface, "interface of the library");
  app.add_option("--far-interface", options.far_interface, "interface of the drives");
  app.add_option("--seconds", options.seconds, "length of the run")
      ->check(CLI::Range(1.0, 1'000'000.0));
  app.add_option("--seed", options.seed, "of the random faults");
  app.add_flag("--own-network", options.own_network,
               "create the pair in a network namespace of its own (root)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  ::setenv("SPDLOG_STDOUT", "false", 0);
  ::setenv("SPDLOG_SYSTEMD", "false", 0);
  ::setenv("SPDLOG_LEVEL", "error", 0);
  return Run(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return ParseAndRun(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "motor-driver-soak: %s\n", error.what());
    return kUnhealthy;
  }
}
