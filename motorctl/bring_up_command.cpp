// motorctl bring-up NODE...
#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "bring_up.h"
#include "sdo_client.h"
#include "signals.h"
#include "words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;

struct Options {
  std::vector<int> nodes;
  int period_ms = 10;
};

constexpr std::uint16_t kStatusword = 0x6041;
constexpr std::uint16_t kErrorCode = 0x603F;
constexpr auto kHeartbeatTime = std::chrono::milliseconds(3000);

// A heartbeat shows that the node is in operation, and that somebody can watch it.
bool AwaitOperation(const Drive& drive, EndSignals& signals) {
  const auto deadline = Clock::now() + kHeartbeatTime;
  while (drive.nmt_state() != kOperational && Clock::now() < deadline && !signals.Arrived()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return drive.nmt_state() == kOperational;
}

Json FailuresAsJson(const std::vector<FailedWrite>& failures) {
  Json list = Json::array();
  for (const FailedWrite& failed : failures) {
    list.push_back({{"index", failed.index},
                    {"sub", failed.sub_index},
                    {"object", ObjectName(failed.index, failed.sub_index)},
                    {"abort_code", failed.abort_code ? Json(*failed.abort_code) : Json(nullptr)},
                    {"reason", Describe(failed)}});
  }
  return list;
}

bool BringUpOne(const Context& context, int node, int period_ms, EndSignals& signals) {
  const Make& make = FindMake(context.make);
  Drive drive(context, make, node, period_ms);
  BringUpResult result = drive.BringUp([&signals] { return signals.Arrived(); });
  const bool simulated = make.motors == 0;
  if (result.done && !simulated && !AwaitOperation(drive, signals)) {
    result.done = false;
    result.failure = drive.Name() + " sends no heartbeat, or is not operational";
  }
  const SdoAnswer status =
      simulated ? SdoAnswer() : ReadObject(drive.driver(), node, kStatusword, 0);
  const SdoAnswer error = simulated ? SdoAnswer() : ReadObject(drive.driver(), node, kErrorCode, 0);
  // The second motor's half of these words, where there is one, tells the same while all is well.
  const auto word = static_cast<std::uint16_t>(status.value);
  const auto error_code = static_cast<std::uint16_t>(error.value);

  if (context.json) {
    context.Line(
        Json{{"command", "bring-up"},
             {"node", node},
             {"make", make.name},
             {"ok", result.done},
             {"failure", result.done ? Json(nullptr) : Json(result.failure)},
             {"failed_writes", FailuresAsJson(result.failed_writes)},
             {"nmt_state", drive.nmt_state() == kNotHeard
                               ? Json(nullptr)
                               : Json(NmtStateText(static_cast<std::uint8_t>(drive.nmt_state())))},
             {"statusword", status.ok() ? Json(word) : Json(nullptr)},
             {"status", status.ok() ? Json(StatuswordText(word, make.name)) : Json(nullptr)},
             {"error_code", error.ok() ? Json(error_code) : Json(nullptr)}}
            .dump());
    return result.done;
  }
  for (const FailedWrite& failed : result.failed_writes) {
    context.Line(drive.Name() + ": failed: " + Describe(failed));
  }
  if (status.ok()) {
    context.Line(drive.Name() + ": statusword " + Hex(word, 4) + ", " +
                 StatuswordText(word, make.name));
  }
  if (error.ok() && error_code != 0) {
    context.Line(drive.Name() + ": error code " + Hex(error_code, 4) + ", " +
                 ErrorCodeText(error_code));
  }
  context.Line(drive.Name() + ": " +
               (result.done
                    ? context.Coloured(Colour::kGreen,
                                       "up, operational, holding zero speed; reports every " +
                                           std::to_string(period_ms) + " ms")
                    : context.Coloured(Colour::kRed, "not brought up: " + result.failure)));
  return result.done;
}

int Run(const Context& context, const Options& options) {
  EndSignals signals;
  bool all = true;
  for (const int node : options.nodes) {
    if (signals.Arrived()) throw CommandFailed("interrupted");
    all = BringUpOne(context, node, options.period_ms, signals) && all;
  }
  return all ? kSuccess : kFailure;
}

}  // namespace

void AddBringUp(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "bring-up", "set nodes up and enable them, at zero speed, and name what fails");
  command->add_option("NODE", options->nodes, "node-IDs")->required()->check(CLI::Range(1, 127));
  command->add_option("--period", options->period_ms, "milliseconds between speed reports (10)")
      ->check(CLI::Range(1, 255))
      ->type_name("MS");
  command->callback([&context, options] {
    context.RequireMake();
    context.run = [&context, options] { return Run(context, *options); };
  });
}

}  // namespace motorctl
