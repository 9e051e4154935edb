#include "drives.h"

#include <fmt/core.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "sim/can_socket.h"
#include "sim/makes.h"
#include "sim/node.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr sim::Time kLongestSleep = std::chrono::milliseconds(100);

// No two clocks are the same. This one is off by more than a quartz is, so that reports arrive at
// every moment of the host's cycle within a few seconds, and no figure hangs on one of them.
sim::Time DriveTime(Clock::time_point start) {
  return std::chrono::duration_cast<sim::Time>((Clock::now() - start) * 1003 / 1000);
}

}  // namespace

DrivesProcess::DrivesProcess(const std::string& make, std::uint32_t count,
                             const std::string& interface) {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  std::vector<std::string> words = {
      "motor-driver-bench",     "--hold-drives",   make,     "--nodes",
      fmt::format("{}", count), "--far-interface", interface};
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
  const int error =
      ::posix_spawn(&process_, "/proc/self/exe", &actions, nullptr, arguments.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  control_ = ends[0];
  char ready = 0;
  if (error != 0 || ::read(control_, &ready, 1) != 1) {
    ::close(control_);
    if (error == 0) {
      ::waitpid(process_, nullptr, 0);
    }
    throw std::runtime_error("the simulated drives cannot be started on " + interface);
  }
}

DrivesProcess::~DrivesProcess() {
  ::close(control_);
  ::waitpid(process_, nullptr, 0);
}

int HoldDrives(const std::string& make, std::uint32_t count, const std::string& interface) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::prctl(PR_SET_TIMERSLACK, 1UL);
  // One socket for all: what each further socket of this end costs is spent in the sender's name.
  sim::CanSocket bus(interface);
  std::deque<sim::Frame> to_send;
  std::vector<std::unique_ptr<sim::Node>> nodes;
  for (std::uint32_t id = 1; id <= count; ++id) {
    sim::Node::Options options;
    options.node_id = static_cast<std::uint8_t>(id);
    nodes.push_back(std::make_unique<sim::Node>(
        sim::FindMake(make), options, [&](const sim::Frame& frame) { to_send.push_back(frame); }));
    nodes.back()->PowerOn();
  }
  const auto start = Clock::now();
  const char ready = 1;
  if (::write(STDIN_FILENO, &ready, 1) != 1) {
    return 1;
  }
  for (;;) {
    const sim::Time present = DriveTime(start);
    for (const auto& node : nodes) {
      while (node->now() + sim::kStep <= present) {
        node->Step();
      }
    }
    while (const auto frame = bus.Read()) {
      for (const auto& node : nodes) {
        node->Receive(*frame);
      }
    }
    while (!to_send.empty() && bus.Write(to_send.front())) {
      to_send.pop_front();
    }
    sim::Time next = present + kLongestSleep;
    for (const auto& node : nodes) {
      next = std::min(next, node->NextEvent());
    }
    const auto sleep = std::max<std::chrono::nanoseconds>(next - DriveTime(start), sim::Time(0));
    const timespec timeout = {0, static_cast<long>(sleep.count())};
    pollfd sources[] = {{bus.fd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    ::ppoll(sources, 2, &timeout, nullptr);
    if (sources[1].revents != 0) {
      return 0;
    }
  }
}
