// How long wheels outlive their host under motorctl guard: from its death (kill -9) or its stop
// (SIGSTOP) to the first zero speed on the wire and to standstill; and what a guard costs that
// waits on a busy bus.
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "network.h"
#include "report.h"
#include "sim/simulated_drive.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr double kRpm = 60;
constexpr auto kLongest = std::chrono::seconds(30);

// The far end of the bus; hears what hosts send.
class Wire {
 public:
  Wire() : socket_(::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW)) {
    sockaddr_can address = {};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(::if_nametoindex("can1"));
    const can_filter filters[] = {{0x201, CAN_SFF_MASK}, {0x601, CAN_SFF_MASK}};
    const timeval patience = {1, 0};
    ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, filters, sizeof(filters));
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    if (::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("there is no can1");
    }
  }
  ~Wire() { ::close(socket_); }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  void Forget() const {
    can_frame frame = {};
    while (::recv(socket_, &frame, sizeof(frame), MSG_DONTWAIT) > 0) {
    }
  }
  // By RPDO, or written to an object.
  void AwaitZero() const {
    can_frame frame = {};
    while (::read(socket_, &frame, sizeof(frame)) == sizeof(frame)) {
      const bool written = frame.can_id == 0x601 && (frame.data[0] & 0xE0) == 0x20;
      const auto* const begin = frame.data + (written ? 4 : 0);
      const auto* const end = frame.data + frame.can_dlc;
      if ((frame.can_id == 0x201 || written) &&
          std::all_of(begin, end, [](int byte) { return byte == 0; })) {
        return;
      }
    }
    throw std::runtime_error("no zero speed within a second");
  }
  void Send(const can_frame& frame) const {
    [[maybe_unused]] const ssize_t written = ::write(socket_, &frame, sizeof(frame));
  }

 private:
  int socket_;
};

pid_t ChildOf(pid_t parent) {
  std::ifstream file(fmt::format("/proc/{0}/task/{0}/children", parent));
  pid_t child = 0;
  if (!(file >> child)) throw std::runtime_error("the guard has no host");
  return child;
}

pid_t Spawn(std::vector<std::string> words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
    ::posix_spawn_file_actions_addopen(&files, output, "/dev/null", O_WRONLY, 0);
  }
  pid_t process = 0;
  if (::posix_spawn(&process, pointers[0], &files, nullptr, pointers.data(), environ) != 0) {
    throw std::runtime_error("cannot start " + words[0]);
  }
  ::posix_spawn_file_actions_destroy(&files);
  return process;
}

struct Setting {
  std::string motorctl;
  std::string make = "zl";
  int runs = 5;
};

struct Times {
  Figure first_zero;
  Figure standstill;
  Figure end;  // of the guard
};

double MsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void Run(const Setting& setting, int signal, const std::vector<std::string>& options,
         Times& times) {
  sim::SimulatedDrive::Options drive_options;
  drive_options.make = setting.make;
  sim::SimulatedDrive drive(drive_options);
  const Wire wire;
  std::vector<std::string> words = {setting.motorctl, "guard", "1", "--make", setting.make};
  words.insert(words.end(), options.begin(), options.end());
  for (const std::string& word :
       {std::string("--"), setting.motorctl, std::string("jog"), std::string("1"),
        std::string("--make"), setting.make, std::string("--rpm"), fmt::format("{}", kRpm),
        std::string("--ramp"), std::string("600"), std::string("--seconds"), std::string("60"),
        std::string("--yes")}) {
    words.push_back(word);
  }
  const pid_t guard = Spawn(words);
  const auto deadline = Clock::now() + kLongest;
  while (std::abs(drive.SpeedRpm()) < kRpm * 0.95) {
    if (Clock::now() > deadline) throw std::runtime_error("the wheel does not turn");
    std::this_thread::sleep_for(milliseconds(5));
  }
  const pid_t host = ChildOf(guard);
  wire.Forget();
  const auto start = Clock::now();
  ::kill(host, signal);
  wire.AwaitZero();
  times.first_zero.Add(MsSince(start));
  while (drive.SpeedRpm() != 0) std::this_thread::sleep_for(std::chrono::microseconds(200));
  times.standstill.Add(MsSince(start));
  ::waitpid(guard, nullptr, 0);
  times.end.Add(MsSince(start));
}

void Print(const std::string& what, const Figure& figure) {
  fmt::print("{:<50} {:>9.2f} {:>9.2f}\n", what, figure.Median(), figure.Quantile(1));
}

void Measure(const Setting& setting, const std::string& what, int signal,
             const std::vector<std::string>& options) {
  Times times;
  for (int run = 0; run < setting.runs; ++run) Run(setting, signal, options, times);
  Print(what + " to the first zero, ms", times.first_zero);
  Print(what + " to standstill, ms", times.standstill);
  Print(what + " to the end of the guard, ms", times.end);
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

void MeasureCost(const Setting& setting, double seconds) {
  const Wire wire;
  const pid_t guard =
      Spawn({setting.motorctl, "guard", "1", "--make", setting.make, "--", "/bin/sleep", "600"});
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const long before = Ticks(guard);
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
  const double passed = MsSince(start) / 1000;
  const double cpu =
      static_cast<double>(Ticks(guard) - before) / static_cast<double>(::sysconf(_SC_CLK_TCK));
  std::ifstream file(fmt::format("/proc/{}/status", guard));
  std::string line;
  while (std::getline(file, line) && line.compare(0, 6, "VmRSS:") != 0) {
  }
  fmt::print("waiting at {:.0f} frames/s: {:.2f} % of a processor, {}\n",
             static_cast<double>(sent) / passed, 100 * cpu / passed, line);
  ::kill(guard, SIGTERM);
  ::waitpid(guard, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) try {
  Setting setting;
  bool own_network = false;
  double seconds = 2;
  CLI::App app("How long wheels outlive their host under motorctl guard.");
  app.add_option("motorctl", setting.motorctl, "the built motorctl")->required();
  app.add_option("--make", setting.make, "of the simulated drive (zl)");
  app.add_option("--runs", setting.runs, "of each measure (5)")->check(CLI::Range(1, 10'000));
  app.add_option("--seconds", seconds, "of the busy bus (2)")->check(CLI::Range(1, 3600));
  app.add_flag("--own-network", own_network, "in a network namespace of its own");
  CLI11_PARSE(app, argc, argv);
  if (own_network) EnterOwnNetwork("can0", "can1");
  fmt::print("{:<50} {:>9} {:>9}\n", fmt::format("{}, {} runs", setting.make, setting.runs),
             "median", "worst");
  Measure(setting, "kill -9", SIGKILL, {});
  Measure(setting, "SIGSTOP, --fresh-ms 200,", SIGSTOP, {"--fresh-ms", "200"});
  MeasureCost(setting, seconds);
  return 0;
} catch (const std::exception& error) {
  fmt::print(stderr, "motor-driver-guard-bench: {}\n", error.what());
  return 1;
}
