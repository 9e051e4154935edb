// A complete small host: brings a drive up, turns its wheels through a speed profile, watches
// everything that can go wrong on the way, and does not end before the wheels stand still.
//
// Meant to be copied. What a host must not leave out:
//   - target velocities are zero, confirmed, before the drive is enabled
//   - a set-up with failed writes is no set-up
//   - liveness, feedback and transport are looked at in every cycle; nothing watches by itself
//   - however the motion ends, zero speed is sent until the measured speed says that it arrived

#include <driver_common.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "make.h"
#include "speed_profile.h"
#include "wheel_speeds.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;

constexpr std::uint32_t kSdoRequest = 0x600;
constexpr std::uint32_t kHeartbeat = 0x700;
constexpr std::uint8_t kRead = 0x40;
constexpr std::uint16_t kErrorCode = 0x603F;

constexpr int kNotHeard = -1;
constexpr int kOperational = 5;

constexpr int kSetUpAttempts = 3;
// A wheel that is further off its settled speed, as a share of it, is blocked or out of control.
constexpr double kFollows = 0.5;

// A drive that has not sent its boot-up message by then is asked all the same.
constexpr auto kBootTime = std::chrono::seconds(2);
constexpr auto kAnswerTime = std::chrono::seconds(3);
constexpr std::uint16_t kHeartbeatPeriodMs = 2000;
constexpr auto kStartTime = std::chrono::seconds(5);
// Readings of the first cycles may be older than the command to stop.
constexpr int kStopCycles = 20;
constexpr auto kStopTime = std::chrono::seconds(3);
constexpr auto kFeedbackTime = std::chrono::milliseconds(250);
constexpr auto kPause = std::chrono::milliseconds(20);

struct Options {
  std::string interface = "can0";
  int node = 1;
  int period_ms = 10;
  std::string make = "zl";
  int rpm = 60;
  double seconds = 8;
  double heartbeat_timeout_s = 5;
  std::string table = "auto";
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

void Say(const std::string& text) { std::fprintf(stderr, "drive_cycle: %s\n", text.c_str()); }

// Runs a loop once per period. A late cycle is not made up for: a burst of cycles without pause
// would take a healthy drive for a silent one.
class Pacer {
 public:
  explicit Pacer(std::chrono::milliseconds period) : period_(period), next_(Clock::now()) {}
  void Wait() {
    next_ = std::max(next_ + period_, Clock::now());
    std::this_thread::sleep_until(next_);
  }

 private:
  std::chrono::milliseconds period_;
  Clock::time_point next_;
};

class Host {
 public:
  Host(const Options& options, const Make& make)
      : options_(options),
        make_(make),
        node_(static_cast<std::uint8_t>(options.node)),
        period_(options.period_ms),
        drive_(make.create(options.interface.c_str())) {}

  // Everything up to a drive that answers and has nothing to do. Nothing is enabled.
  bool Prepare();

  // From here on the wheels can turn: StopWheels() must follow, whatever the result.
  bool EnableAndStart();
  bool RunCycle(SpeedVerdict& verdict);

  // True when the wheels were measured to stand still.
  bool StopWheels();

  void SayDriveError();

 private:
  std::uint32_t SdoId() const { return kSdoRequest + node_; }
  std::string NodeName() const { return "node " + std::to_string(node_); }
  std::string LinkCommand() const {
    return "ip link set " + options_.interface + " up type can bitrate 500000 restart-ms 100";
  }
  bool BusWorks();
  bool ZeroTargetVelocities(std::uint32_t& abort_code);
  bool WaitForAnswer();
  bool WaitForFeedback();
  bool Healthy();
  bool Follows(const ProfilePoint& point);
  template <typename OnReading>
  void TakeReadings(OnReading on_reading);

