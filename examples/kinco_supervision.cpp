// Two Kinco drives under supervision: what a host sees of an emergency stop that is pressed,
// released, and recovered from by the library.
//
// Meant to be copied. The division of labour:
//   - the library's loop watches heartbeats and status PDOs, waits after the release of an
//   emergency
//     stop and brings the drives back into operation
//   - the host commands zero speed from the first moment a node is not ready, and decides alone
//   when
//     to turn again: a drive that comes back must not find an old speed waiting for it
//   - however the run ends, zero speed is sent until the measured speeds say that it arrived

#include <kinco_driver.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

constexpr std::uint32_t kSdoRequest = 0x600;
constexpr std::uint32_t kHeartbeat = 0x700;
constexpr std::uint8_t kWrite4Bytes = 0x23;
constexpr std::uint16_t kTargetVelocity = 0x60FF;

constexpr std::uint16_t kPeriodMs = 10;
constexpr auto kPeriod = std::chrono::milliseconds(kPeriodMs);
constexpr int kAttempts = 3;
constexpr auto kStopTime = std::chrono::seconds(3);
// Heartbeats come every 2 s.
constexpr auto kReadyTime = std::chrono::seconds(5);
constexpr double kHeartbeatTimeoutS = 5;
constexpr int kStandstillReadings = 10;
constexpr double kStandstillRpm = 1.0;

struct Options {
  std::string interface = "can0";
  std::vector<int> nodes = {1, 2};
  std::string config;
  unsigned long counts_per_revolution = 10000;
  int rpm = 60;
  double seconds = 10;
};

volatile sig_atomic_t g_end_requested = 0;

void RequestEnd(int) { g_end_requested = 1; }

// A closed terminal or pipe must not kill the one who can stop the wheels.
void CatchSignals() {
  struct sigaction action = {};
  action.sa_handler = RequestEnd;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    sigaction(signal, &action, nullptr);
  }
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
}

void Say(const std::string& text) { std::fprintf(stderr, "kinco_supervision: %s\n", text.c_str()); }

// A frame that was lost is worth another attempt; every part of the bring-up may be repeated.
template <typename Operation>
bool InSomeAttempt(Operation operation) {
  for (int attempt = 0; attempt < kAttempts && g_end_requested == 0; ++attempt) {
    if (operation()) {
      return true;
    }
  }
  return false;
}

const char* NameOf(DriverStatus status) {
  switch (status) {
    case DriverStatus::BootUp:
      return "BootUp";
    case DriverStatus::Ready:
      return "Ready";
    case DriverStatus::Fault:
      return "Fault";
    case DriverStatus::EmergencyStop:
      return "EmergencyStop";
    case DriverStatus::Unknown:
      break;
  }
  return "Unknown";
}

struct Node {
  std::uint8_t id;
  DriverStatus status = DriverStatus::Unknown;
  double rpm = 0;
  int readings_at_standstill = 0;
};

class Host {
 public:
  explicit Host(const Options& options)
      : options_(options), drive_(options.interface.c_str(), options.counts_per_revolution) {
    for (const int id : options.nodes) {
      Node node = {};
      node.id = static_cast<std::uint8_t>(id);
      nodes_.push_back(node);
    }
  }

  bool LoadConfiguration();
  bool StartSupervision();

  // From here on the wheels can turn: StopWheels() must follow, whatever the result.
  bool EnableNodes();
  bool Run();

  // True when every wheel was measured to stand still.
  bool StopWheels();

 private:
  bool BusWorks();
  bool SetUp(std::uint8_t id);
  bool AllReady() const;
  bool AllOnline();
  bool Command(int rpm);
  void TakeReadings();
  void LookAtNodes();
  void Show(const Node& node);

  const Options& options_;
  std::vector<Node> nodes_;
  const Clock::time_point begin_ = Clock::now();
  KincoDriver drive_;
};

// Throws when a code of the file is no number: a mistake that must be mended, not lived with.
bool Host::LoadConfiguration() {
  if (options_.config.empty() || drive_.LoadDriverConfig(options_.config)) {
    return true;
  }
  Say("cannot load " + options_.config);
  return false;
}

