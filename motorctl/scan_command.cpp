// motorctl scan
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "context.h"
#include "identifiers.h"
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
constexpr std::uint16_t kDeviceName = 0x1008;  // then the versions of hardware and software
constexpr std::uint16_t kIdentity = 0x1018;
// Room for the traffic of a bus that works.
constexpr auto kPace = std::chrono::milliseconds(2);
// Every node-ID that nobody has costs as much.
constexpr int kTimeoutMs = 100;

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

std::string TextOf(const SdoAnswer& answer) {
  return answer.ok() ? Printable(answer.bytes.data(), answer.bytes.size()) : std::string("-");
}

void Report(const Context& context, SdoClient& client, States& states, int node,
            const SdoAnswer& device_type) {
  SdoAnswer identity[4];
  for (std::uint8_t i = 0; i < 4; ++i) {
    identity[i] = client.Upload(node, kIdentity, static_cast<std::uint8_t>(i + 1));
  }
  SdoAnswer texts[3];
  for (std::uint16_t i = 0; i < 3; ++i) {
    texts[i] = client.Upload(node, static_cast<std::uint16_t>(kDeviceName + i), 0);
  }
  states.Update();
  const std::string state = states.Text(node);
  if (context.json) {
    const auto value = [](const SdoAnswer& answer) {
      return answer.ok() ? Json(answer.number()) : Json(nullptr);
    };
    const auto text = [](const SdoAnswer& answer) {
      return answer.ok() ? Json(TextOf(answer)) : Json(nullptr);
    };
    context.Line(Json{{"command", "scan"},
                      {"node", node},
                      {"device_type", value(device_type)},
                      {"vendor_id", value(identity[0])},
                      {"product_code", value(identity[1])},
                      {"revision", value(identity[2])},
                      {"serial_number", value(identity[3])},
                      {"device_name", text(texts[0])},
                      {"hardware_version", text(texts[1])},
                      {"software_version", text(texts[2])},
                      {"nmt_state", state.empty() ? Json(nullptr) : Json(state)}}
                     .dump());
    return;
  }
  const auto value = [](const SdoAnswer& answer) {
    return answer.ok() ? Hex(answer.number(), 8) : std::string("-");
  };
  char line[160];
  std::snprintf(line, sizeof(line), "%4d  %-11s %-10s %-10s %-10s %-10s  %-18s  ", node,
                value(device_type).c_str(), value(identity[0]).c_str(), value(identity[1]).c_str(),
                value(identity[2]).c_str(), value(identity[3]).c_str(),
                state.empty() ? "no heartbeat heard" : state.c_str());
  context.Line(line + TextOf(texts[0]) + ", " + TextOf(texts[1]) + ", " + TextOf(texts[2]));
}

class Scan {
 public:
  Scan(const Context& context, const Options& options)
      : context_(context),
        options_(options),
        client_(context.vehicle.interface, context.SdoTimeout(kTimeoutMs)),
        states_(context.vehicle.interface) {}
  int Run();

 private:
  void AskAll();
  void AwaitLate();
  void Found(int node, const SdoAnswer& device_type);

  const Context& context_;
  const Options& options_;
  SdoClient client_;
  EndSignals signals_;
  States states_;
  std::map<int, bool> found_;
};

void Scan::Found(int node, const SdoAnswer& device_type) {
  ClearProgress(context_);
  if (found_.empty() && !context_.json) {
    context_.Line(context_.Coloured(
        Colour::kBold,
        "node  device type vendor     product    revision   serial      state               name, "
        "hardware, software"));
  }
  found_[node] = true;
  const auto usual = client_.timeout();
  client_.set_timeout(std::max(usual, kSdoTimeout));
  Report(context_, client_, states_, node, device_type);
  client_.set_timeout(usual);
}

void Scan::AskAll() {
  for (int node = options_.from; node <= options_.to; ++node) {
    if (signals_.Arrived()) {
      ClearProgress(context_);
      throw CommandFailed("interrupted at node " + std::to_string(node));
    }
    ShowProgress(context_, options_, node);
    const SdoAnswer answer = client_.Ask(node, kDeviceType, 0);
    states_.Update();
    if (answer.kind == SdoAnswer::Kind::kNotSent) {
      ClearProgress(context_);
      throw CommandFailed("cannot send on " + context_.vehicle.interface +
                          ": nothing acknowledges, or it is down; see motorctl doctor");
    }
    // A node that refuses is there, too.
    if (answer.heard()) Found(node, answer);
    std::this_thread::sleep_for(kPace);
  }
}

// Slow nodes have answered while others were asked; the last one may still do so.
void Scan::AwaitLate() {
  const auto until = std::chrono::steady_clock::now() + client_.timeout();
  while (std::chrono::steady_clock::now() < until && !signals_.Arrived()) {
    std::this_thread::sleep_for(kPace);
  }
  const auto usual = client_.timeout();
  for (const auto& [node, late] : std::map(client_.Late())) {
    if (node < options_.from || node > options_.to || found_.count(node) != 0) continue;
    context_.Say("node " + std::to_string(node) + " answered after " +
                 std::to_string(late.count()) + " ms, too late for " +
                 std::to_string(usual.count()) + " ms; --timeout waits longer");
    client_.set_timeout(2 * late);
    Found(node, client_.Upload(node, kDeviceType, 0));
    client_.set_timeout(usual);
  }
}

int Scan::Run() {
  AskAll();
  AwaitLate();
  ClearProgress(context_);
  context_.Say(std::to_string(found_.size()) +
               (found_.size() == 1 ? " node answers" : " nodes answer"));
  return found_.empty() ? kFailure : kSuccess;
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
  AddTimeout(*command, context, kTimeoutMs);
  command->callback([&context, options] {
    if (options->from > options->to) throw CLI::ValidationError("--from", "is above --to");
    context.run = [&context, options] { return Scan(context, *options).Run(); };
  });
}

}  // namespace motorctl