  const Options& options_;
  const Make& make_;
  const std::uint8_t node_;
  const std::chrono::milliseconds period_;
  LatestSpeeds latest_;
  int cycles_without_feedback_ = 0;
  // NMT state in the last heartbeat; written by the receive thread.
  std::atomic<int> node_state_{kNotHeard};
  // Last, so that it goes first: its receive thread uses the state above.
  std::unique_ptr<DriverCommon> drive_;
};

bool Host::BusWorks() {
  const std::string& name = options_.interface;
  switch (drive_->GetCanError()) {
    case 0:
      return true;
    case 1:
      Say("no CAN socket: this kernel has no SocketCAN (modprobe can_raw; without hardware: "
          "tools/with-can)");
      return false;
    case 2:
      Say("no CAN interface \"" + name +
          "\": see \"ip link\", or try without hardware under "
          "tools/with-can");
      return false;
    default:
      Say("the bus failed (error " + std::to_string(drive_->GetCanError()) + "): is " + name +
          " up? " + LinkCommand());
      return false;
  }
}

bool Host::Prepare() {
  if (!BusWorks()) {
    return false;
  }
  // Before the heartbeat is registered: from then on the boot-up message that tells success would
  // be consumed as a heartbeat.
  if (make_.must_be_woken && !drive_->ActiveNode(node_)) {
    Say(NodeName() + " does not wake up on " + options_.interface +
        ": check its supply, node number and bit rate, and the termination of the bus");
    return false;
  }
  drive_->AddHeartbeatId(kHeartbeat + node_);
  drive_->AddHeartbeatCallback(kHeartbeat + node_, [this](HeartbeatTimeout& heartbeat) {
    drive_->HeartbeatCallback(heartbeat);  // the library's own warning of restarts stays
    node_state_ = heartbeat.state;
  });
  drive_->SetHeartbeatTimeOut(options_.heartbeat_timeout_s);
  if (!drive_->ResetNode(node_)) {
    Say("cannot send on " + options_.interface + ": is it up (" + LinkCommand() +
        "), and does anything on the bus acknowledge?");
    return false;
  }
  return WaitForAnswer();
}

// Also zeroes the target velocities: the drive keeps what a crashed host commanded last, and would
// turn the wheels as soon as it is enabled.
bool Host::WaitForAnswer() {
  const auto reset = Clock::now();
  std::uint32_t abort_code = 0;
  while (Clock::now() < reset + kAnswerTime && g_end_requested == 0) {
    // A write that the drive answers just before it resets would prove nothing.
    if (node_state_ == kNotHeard && Clock::now() < reset + kBootTime) {
      std::this_thread::sleep_for(kPause);
      continue;
    }
    if (ZeroTargetVelocities(abort_code)) {
      return true;
    }
    if (!BusWorks()) {
      return false;
    }
    std::this_thread::sleep_for(kPause);
  }
  if (g_end_requested != 0) {
    Say("interrupted before the drive was enabled");
  } else if (abort_code != 0) {
    char code[16];
    std::snprintf(code, sizeof(code), "0x%08X", abort_code);
    Say(NodeName() + " refuses zero target velocity with abort code " + code + "; not enabled");
  } else {
    Say("no drive answers as " + NodeName() + " on " + options_.interface +
        ": check its supply, node number and bit rate, and the termination of the bus");
  }
  return false;
}

// `abort_code`: the drive's reason when it refused, 0 when it did not answer.
bool Host::ZeroTargetVelocities(std::uint32_t& abort_code) {
  for (const TargetVelocity& target : make_.target_velocities) {
    if (!drive_->SdoWriteWithFeedbackData(SdoId(), target.command, target.index, target.sub_index,
                                          0, &abort_code)) {
      return false;
    }
  }
  return true;
}

bool Host::EnableAndStart() {
  if (!make_.must_be_woken && !drive_->ActiveNode(node_)) {
    Say(NodeName() + " cannot be cleared of its fault");
    return false;
  }
  node_state_ = kNotHeard;
  // A frame that was lost is worth another attempt; the set-up may be repeated as a whole.
  int failures = 0;
  for (int attempt = 0; attempt < kSetUpAttempts && g_end_requested == 0; ++attempt) {
    failures =
        drive_->EnableSpeedModeAndPdoMode(node_, static_cast<std::uint16_t>(options_.period_ms));
    if (failures == 0) {
      break;
    }
  }
  if (failures != 0) {
    Say(std::to_string(failures) + " of the writes of the set-up failed on " + NodeName());
    return false;
  }
  // Not every make's set-up asks for one.
  drive_->SetHeartbeatPacket(node_, kHeartbeatPeriodMs);
  drive_->StartNode(node_);
  return WaitForFeedback();
}

// The drive is trusted with a speed once it was heard in operation and its wheels stand still.
bool Host::WaitForFeedback() {
  Pacer pacer(period_);
  const auto deadline = Clock::now() + kStartTime;
  bool feedback = false;
  while (Clock::now() < deadline) {
    if (g_end_requested != 0 || !BusWorks()) {
      return false;
    }
    make_.command(*drive_, node_, {0, 0});
    pacer.Wait();
    TakeReadings([&](const MeasuredRpm&) { feedback = true; });
    if (node_state_ == kOperational && latest_.Standing()) {
      drive_->set_is_initialized(true);
      return true;
    }
  }
  if (!feedback) {
    Say(NodeName() + " sends no positions (TPDO1)");
  } else if (!latest_.Standing()) {
    Say("a wheel turns although zero speed is commanded");
  } else {
    Say(NodeName() + " sends no heartbeat, or is not operational");
  }
  return false;
}

// Takes every queued frame. What GetSpeed() answers does not tell whether the queue is empty.
template <typename OnReading>
void Host::TakeReadings(OnReading on_reading) {
  ++cycles_without_feedback_;
  while (drive_->GetReadQueueSize() > 0) {
    MeasuredRpm rpm = {};
    if (make_.measure(*drive_, node_, rpm)) {
      cycles_without_feedback_ = 0;
      latest_.Add(rpm);
      on_reading(rpm);
    }
  }
}

bool Host::Healthy() {
  if (!BusWorks()) {
    return false;
  }
  if (cycles_without_feedback_ > 5 && cycles_without_feedback_ * period_ > kFeedbackTime) {
    Say(NodeName() + " sends no positions any more");
    return false;
  }
  if (!drive_->IsNodeOnline(node_)) {
    Say(NodeName() + " sends no heartbeat any more");
    return false;
  }
  if (node_state_ != kOperational) {
    Say(NodeName() + " left the operational state: did it restart?");
    return false;
  }
  return true;
}

bool Host::Follows(const ProfilePoint& point) {
  const MeasuredRpm measured = latest_.Mean();
  for (std::size_t wheel = 0; wheel < make_.wheels && point.settled; ++wheel) {
    const double target = point.target[wheel];
    if (std::abs(measured[wheel] - target) > kFollows * std::abs(target)) {
      Say("wheel " + std::to_string(wheel + 1) + " does not follow its speed command");
      return false;
    }
  }
  return true;
}

bool Host::RunCycle(SpeedVerdict& verdict) {
  const SpeedProfile profile(options_.rpm, options_.seconds);
  const bool in_place =
      options_.table == "live" || (options_.table == "auto" && isatty(STDOUT_FILENO) != 0);
  SpeedTable table(in_place, make_.wheels, profile.seconds());
  Pacer pacer(period_);
  cycles_without_feedback_ = 0;
  // Time advances by cycles: a host that was held up goes on where it was instead of jumping.
  for (auto time = std::chrono::milliseconds(0);; time += period_) {
    const double second = std::chrono::duration<double>(time).count();
    if (second >= profile.seconds()) {
      return true;
    }
    if (g_end_requested != 0) {
      Say("interrupted");
      return true;
    }
    const ProfilePoint point = profile.At(second);
    make_.command(*drive_, node_, point.target);
    pacer.Wait();
    TakeReadings([&](const MeasuredRpm& rpm) { verdict.Add(point, rpm); });
    if (!Healthy() || !Follows(point)) {
      return false;
    }
    table.Show(second, point, latest_.Mean());
  }
}

// Leaves the drive enabled: at zero speed it holds the wheels, released it would let a vehicle on a
// slope roll.
bool Host::StopWheels() {
  Pacer pacer(period_);
  const auto deadline = Clock::now() + kStopTime;
  int cycles = 0;
  latest_.Clear();
  while (Clock::now() < deadline) {
    if (drive_->GetCanError() != 0) {
      // Whatever happened to the transport, the wheels may still turn at the last speed commanded.
      drive_->CanRecover();
      std::this_thread::sleep_for(kPause);
    }
    // Only what went out counts: on a bus that was away the drive has heard none of it.
    if (make_.command(*drive_, node_, {0, 0})) {
      ++cycles;
    }
    pacer.Wait();
    TakeReadings([](const MeasuredRpm&) {});
    if (cycles >= kStopCycles && latest_.Standing()) {
      Say(make_.wheels == 2 ? "zero speed sent; both wheels stand still"
                            : "zero speed sent; the wheel stands still");
      return true;
    }
  }
  // A drive that is not in operation hears no PDOs, but still SDOs.
  std::uint32_t abort_code = 0;
  Say(ZeroTargetVelocities(abort_code)
          ? "the drive took zero target velocity, but the STOP WAS NOT MEASURED: look at the wheels"
          : "zero speed sent, but the STOP COULD NOT BE CONFIRMED: secure the vehicle");
  return false;
}

void Host::SayDriveError() {
  std::uint32_t code = 0;
  if (drive_->SdoWriteWithFeedbackData(SdoId(), kRead, kErrorCode, 0, 0, &code) && code != 0) {
    char text[48];
    std::snprintf(text, sizeof(text), " reports error code 0x%08X", code);
    Say(NodeName() + text);
  }
}

int Run(const Options& options) {
  const Make& make = FindMake(options.make);
  Host host(options, make);
  if (!host.Prepare()) {
    return kFailure;
  }
  SpeedVerdict verdict(make.wheels);
  bool done = false;
  try {
    done = host.EnableAndStart() && host.RunCycle(verdict);
  } catch (const std::exception& error) {
    Say(error.what());
  }
  const bool stopped = host.StopWheels();
  if (!done || !verdict.WithinTolerance()) {
    host.SayDriveError();
  }
  std::printf("%s\n", verdict.Summary().c_str());
  return done && stopped && verdict.WithinTolerance() ? kSuccess : kFailure;
}

int ParseAndRun(int argc, char** argv) {
  Options options;
  CLI::App app("Turns the wheels of a drive through a speed profile of " +
               std::to_string(SpeedProfile::kMovingPhases) +
               " phases and a stop, and compares\nmeasured with commanded speed once a phase has "
               "settled (0.3 s after its ramp).\n\n"
               "Exit status: 0 all speeds within 2 % and the stop confirmed; 1 failure; 2 usage.\n"
               "SPDLOG_STDOUT=true shows the library's log.");
  app.get_formatter()->column_width(46);
  app.option_defaults()->always_capture_default();
  app.add_option("--interface", options.interface, "CAN interface")
      ->check([](const std::string& name) {
        return name.empty() || name.size() > 15 ? "1 to 15 characters" : std::string();
      });
  app.add_option("--node", options.node, "node number")->check(CLI::Range(1, 127));
  app.add_option("--make", options.make, "make of drive")->check(CLI::IsMember(MakeNames()));
  app.add_option("--period-ms", options.period_ms, "PDO and control period")
      ->check(CLI::Range(2, 100));
  app.add_option("--rpm", options.rpm, "highest speed")->check(CLI::Range(10, 3000));
  app.add_option("--seconds", options.seconds, "length of the motion")
      ->check(CLI::Range(SpeedProfile::kShortest, 86400.0));
  app.add_option("--heartbeat-timeout", options.heartbeat_timeout_s,
                 "seconds without heartbeat that make a node dead")
      ->check(CLI::Range(2.5, 60.0));
  app.add_option("--table", options.table, "speeds as table in place, or as lines")
      ->check(CLI::IsMember({"auto", "live", "lines"}));
  try {
    app.parse(argc, argv);
    const std::vector<int>& nodes = FindMake(options.make).nodes;
    if (std::find(nodes.begin(), nodes.end(), options.node) == nodes.end()) {
      std::string text = "make " + options.make + " decodes the feedback of";
      for (const int node : nodes) {
        text += (node == nodes.front() ? " node " : " and node ") + std::to_string(node);
      }
      throw CLI::ValidationError("--node", text + " only");
    }
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == kSuccess ? kSuccess : kUsage;
  }
  // The library logs to standard output unless told otherwise, and would tear the table apart.
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
    std::fprintf(stderr, "drive_cycle: %s\n", error.what());
    return kFailure;
  }
}
