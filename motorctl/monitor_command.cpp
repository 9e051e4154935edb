// motorctl monitor [NODE...]
//
// Only listens, unless --poll is given: another host may be driving.
#include <kinco_driver.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "link.h"
#include "listener.h"
#include "make.h"
#include "sdo_client.h"
#include "signals.h"
#include "words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

constexpr std::uint32_t kEmergency = 0x080;
constexpr std::uint32_t kTpdo1 = 0x180;
constexpr std::uint32_t kTpdo4 = 0x480;
constexpr std::uint32_t kHeartbeat = 0x700;
constexpr std::uint32_t kFunctionMask = 0x780;
constexpr std::uint32_t kNodeMask = 0x07F;
constexpr auto kRefresh = std::chrono::milliseconds(1000);
// The heartbeat that the makes' set-ups ask for comes every 2 s.
constexpr double kOnceSeconds = 2.5;
// Of a shorter stretch the speed would be coarse.
constexpr double kShortestStretchSeconds = 0.05;

struct Options {
  std::vector<int> nodes;
  bool once = false;
  bool poll = false;
  double seconds = 0;  // 0: until a signal
  std::string config;
};

struct Position {
  double second = 0;
  std::uint32_t counts = 0;
};

struct Motor {
  std::optional<std::uint16_t> statusword;
  std::optional<std::uint16_t> error_code;
  // The first and the last position since the speed was shown last.
  std::optional<Position> first;
  Position last;
  std::optional<double> rpm;
};

struct Node {
  bool heard = false;
  std::optional<std::uint8_t> nmt_state;
  double heartbeat_second = 0;
  Motor motors[kMaxMotors];
};

struct Bus {
  int frames = 0;
  int error_frames = 0;
  long bits = 0;
};

class Monitor {
 public:
  Monitor(const Context& context, const Options& options);
  int Run();

 private:
  void Hear(const HeardFrame& heard);
  void TakeField(const Field& field, const HeardFrame& heard, std::uint32_t base_id,
                 const std::function<void(Motor&, std::uint32_t)>& take);
  void Poll();
  void UpdateSpeeds();
  std::string ErrorText(std::uint16_t code) const;
  std::optional<double> BusLoad(double seconds) const;
  void Show(double seconds);
  void ShowJson(double seconds) const;
  std::vector<std::string> Rows(int id, const Node& node) const;
  bool Wanted(int id) const {
    return options_.nodes.empty() ||
           std::find(options_.nodes.begin(), options_.nodes.end(), id) != options_.nodes.end();
  }

  const Context& context_;
  const Options& options_;
  const Make* make_ = nullptr;
  std::unique_ptr<DriverCommon> drive_;
  std::unique_ptr<KincoDriver> kinco_;
  Listener listener_;
  std::optional<int> bitrate_;
  double counts_per_turn_ = 0;
  std::map<int, Node> nodes_;
  Bus bus_;
  double now_ = 0;  // of the frame heard last
  std::size_t drawn_lines_ = 0;
};

Monitor::Monitor(const Context& context, const Options& options)
    : context_(context), options_(options), drive_(OpenBus(context)), listener_(context.interface) {
  // What nobody takes from its queue would pile up for as long as the monitor runs.
  if (!options.poll) drive_->StopReading();
  if (!context.make.empty() && FindMake(context.make).motors > 0) {
    make_ = &FindMake(context.make);
    counts_per_turn_ = make_->create(context.interface.c_str(), context.counts_per_revolution)
                           ->GetNumberOfPulsesPerRevolution();
  }
  if (!options.config.empty()) {
    // Its texts only: its loop would lead drives out of an emergency stop.
    kinco_ =
        std::make_unique<KincoDriver>(context.interface.c_str(), context.counts_per_revolution);
    kinco_->StopReading();
    if (!kinco_->LoadDriverConfig(options.config)) {
      throw CommandFailed("cannot load " + options.config + "; --verbose shows why");
    }
  }
  if (const std::optional<Link> link = FindLink(context.interface)) bitrate_ = link->bitrate;
  for (const int id : options.nodes) nodes_[id];
}

int Monitor::Run() {
  EndSignals signals;
  const auto start = Clock::now();
  const double limit = options_.once && options_.seconds == 0 ? kOnceSeconds : options_.seconds;
  auto shown = start;
  HeardFrame heard;
  for (;;) {
    if (listener_.Hear(heard, std::chrono::milliseconds(50))) Hear(heard);
    const auto now = Clock::now();
    const bool over = limit > 0 && now - start >= std::chrono::duration<double>(limit);
    const bool ended = signals.Arrived() || over;
    if (ended || (!options_.once && now - shown >= kRefresh)) {
      if (options_.poll) Poll();
      UpdateSpeeds();
      Show(std::chrono::duration<double>(now - shown).count());
      shown = now;
      LibraryOutput::Take();
    }
    if (ended) break;
  }
  const bool all_heard = std::all_of(nodes_.begin(), nodes_.end(),
                                     [](const auto& entry) { return entry.second.heard; });
  if (nodes_.empty() || !all_heard) {
    context_.Say(nodes_.empty() ? "no node was heard" : "not every node was heard");
    return kFailure;
  }
  return kSuccess;
}

