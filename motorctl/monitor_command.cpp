// motorctl monitor [NODE...]
//
// Only listens, unless --poll is given: another host may be driving.
#include <kinco_driver.h>
#include <poll.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bus_tap.h"
#include "bus_traffic.h"
#include "context.h"
#include "node_states.h"
#include "sdo_client.h"
#include "sheet_pdos.h"
#include "signals.h"
#include "terminal.h"
#include "words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

constexpr auto kRefresh = std::chrono::milliseconds(1000);
// The heartbeat that the makes' set-ups ask for comes every 2 s.
constexpr double kOnceSeconds = 2.5;
struct Options {
  std::vector<int> nodes;
  bool once = false;
  bool poll = false;
  double seconds = 0;  // 0: until a signal
  std::string config;
};

class Monitor {
 public:
  Monitor(const Context& context, const Options& options);
  int Run();

 private:
  std::string ErrorText(std::uint16_t code) const;
  void Listen();
  void Show();
  void ShowJson() const;
  std::vector<std::string> Rows(int id, const NodeState& node) const;

  const Context& context_;
  const Options& options_;
  SdoClient client_;
  std::unique_ptr<KincoDriver> kinco_;
  BusTap tap_;
  std::unique_ptr<BusTraffic> traffic_;
  NodeStates states_;
  SheetPdos pdos_;
  std::size_t drawn_lines_ = 0;
};

// PDOs are taken apart where the make is known.
const Make* MakeOfPdos(const Context& context) {
  return context.make == nullptr || context.make->simulated ? nullptr : context.make;
}

Monitor::Monitor(const Context& context, const Options& options)
    : context_(context),
      options_(options),
      client_(context.vehicle.interface, context.SdoTimeout()),
      tap_(context.vehicle.interface),
      states_(MakeOfPdos(context), context.vehicle.counts_per_revolution, options.nodes),
      pdos_(options.nodes) {
  tap_.Open();
  traffic_ = std::make_unique<BusTraffic>(context.vehicle.interface, tap_.hears_sent());
  const std::string config = options.config.empty() ? context.vehicle.texts : options.config;
  if (!config.empty()) {
    // Its texts only: its loop would lead drives out of an emergency stop.
    kinco_ = std::make_unique<KincoDriver>(context.vehicle.interface.c_str(),
                                           context.vehicle.counts_per_revolution);
    kinco_->StopReading();
    if (!kinco_->LoadDriverConfig(config)) {
      throw CommandFailed("cannot load " + config + "; --verbose shows why");
    }
  }
}

// Throws CommandFailed when the interface goes down or away.
void Monitor::Listen() {
  pollfd waited[] = {{tap_.received(), POLLIN, 0}, {tap_.sent(), POLLIN, 0}};
  ::poll(waited, std::size(waited), tap_.holds_frames() ? 5 : 50);
  const bool good = tap_.Take([this](const BusFrame& frame) {
    traffic_->Hear(frame);
    HeardFrame heard;
    heard.second = static_cast<double>(frame.nanoseconds) * 1e-9;
    heard.frame.can_id = frame.id;
    heard.frame.can_dlc = frame.length;
    std::copy_n(frame.data, sizeof(frame.data), heard.frame.data);
    states_.Hear(heard);
    // Those of a make are told as states and speeds.
    if (MakeOfPdos(context_) == nullptr) pdos_.Hear(heard);
  });
  if (!good) throw CommandFailed("the interface went down or away while listening");
}

int Monitor::Run() {
  EndSignals signals;
  const auto start = Clock::now();
  const double limit = options_.once && options_.seconds == 0 ? kOnceSeconds : options_.seconds;
  auto shown = start;
  for (;;) {
    Listen();
    const auto now = Clock::now();
    const bool over = limit > 0 && now - start >= std::chrono::duration<double>(limit);
    const bool ended = signals.Arrived() || over;
    if (ended || (!options_.once && now - shown >= kRefresh)) {
      if (options_.poll) states_.Poll(client_);
      states_.MeasureSpeeds();
      traffic_->Measure(std::chrono::duration<double>(now - shown).count());
      Show();
      shown = now;
      LibraryOutput::Take();
    }
    if (ended) break;
  }
  const bool none = states_.nodes().empty();
  if (none || !states_.AllHeard()) {
    context_.Say(none ? "no node was heard" : "not every node was heard");
    return kFailure;
  }
  return kSuccess;
}

std::string Monitor::ErrorText(std::uint16_t code) const {
  if (code == 0) return "no error";
  if (kinco_ != nullptr) {
    const ErrorCodeInfo info = kinco_->GetErrorCodeInfo(code);
    if (info.msg != "unknown") return info.msg;
  }
  return ErrorCodeText(code);
}

