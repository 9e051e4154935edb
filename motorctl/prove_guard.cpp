#include "prove_guard.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "guarded_command.h"
#include "listener.h"
#include "signals.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;

constexpr const char* kJogSeconds = "30";
constexpr auto kLongestRun = std::chrono::seconds(30);
constexpr auto kLongestStop = std::chrono::seconds(10);
constexpr auto kStanding = milliseconds(200);
constexpr auto kBetweenLooks = milliseconds(50);
constexpr int kKilled = 128 + SIGKILL;

// motorctl guard NODE -- motorctl jog NODE ..., with the samples of the jog.
class GuardedJog {
 public:
  GuardedJog(const Context& context, const Proof& proof) {
    const Vehicle& vehicle = context.vehicle;
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string node = std::to_string(proof.node);
    const std::vector<std::string> common = {"--make",
                                             vehicle.make,
                                             "--interface",
                                             vehicle.interface,
                                             "--counts-per-revolution",
                                             std::to_string(vehicle.counts_per_revolution)};
    std::vector<std::string> words = {self, "guard", node};
    words.insert(words.end(), common.begin(), common.end());
    words.insert(words.end(), {"--", self, "jog", node, "--rpm", std::to_string(proof.rpm),
                               "--seconds", kJogSeconds, "--yes", "--json"});
    words.insert(words.end(), common.begin(), common.end());
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);

    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
    samples_ = ends[0];
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_adddup2(&files, ends[1], STDOUT_FILENO);
    posix_spawnattr_t attributes;
    ::posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    ::posix_spawnattr_setsigmask(&attributes, &none);
    ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const int failure =
        ::posix_spawn(&process_, self.c_str(), &files, &attributes, pointers.data(), environ);
    ::posix_spawn_file_actions_destroy(&files);
    ::posix_spawnattr_destroy(&attributes);
    ::close(ends[1]);
    if (failure != 0) throw std::system_error(failure, std::generic_category(), self);
  }
  // An orderly end of everything, whatever happened here.
  ~GuardedJog() {
    if (process_ > 0) {
      ::kill(process_, SIGTERM);
      ::waitpid(process_, nullptr, 0);
    }
    ::close(samples_);
  }
  GuardedJog(const GuardedJog&) = delete;
  GuardedJog& operator=(const GuardedJog&) = delete;

  // Whether the wheel turns at half of `rpm` now.
  bool AwaitTurning(int rpm, EndSignals& signals) {
    const auto deadline = Clock::now() + kLongestRun;
    std::string text;
    while (Clock::now() < deadline && !signals.Arrived()) {
      pollfd readable = {samples_, POLLIN, 0};
      if (::poll(&readable, 1, static_cast<int>(kBetweenLooks.count())) <= 0) continue;
      char buffer[4096];
      const ssize_t bytes = ::read(samples_, buffer, sizeof(buffer));
      if (bytes <= 0) return false;
      text.append(buffer, static_cast<std::size_t>(bytes));
      for (std::size_t end = 0; (end = text.find('\n')) != std::string::npos;) {
        const Json sample = Json::parse(text.substr(0, end), nullptr, false);
        text.erase(0, end + 1);
        if (sample.is_object() && sample.value("event", "") == "sample" &&
            std::abs(sample["measured_rpm"][0].get<double>()) >= rpm / 2.0) {
          return true;
        }
      }
    }
    return false;
  }

  bool KillHost() {
    const std::vector<pid_t> hosts = ChildrenOf(process_);
    return hosts.size() == 1 && ::kill(hosts.front(), SIGKILL) == 0;
  }

  // The exit status of the guard.
  int Wait() {
    int status = 0;
    ::waitpid(process_, &status, 0);
    process_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t process_ = -1;
  int samples_ = -1;
};

// How long its reports went on to change; nothing when there were none, or no end.
std::optional<milliseconds> AwaitStandstill(Listener& reports, const motor_driver::Field& field) {
  const auto start = Clock::now();
  auto changed = start;
  std::optional<std::uint32_t> position;
  while (Clock::now() < start + kLongestStop) {
    HeardFrame heard;
    if (reports.Hear(heard, kBetweenLooks)) {
      const std::uint32_t now = Load(heard.frame, field.offset, field.bits / 8);
      if (now != position) changed = Clock::now();
      position = now;
    }
    if (Clock::now() > changed + kStanding) {
      if (!position) return std::nullopt;
      return std::chrono::duration_cast<milliseconds>(changed - start);
    }
  }
  return std::nullopt;
}

int Answer(const Context& context, const Proof& proof, const std::string& failure,
           std::optional<milliseconds> standstill) {
  const bool passed = failure.empty();
  if (context.json) {
    context.Line(Json{{"command", "guard"},
                      {"event", "proof"},
                      {"node", proof.node},
                      {"ok", passed},
                      {"failure", passed ? Json(nullptr) : Json(failure)},
                      {"standstill_ms", standstill ? Json(standstill->count()) : Json(nullptr)}}
                     .dump());
  } else if (passed) {
    context.Line(context.Coloured(Colour::kGreen, "PASSED") + ": node " +
                 std::to_string(proof.node) + " stood " + std::to_string(standstill->count()) +
                 " ms after its host was killed, and the guard confirmed it");
  } else {
    context.Line(context.Coloured(Colour::kRed, "FAILED") + ": " + failure);
  }
  return passed ? kSuccess : kFailure;
}

}  // namespace

int ProveGuard(const Context& context, const Proof& proof) {
  const ExitStatus confirmed =
      context.Ask(proof.yes, "node " + std::to_string(proof.node) + " will turn at " +
                                 std::to_string(proof.rpm) +
                                 " rpm and lose its host. Is the wheel off the ground?");
  if (confirmed != kSuccess) {
    context.Say("nothing was moved");
    return confirmed;
  }
  const motor_driver::Field& field = context.make->position;
  Listener reports(context.vehicle.interface, field.base_id + static_cast<canid_t>(proof.node),
                   CAN_SFF_MASK);
  EndSignals signals;
  GuardedJog jog(context, proof);
  if (!jog.AwaitTurning(proof.rpm, signals)) {
    return Answer(context, proof, "the wheel did not turn, so that nothing was proved", {});
  }
  // What was reported until now.
  for (HeardFrame heard; reports.Hear(heard, milliseconds(0));) {
  }
  if (!jog.KillHost()) return Answer(context, proof, "the host was gone by itself", {});
  const std::optional<milliseconds> standstill = AwaitStandstill(reports, field);
  const int status = jog.Wait();
  if (status != kKilled) {
    return Answer(context, proof, "the guard ended with status " + std::to_string(status),
                  standstill);
  }
  return Answer(context, proof,
                standstill ? "" : "no standstill was seen in the reports of the drive", standstill);
}

}  // namespace motorctl