void Monitor::Hear(const HeardFrame& heard) {
  if (heard.is_error()) {
    ++bus_.error_frames;
    return;
  }
  // Without the stuff bits, which depend on the contents.
  const bool extended = (heard.frame.can_id & CAN_EFF_FLAG) != 0;
  ++bus_.frames;
  bus_.bits += (extended ? 67 : 47) + 8 * heard.frame.can_dlc;
  now_ = heard.second;
  const std::uint32_t function = heard.frame.can_id & kFunctionMask;
  const int id = static_cast<int>(heard.frame.can_id & kNodeMask);
  if (!heard.is_data() || id == 0 || !Wanted(id)) return;
  if (function == kHeartbeat && heard.frame.can_dlc == 1) {
    Node& node = nodes_[id];
    node.heard = true;
    node.nmt_state = heard.frame.data[0];
    node.heartbeat_second = heard.second;
  } else if (function == kEmergency && heard.frame.can_dlc == 8) {
    Node& node = nodes_[id];
    node.heard = true;
    node.motors[0].error_code = static_cast<std::uint16_t>(Load(heard.frame, 0, 2));
  } else if ((function == kTpdo1 || function == kTpdo4) && make_ != nullptr) {
    nodes_[id].heard = true;
    TakeField(make_->statusword, heard, function, [](Motor& motor, std::uint32_t value) {
      motor.statusword = static_cast<std::uint16_t>(value);
    });
    TakeField(make_->error_code, heard, function, [](Motor& motor, std::uint32_t value) {
      motor.error_code = static_cast<std::uint16_t>(value);
    });
    TakeField(make_->position, heard, function, [&](Motor& motor, std::uint32_t value) {
      motor.last = {heard.second, value};
      if (!motor.first) motor.first = motor.last;
    });
  }
}

void Monitor::TakeField(const Field& field, const HeardFrame& heard, std::uint32_t base_id,
                        const std::function<void(Motor&, std::uint32_t)>& take) {
  if (field.bits == 0 || field.base_id != base_id) return;
  const unsigned bytes = field.bits / 8;
  if (heard.frame.can_dlc < field.offset + bytes * make_->motors) return;
  Node& node = nodes_[static_cast<int>(heard.frame.can_id & kNodeMask)];
  for (unsigned motor = 0; motor < make_->motors; ++motor) {
    take(node.motors[motor], Load(heard.frame, field.offset + motor * bytes, bytes));
  }
}

void Monitor::Poll() {
  for (auto& [id, node] : nodes_) {
    const SdoAnswer status = ReadObject(*drive_, id, 0x6041, 0);
    const SdoAnswer error = ReadObject(*drive_, id, 0x603F, 0);
    node.heard = node.heard || status.ok();
    const std::size_t motors = make_ == nullptr ? 1 : make_->motors;
    for (std::size_t motor = 0; motor < motors; ++motor) {
      const unsigned shift = 16U * static_cast<unsigned>(motor);
      if (status.ok()) {
        node.motors[motor].statusword = static_cast<std::uint16_t>(status.value >> shift);
      }
      if (error.ok()) {
        node.motors[motor].error_code = static_cast<std::uint16_t>(error.value >> shift);
      }
    }
  }
}

// By the kernel's clock: the library's own speed readers take the period that a set-up in the same
// process has given, and here there was none.
void Monitor::UpdateSpeeds() {
  for (auto& [id, node] : nodes_) {
    for (Motor& motor : node.motors) {
      motor.rpm.reset();
      if (!motor.first) continue;
      const double seconds = motor.last.second - motor.first->second;
      if (seconds >= kShortestStretchSeconds) {
        const auto moved = static_cast<std::int32_t>(motor.last.counts - motor.first->counts);
        motor.rpm = make_->direction * moved / counts_per_turn_ / seconds * 60;
        motor.first = motor.last;
      } else {
        motor.first.reset();
      }
    }
  }
}

std::string Monitor::ErrorText(std::uint16_t code) const {
  if (code == 0) return "no error";
  if (kinco_ != nullptr) {
    const ErrorCodeInfo info = kinco_->GetErrorCodeInfo(code);
    if (info.msg != "unknown") return info.msg;
  }
  return ErrorCodeText(code);
}

