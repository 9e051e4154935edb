// motorctl scan
#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "listener.h"
#include "sdo_client.h"
#include "signals.h"
#include "words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

struct Options {
  int from = 1;
  int to = 127;
};

constexpr std::uint16_t kDeviceType = 0x1000;
constexpr std::uint16_t kIdentity = 0x1018;
constexpr std::uint32_t kHeartbeat = 0x700;
// Room for the traffic of a bus that works.
constexpr auto kPace = std::chrono::milliseconds(2);

// Heartbeats that happen to come by during the scan: the newest state of each node.
class States {
 public:
  explicit States(const std::string& interface) : listener_(interface) {}
  void Update() {
    HeardFrame heard;
    while (listener_.Hear(heard, std::chrono::milliseconds(0))) {
      const std::uint32_t id = heard.frame.can_id;
      if (heard.is_data() && id > kHeartbeat && id < kHeartbeat + 128 && heard.frame.can_dlc == 1) {
        states_[static_cast<int>(id - kHeartbeat)] = heard.frame.data[0];
      }
    }
  }
  // Empty when none was heard.
  std::string Text(int node) const {
    const auto state = states_.find(node);
    return state == states_.end() ? "" : NmtStateText(state->second);
  }

 private:
  Listener listener_;
  std::map<int, std::uint8_t> states_;
};

void ShowProgress(const Context& context, const Options& options, int node) {
  constexpr int kWidth = 40;
  if (!context.shows_progress()) return;
  const int all = options.to - options.from + 1;
  const int filled = (node - options.from) * kWidth / all;
  std::fprintf(stderr, "\r[%s%s] node %d ",
               std::string(static_cast<std::size_t>(filled), '#').c_str(),
               std::string(static_cast<std::size_t>(kWidth - filled), ' ').c_str(), node);
}

void ClearProgress(const Context& context) {
  if (context.shows_progress()) std::fputs("\r\x1b[K", stderr);
}

void Report(const Context& context, DriverCommon& drive, States& states, int node,
            const SdoAnswer& device_type) {
  SdoAnswer identity[4];
  for (std::uint8_t i = 0; i < 4; ++i) {
    identity[i] = ReadObject(drive, node, kIdentity, static_cast<std::uint8_t>(i + 1));
  }
  states.Update();
  const std::string state = states.Text(node);
  if (context.json) {
    const auto value = [](const SdoAnswer& answer) {
      return answer.ok() ? Json(answer.value) : Json(nullptr);
    };
    context.Line(Json{{"command", "scan"},
                      {"node", node},
                      {"device_type", value(device_type)},
                      {"vendor_id", value(identity[0])},
                      {"product_code", value(identity[1])},
                      {"revision", value(identity[2])},
                      {"serial_number", value(identity[3])},
                      {"nmt_state", state.empty() ? Json(nullptr) : Json(state)}}
                     .dump());
    return;
  }
  const auto value = [](const SdoAnswer& answer) {
    return answer.ok() ? Hex(answer.value, 8) : std::string("-");
  };
  char line[160];
  std::snprintf(line, sizeof(line), "%4d  %-11s %-10s %-10s %-10s %-10s  %s", node,
                value(device_type).c_str(), value(identity[0]).c_str(), value(identity[1]).c_str(),
                value(identity[2]).c_str(), value(identity[3]).c_str(),
                state.empty() ? "no heartbeat heard" : state.c_str());
  context.Line(line);
}

int Run(const Context& context, const Options& options) {
  const std::unique_ptr<DriverCommon> drive = OpenBus(context);
  EndSignals signals;
  States states(context.vehicle.interface);
  int found = 0;
  for (int node = options.from; node <= options.to; ++node) {
    if (signals.Arrived()) {
      ClearProgress(context);
      throw CommandFailed("interrupted at node " + std::to_string(node));
    }
    ShowProgress(context, options, node);
    const SdoAnswer answer = ReadObject(*drive, node, kDeviceType, 0, 1);
    states.Update();
    if (answer.kind == SdoAnswer::Kind::kNotSent) {
      ClearProgress(context);
      CheckBus(*drive, context);
      throw CommandFailed("cannot send on " + context.vehicle.interface +
                          ": nothing acknowledges, or it is down; see motorctl doctor");
    }
    // A node that refuses is there, too.
    if (answer.kind != SdoAnswer::Kind::kNoAnswer) {
      ClearProgress(context);
      if (found++ == 0 && !context.json) {
        context.Line(context.Coloured(
            Colour::kBold, "node  device type vendor     product    revision   serial      state"));
      }
      Report(context, *drive, states, node, answer);
    }
    std::this_thread::sleep_for(kPace);
  }
  ClearProgress(context);
  context.Say(std::to_string(found) + (found == 1 ? " node answers" : " nodes answer"));
  return found > 0 ? kSuccess : kFailure;
}

}  // namespace

void AddScan(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command =
      app.add_subcommand("scan", "nodes that answer, with identity and state");
  command->add_option("--from", options->from, "first node (1)")
      ->check(CLI::Range(1, 127))
      ->type_name("NODE");
  command->add_option("--to", options->to, "last node (127)")
      ->check(CLI::Range(1, 127))
      ->type_name("NODE");
  command->callback([&context, options] {
    if (options->from > options->to) throw CLI::ValidationError("--from", "is above --to");
    context.run = [&context, options] { return Run(context, *options); };
  });
}

}  // namespace motorctl