bool Host::BusWorks() {
  if (drive_.GetCanError() == 0) {
    return true;
  }
  Say("the bus failed (error " + std::to_string(drive_.GetCanError()) + "): is there a " +
      options_.interface + ", and is it up? See \"ip link\"; without hardware: tools/with-can");
  return false;
}

bool Host::StartSupervision() {
  if (!BusWorks()) {
    return false;
  }
  for (const Node& node : nodes_) {
    drive_.AddHeartbeatId(kHeartbeat + node.id);
  }
  drive_.SetHeartbeatTimeOut(kHeartbeatTimeoutS);
  drive_.StartErrorParsingLoop();
  return true;
}

bool Host::SetUp(std::uint8_t id) {
  const std::string name = "node " + std::to_string(id);
  // The drive keeps what a crashed host commanded last, and would turn as soon as it is enabled.
  if (!InSomeAttempt([&] {
        return drive_.SdoWriteWithFeedback(kSdoRequest + id, kWrite4Bytes, kTargetVelocity, 0, 0);
      })) {
    Say(name + " does not take zero target velocity: is it on the bus?");
    return false;
  }
  drive_.Init(id, kPeriodMs);
  if (!InSomeAttempt([&] { return drive_.ActiveNode(id); })) {
    Say(name + " cannot be activated");
    return false;
  }
  if (!InSomeAttempt([&] { return drive_.EnableSpeedModeAndPdoMode(id, kPeriodMs) == 0; })) {
    Say("writes of the set-up failed on " + name);
    return false;
  }
  return true;
}

bool Host::EnableNodes() {
  if (!std::all_of(nodes_.begin(), nodes_.end(),
                   [this](const Node& node) { return SetUp(node.id); })) {
    return false;
  }
  const auto deadline = Clock::now() + kReadyTime;
  while (!AllReady() || !AllOnline()) {
    if (Clock::now() > deadline || g_end_requested != 0) {
      Say("not every node became ready and sends heartbeats");
      return false;
    }
    std::this_thread::sleep_for(kPeriod);
    LookAtNodes();
  }
  drive_.set_speed_command_enabled(true);
  return true;
}

bool Host::AllReady() const {
  return std::all_of(nodes_.begin(), nodes_.end(),
                     [](const Node& node) { return node.status == DriverStatus::Ready; });
}

bool Host::AllOnline() {
  return std::all_of(nodes_.begin(), nodes_.end(),
                     [this](const Node& node) { return drive_.IsNodeOnline(node.id); });
}

bool Host::Command(int rpm) {
  bool sent = true;
  for (const Node& node : nodes_) {
    sent = drive_.SetSpeed(node.id, rpm) && sent;
  }
  return sent;
}

// Takes every queued frame. GetSpeed() answers false for a frame that is no position report, so its
// result alone does not tell whether the queue is empty.
void Host::TakeReadings() {
  while (drive_.GetReadQueueSize() > 0) {
    std::uint8_t id = 0;
    double rpm = 0;
    int counts = 0;
    if (!drive_.GetSpeed(id, rpm, counts)) {
      continue;
    }
    for (Node& node : nodes_) {
      if (node.id == id) {
        node.rpm = rpm;
        const bool stands = std::abs(rpm) < kStandstillRpm;
        node.readings_at_standstill = stands ? node.readings_at_standstill + 1 : 0;
      }
    }
  }
}

void Host::LookAtNodes() {
  for (Node& node : nodes_) {
    const DriverStatus status = drive_.GetDriverStatus(node.id);
    if (status != node.status) {
      node.status = status;
      Show(node);
    }
  }
}

void Host::Show(const Node& node) {
  const double second = std::chrono::duration<double>(Clock::now() - begin_).count();
  std::printf("%6.2f s  node %u  %-13s %5.0f rpm  %s", second, node.id, NameOf(node.status),
              node.rpm, drive_.GetDriverStatusDetails(node.id).c_str());
  if (node.status == DriverStatus::Fault) {
    const ErrorCodeInfo error = drive_.GetErrorCode(node.id);
    std::printf(" error: %s (event %u)", error.msg.c_str(), error.code);
  }
  std::printf("\n");
  std::fflush(stdout);
}