std::optional<double> Monitor::BusLoad(double seconds) const {
  if (!bitrate_ || *bitrate_ <= 0 || seconds <= 0) return std::nullopt;
  return 100.0 * static_cast<double>(bus_.bits) / seconds / *bitrate_;
}

void Monitor::Show(double seconds) {
  if (context_.json) {
    ShowJson(seconds);
  } else {
    std::vector<std::string> lines;
    char text[128];
    std::snprintf(text, sizeof(text), "%s: %.0f frames/s, %d error frames, bus load ",
                  context_.interface.c_str(), bus_.frames / seconds, bus_.error_frames);
    std::string head = text;
    const std::optional<double> load = BusLoad(seconds);
    std::snprintf(text, sizeof(text), "%.1f %%", load.value_or(0));
    head += load ? text : "unknown (no bit rate)";
    lines.push_back(context_.Coloured(Colour::kBold, head));
    for (const auto& [id, node] : nodes_) {
      for (const std::string& row : Rows(id, node)) lines.push_back(row);
    }
    std::string picture;
    if (context_.live() && drawn_lines_ > 0) {
      picture = "\x1b[" + std::to_string(drawn_lines_) + "A";
    }
    for (const std::string& line : lines) picture += line + (context_.live() ? "\x1b[K\n" : "\n");
    context_.Write(picture);
    drawn_lines_ = lines.size();
  }
  bus_ = Bus();
}

std::vector<std::string> Monitor::Rows(int id, const Node& node) const {
  if (!node.heard) return {"node " + std::to_string(id) + ": not heard"};
  std::vector<std::string> rows;
  char text[64] = "no heartbeat";
  if (node.nmt_state) {
    std::snprintf(text, sizeof(text), "%s, heartbeat %.1f s ago",
                  NmtStateText(*node.nmt_state).c_str(),
                  std::max(0.0, now_ - node.heartbeat_second));
  }
  const std::size_t motors = make_ == nullptr ? 1 : make_->motors;
  for (std::size_t i = 0; i < motors; ++i) {
    const Motor& motor = node.motors[i];
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
    rows.push_back(row);
  }
  return rows;
}

void Monitor::ShowJson(double seconds) const {
  const std::optional<double> load = BusLoad(seconds);
  context_.Line(Json{{"command", "monitor"},
                     {"event", "bus"},
                     {"frames_per_s", std::round(bus_.frames / seconds * 10) / 10},
                     {"error_frames", bus_.error_frames},
                     {"bus_load_percent", load ? Json(std::round(*load * 10) / 10) : Json(nullptr)}}
                    .dump());
  for (const auto& [id, node] : nodes_) {
    Json motors = Json::array();
    for (std::size_t i = 0; i < (make_ == nullptr ? 1 : make_->motors); ++i) {
      const Motor& motor = node.motors[i];
      const auto status = motor.statusword;
      const auto error = motor.error_code;
      motors.push_back(
          {{"statusword", status ? Json(*status) : Json(nullptr)},
           {"status", status ? Json(StatuswordText(*status, context_.make)) : Json(nullptr)},
           {"error_code", error ? Json(*error) : Json(nullptr)},
           {"error", error ? Json(ErrorText(*error)) : Json(nullptr)},
           {"rpm", motor.rpm ? Json(std::round(*motor.rpm * 10) / 10) : Json(nullptr)}});
    }
    context_.Line(Json{
        {"command", "monitor"},
        {"event", "node"},
        {"node", id},
        {"heard", node.heard},
        {"nmt_state", node.nmt_state ? Json(NmtStateText(*node.nmt_state)) : Json(nullptr)},
        {"heartbeat_age_s",
         node.nmt_state ? Json(std::round(std::max(0.0, now_ - node.heartbeat_second) * 10) / 10)
                        : Json(nullptr)},
        {"motors",
         motors}}.dump());
  }
}

}  // namespace

void AddMonitor(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "monitor",
      "heartbeats, states, errors, speeds and bus load as they come; with --make in full");
  command->add_option("NODE", options->nodes, "only these nodes")->check(CLI::Range(1, 127));
  command->add_flag("--once", options->once, "listen for 2.5 s, print once, end");
  command->add_option("--seconds", options->seconds, "end after this time")
      ->check(CLI::Range(0.1, 1e6))
      ->type_name("S");
  command->add_flag("--poll", options->poll,
                    "also read statusword and error code by SDO; not while another host does");
  command
      ->add_option("--config", options->config, "error texts, as of share/motor_driver/kinco.yaml")
      ->type_name("FILE");
  command->callback([&context, options] {
    context.run = [&context, options] { return Monitor(context, *options).Run(); };
  });
}

}  // namespace motorctl