void Monitor::Show() {
  if (context_.json) {
    ShowJson();
  } else {
    std::vector<std::string> lines = traffic_->Lines();
    lines.front() = context_.Coloured(Colour::kBold, lines.front());
    for (const auto& [id, node] : states_.nodes()) {
      for (const std::string& row : Rows(id, node)) lines.push_back(row);
    }
    for (const auto& [place, pdo] : pdos_.heard()) lines.push_back(pdo.text);
    std::string picture;
    if (context_.live() && drawn_lines_ > 0) {
      picture = "\x1b[" + std::to_string(drawn_lines_) + "A";
    }
    for (const std::string& line : lines) picture += line + (context_.live() ? "\x1b[K\n" : "\n");
    context_.Write(picture);
    drawn_lines_ = lines.size();
  }
}

std::vector<std::string> Monitor::Rows(int id, const NodeState& node) const {
  if (!node.heard) return {"node " + std::to_string(id) + ": not heard"};
  std::vector<std::string> rows;
  char text[64] = "no heartbeat";
  if (node.nmt_state) {
    std::snprintf(text, sizeof(text), "%s, heartbeat %.1f s ago",
                  NmtStateText(*node.nmt_state).c_str(),
                  std::max(0.0, states_.now() - node.heartbeat_second));
  }
  const std::size_t motors = states_.motors();
  for (std::size_t i = 0; i < motors; ++i) {
    const MotorState& motor = node.motors[i];
    std::string row = "node " + std::to_string(id);
    if (motors > 1) row += " motor " + std::to_string(i + 1);
    row += std::string(": ") + text;
    if (motor.statusword) {
      row += "; status " + Hex(*motor.statusword, 4) + " " +
             StatuswordText(*motor.statusword, context_.make);
    }
    if (motor.error_code) {
      const std::string error = ErrorText(*motor.error_code);
      row += "; " + (*motor.error_code == 0
                         ? error
                         : context_.Coloured(Colour::kRed,
                                             "error " + Hex(*motor.error_code, 4) + " " + error));
    }
    if (motor.rpm) {
      char speed[32];
      std::snprintf(speed, sizeof(speed), "; %.1f rpm", *motor.rpm);
      row += speed;
    }
    if (motor.target_rpm) {
      char target[32];
      std::snprintf(target, sizeof(target), "%s target %.1f rpm", motor.rpm ? "," : ";",
                    *motor.target_rpm);
      row += target;
    }
    rows.push_back(row);
  }
  return rows;
}

void Monitor::ShowJson() const {
  context_.Line(traffic_->Json().dump());
  for (const auto& [id, node] : states_.nodes()) {
    Json motors = Json::array();
    for (std::size_t i = 0; i < states_.motors(); ++i) {
      const MotorState& motor = node.motors[i];
      const auto status = motor.statusword;
      const auto error = motor.error_code;
      motors.push_back(
          {{"statusword", status ? Json(*status) : Json(nullptr)},
           {"status", status ? Json(StatuswordText(*status, context_.make)) : Json(nullptr)},
           {"error_code", error ? Json(*error) : Json(nullptr)},
           {"error", error ? Json(ErrorText(*error)) : Json(nullptr)},
           {"rpm", motor.rpm ? Json(std::round(*motor.rpm * 10) / 10) : Json(nullptr)},
           {"target_rpm",
            motor.target_rpm ? Json(std::round(*motor.target_rpm * 10) / 10) : Json(nullptr)}});
    }
    context_.Line(Json{
        {"command", "monitor"},
        {"event", "node"},
        {"node", id},
        {"heard", node.heard},
        {"nmt_state", node.nmt_state ? Json(NmtStateText(*node.nmt_state)) : Json(nullptr)},
        {"heartbeat_age_s",
         node.nmt_state
             ? Json(std::round(std::max(0.0, states_.now() - node.heartbeat_second) * 10) / 10)
             : Json(nullptr)},
        {"motors",
         motors}}.dump());
  }
  for (const auto& [place, pdo] : pdos_.heard()) {
    Json line = {{"command", "monitor"}, {"event", "pdo"}};
    line.update(pdo.fields.Json());
    context_.Line(line.dump());
  }
}

}  // namespace

void AddMonitor(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "monitor",
      "heartbeats, states, errors, speeds and bus load as they come; with --make in full");
  AddNodes(*command, options->nodes, "only these nodes; those of the vehicle without");
  command->add_flag("--once", options->once, "listen for 2.5 s, print once, end");
  command->add_option("--seconds", options->seconds, "end after this time")
      ->check(Between(0, 1e6))
      ->type_name("S");
  command->add_flag("--poll", options->poll,
                    "also read statusword and error code by SDO; not while another host does");
  AddTimeout(*command, context);
  command
      ->add_option("--config", options->config, "error texts, as of share/motor_driver/kinco.yaml")
      ->type_name("FILE");
  command->callback([&context, options] {
    if (options->nodes.empty() && !context.vehicle.wheels.empty()) {
      options->nodes = context.Nodes({});
    }
    context.run = [&context, options] { return Monitor(context, *options).Run(); };
  });
}

}  // namespace motorctl
