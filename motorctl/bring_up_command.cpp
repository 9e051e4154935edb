// motorctl bring-up [NODE...]
#include <wheels.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "context.h"
#include "node_lock.h"
#include "sdo_client.h"
#include "sdo_words.h"
#include "signals.h"
#include "words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;
using motor_driver::SetUpFailure;

struct Options {
  std::vector<int> nodes;
  std::optional<int> period_ms;
};

constexpr std::uint16_t kStatusword = 0x6041;
constexpr std::uint16_t kErrorCode = 0x603F;
constexpr std::uint8_t kOperational = 5;

// What became of one node.
struct Outcome {
  int node = 0;
  std::string failure;  // empty: it is up
  std::vector<SetUpFailure> failed_writes;
  SdoAnswer statusword;
  SdoAnswer error_code;
};

Json FailuresAsJson(const std::vector<SetUpFailure>& failures) {
  Json list = Json::array();
  for (const SetUpFailure& failed : failures) {
    list.push_back({{"index", failed.index},
                    {"sub", failed.sub_index},
                    {"object", ObjectName(failed.index, failed.sub_index)},
                    {"abort_code", failed.abort_code ? Json(*failed.abort_code) : Json(nullptr)},
                    {"reason", Reason(failed)}});
  }
  return list;
}

void PrintJson(const Context& context, const Outcome& outcome) {
  const bool up = outcome.failure.empty();
  // The second motor's half of these words, where there is one, tells the same while all is well.
  const auto word = static_cast<std::uint16_t>(outcome.statusword.number());
  const auto error_code = static_cast<std::uint16_t>(outcome.error_code.number());
  const bool has_word = outcome.statusword.ok();
  context.Line(Json{{"command", "bring-up"},
                    {"node", outcome.node},
                    {"make", context.make->name},
                    {"ok", up},
                    {"failure", up ? Json(nullptr) : Json(outcome.failure)},
                    {"failed_writes", FailuresAsJson(outcome.failed_writes)},
                    {"nmt_state", up && !context.make->simulated ? Json(NmtStateText(kOperational))
                                                                 : Json(nullptr)},
                    {"statusword", has_word ? Json(word) : Json(nullptr)},
                    {"status", has_word ? Json(StatuswordText(word, context.make)) : Json(nullptr)},
                    {"error_code", outcome.error_code.ok() ? Json(error_code) : Json(nullptr)},
                    {"simulated", context.make->simulated}}
                   .dump());
}

void PrintText(const Context& context, const Outcome& outcome, const Vehicle& vehicle) {
  const std::string name = "node " + std::to_string(outcome.node);
  for (const SetUpFailure& failed : outcome.failed_writes) context.Line(Describe(failed));
  if (outcome.statusword.ok()) {
    const auto word = static_cast<std::uint16_t>(outcome.statusword.number());
    context.Line(name + ": statusword " + Hex(word, 4) + ", " + StatuswordText(word, context.make));
  }
  const auto error_code = static_cast<std::uint16_t>(outcome.error_code.number());
  if (outcome.error_code.ok() && error_code != 0) {
    context.Line(name + ": error code " + Hex(error_code, 4) + ", " + ErrorCodeText(error_code));
  }
  if (!outcome.failure.empty()) {
    context.Line(name + ": " +
                 context.Coloured(Colour::kRed, "not brought up: " + outcome.failure));
  } else if (context.make->simulated) {
    context.Line(name + ": simulated, there is no drive");
  } else {
    context.Line(
        name + ": " +
        context.Coloured(Colour::kGreen, "up, operational, holding zero speed; reports every " +
                                             std::to_string(vehicle.period.count()) + " ms"));
  }
}

int Run(const Context& context, const Options& options) {
  std::optional<UseLock> lock;
  // A drive without an interface is of each process alone.
  if (!context.make->simulated) {
    lock.emplace(context.vehicle.interface, context.Nodes(options.nodes));
  }
  Vehicle vehicle = context.VehicleOf(options.nodes);
  SetPeriod(vehicle, options.period_ms);
  EndSignals signals;
  motor_driver::Wheels wheels(vehicle);
  const bool up = wheels.BringUp([&context](const std::string& step) { context.Say(step); },
                                 [&signals] { return signals.Arrived(); });
  const std::string failure = up ? "" : wheels.GetReport().reason;
  const std::vector<SetUpFailure> failures = motor_driver::SetUpFailures(wheels);
  std::optional<SdoClient> client;
  if (!context.make->simulated && wheels.GetReport().fault != motor_driver::Fault::kNoInterface) {
    client.emplace(context.vehicle.interface, context.SdoTimeout());
  }
  for (const int node : context.Nodes(options.nodes)) {
    Outcome outcome;
    outcome.node = node;
    outcome.failure = failure;
    for (const SetUpFailure& failed : failures) {
      if (failed.node == node) outcome.failed_writes.push_back(failed);
    }
    if (client) {
      outcome.statusword = client->Upload(node, kStatusword, 0);
      outcome.error_code = client->Upload(node, kErrorCode, 0);
    }
    if (context.json) {
      PrintJson(context, outcome);
    } else {
      PrintText(context, outcome, vehicle);
    }
  }
  return up ? kSuccess : kFailure;
}

}  // namespace

void AddBringUp(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "bring-up", "set nodes up and enable them, at zero speed, and name what fails");
  AddNodes(*command, options->nodes, "node-IDs; those of the vehicle without");
  command->add_option("--period", options->period_ms, "milliseconds between speed reports (10)")
      ->check(CLI::Range(2, 255))
      ->type_name("MS");
  AddTimeout(*command, context);
  command->callback([&context, options] {
    context.RequireMake();
    context.Nodes(options->nodes);
    context.run = [&context, options] { return Run(context, *options); };
  });
}

}  // namespace motorctl