bool Host::Run() {
  const auto end = Clock::now() + std::chrono::duration<double>(options_.seconds);
  auto next_table = Clock::now();
  auto next = Clock::now();
  while (Clock::now() < end) {
    if (g_end_requested != 0) {
      Say("interrupted");
      return true;
    }
    if (!BusWorks()) {
      return false;
    }
    Command(AllReady() ? options_.rpm : 0);
    next = std::max(next + kPeriod, Clock::now());
    std::this_thread::sleep_until(next);
    TakeReadings();
    LookAtNodes();
    for (const Node& node : nodes_) {
      if (node.status == DriverStatus::Fault || !drive_.IsNodeOnline(node.id)) {
        Say("node " + std::to_string(node.id) +
            (node.status == DriverStatus::Fault ? " has a fault" : " sends no heartbeat any more"));
        return false;
      }
    }
    if (Clock::now() >= next_table) {
      next_table += std::chrono::seconds(1);
      std::for_each(nodes_.begin(), nodes_.end(), [this](const Node& node) { Show(node); });
    }
  }
  if (!AllReady()) {
    Say("not every node is ready at the end");
  }
  return AllReady();
}

// Leaves the drives enabled: at zero speed they hold the wheels, released they would let a vehicle
// on a slope roll.
bool Host::StopWheels() {
  for (Node& node : nodes_) {
    node.readings_at_standstill = 0;
  }
  const auto deadline = Clock::now() + kStopTime;
  while (Clock::now() < deadline) {
    if (drive_.GetCanError() != 0) {
      // Whatever happened to the transport, the wheels may still turn at the last speed commanded.
      drive_.CanRecover();
    }
    const bool sent = Command(0);
    std::this_thread::sleep_for(kPeriod);
    TakeReadings();
    if (sent && std::all_of(nodes_.begin(), nodes_.end(), [](const Node& node) {
          return node.readings_at_standstill >= kStandstillReadings;
        })) {
      Say("zero speed sent; every wheel stands still");
      return true;
    }
  }
  Say("zero speed sent, but the STOP COULD NOT BE CONFIRMED: secure the vehicle");
  return false;
}

int Run(const Options& options) {
  Host host(options);
  if (!host.LoadConfiguration() || !host.StartSupervision()) {
    return kFailure;
  }
  const bool well = host.EnableNodes() && host.Run();
  return host.StopWheels() && well ? kSuccess : kFailure;
}

int ParseAndRun(int argc, char** argv) {
  Options options;
  CLI::App app("Turns two Kinco drives and shows how the library supervises them.",
               "kinco_supervision");
  app.footer("Exit status: 0 all nodes ready at the end and standing still, 1 not so, 2 usage.");
  app.option_defaults()->always_capture_default();
  app.add_option("--interface", options.interface, "CAN interface")
      ->check(
          [](const std::string& name) { return name.size() < 16 ? "" : "at most 15 characters"; });
  app.add_option("--node", options.nodes, "node-ID, may be given several times")
      ->check(CLI::Range(1, 4));
  app.add_option("--config", options.config, "texts and wait, for instance kinco.yaml");
  app.add_option("--counts-per-revolution", options.counts_per_revolution, "of the encoder")
      ->check(CLI::Range(1, 1'000'000));
  app.add_option("--rpm", options.rpm, "speed of both wheels")->check(CLI::Range(-3000, 3000));
  app.add_option("--seconds", options.seconds, "length of the run")->check(CLI::Range(1, 9999));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kSuccess : kUsage;
  }
  // The library logs to standard output unless told otherwise, between the rows of the table.
  setenv("SPDLOG_STDOUT", "false", 0);
  setenv("SPDLOG_SYSTEMD", "false", 0);
  setenv("SPDLOG_LEVEL", "info", 0);
  CatchSignals();
  return Run(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return ParseAndRun(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kinco_supervision: %s\n", error.what());
    return kFailure;
  }
}
