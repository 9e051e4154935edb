// How long wheels outlive their host, by each of its deaths, with the guard that notices it; and
// what a guard costs that waits on a busy bus.
#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "guard_deaths.h"
#include "guard_host.h"
#include "guard_process.h"
#include "guard_wire.h"
#include "network.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char* kRow = "{:<64} {:>8} {:>8} {:>8} {:>8}  {}\n";

std::string Verdict(const Measure& measure) {
  if (measure.promised_ms == 0) return "-";
  if (measure.late != 0) return fmt::format("late {}, stalled {}", measure.late, measure.stalled);
  return measure.stalled != 0 ? fmt::format("stalled {}", measure.stalled) : "ok";
}

void Print(const std::vector<Measure>& measures) {
  for (const Measure& measure : measures) {
    fmt::print(kRow, measure.name, fmt::format("{:.2f}", measure.ms.Median()),
               fmt::format("{:.2f}", measure.ms.Quantile(1)),
               fmt::format("{:.2f}", measure.stall_ms),
               measure.promised_ms > 0 ? fmt::format("{:.0f}", measure.promised_ms) : "-",
               Verdict(measure));
  }
  std::fflush(stdout);
}

// Ticks of the processor, user and kernel.
long Ticks(pid_t process) {
  std::ifstream file(fmt::format("/proc/{}/stat", process));
  std::string word;
  for (int field = 0; field < 13; ++field) file >> word;
  long user = 0;
  long kernel = 0;
  file >> user >> kernel;
  return user + kernel;
}

void PrintCost(const Setting& setting, double seconds) {
  const Wire wire(setting.make);
  Process guard(
      {setting.motorctl, "guard", "1", "--make", setting.make, "--", "/bin/sleep", "600"});
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const long before = Ticks(guard.id());
  can_frame frame = {};
  frame.can_id = 0x181;
  frame.can_dlc = 8;
  constexpr int kBurst = 8;  // of each millisecond
  const auto start = Clock::now();
  long sent = 0;
  for (auto next = start; next < start + std::chrono::duration<double>(seconds);
       next += milliseconds(1)) {
    std::this_thread::sleep_until(next);
    for (int i = 0; i < kBurst; ++i, ++sent) wire.Send(frame);
  }
  const double passed = std::chrono::duration<double>(Clock::now() - start).count();
  const double cpu =
      static_cast<double>(Ticks(guard.id()) - before) / static_cast<double>(::sysconf(_SC_CLK_TCK));
  std::ifstream file(fmt::format("/proc/{}/status", guard.id()));
  std::string line;
  while (std::getline(file, line) && line.compare(0, 6, "VmRSS:") != 0) {
  }
  fmt::print("waiting at {:.0f} frames/s: {:.2f} % of a processor, {}\n",
             static_cast<double>(sent) / passed, 100 * cpu / passed, line);
  ::kill(guard.id(), SIGTERM);
  guard.Wait();
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc == 4 && std::string(argv[1]) == "--host") {
    guard_host::Run(argv[2], milliseconds(std::stoi(argv[3])));
  }
  Setting setting;
  bool own_network = false;
  double seconds = 2;
  CLI::App app("How long wheels outlive their host.");
  app.add_option("motorctl", setting.motorctl, "the built motorctl")->required();
  app.add_option("--make", setting.make, "of the simulated drive (zl)");
  app.add_option("--runs", setting.runs, "of each measure (5)")->check(CLI::Range(1, 10'000));
  app.add_option("--seconds", seconds, "of the busy bus (2), 0: none")->check(CLI::Range(0, 3600));
  app.add_flag("--own-network", own_network, "in a network namespace of its own");
  CLI11_PARSE(app, argc, argv);
  if (own_network) EnterOwnNetwork("can0", "can1");
  std::srand(static_cast<unsigned>(::getpid()));
  fmt::print(kRow, fmt::format("{}, {} runs, milliseconds", setting.make, setting.runs), "median",
             "worst", "stall", "promised", "");
  for (const auto& measure :
       {MeasureKill, MeasureSuspension, MeasureHang, MeasureHangOfOneThread, MeasureUnplugging}) {
    Print(measure(setting));
  }
  if (seconds > 0) PrintCost(setting, seconds);
  return 0;
} catch (const std::exception& error) {
  fmt::print(stderr, "motor-driver-guard-bench: {}\n", error.what());
  return 1;
}
