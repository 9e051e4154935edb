// motorctl stop [NODE...]
//
// Needs no set-up and does none: zero speed and a look at the positions, nothing else.
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "context.h"
#include "signals.h"
#include "stop_report.h"
#include "wheels/stopper.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;
using motor_driver::StoppedNode;

constexpr double kLongestSeconds = 3600;

struct Options {
  std::vector<int> nodes;
  double seconds = 5;
};

void Print(const Context& context, const StoppedNode& node) {
  if (context.json) {
    context.Line(Json{{"command", "stop"},
                      {"node", node.node},
                      {"ok", node.standing},
                      {"zero_confirmed", node.zero_confirmed},
                      {"standing", node.standing},
                      {"failure", node.standing ? Json(nullptr) : Json(node.reason)}}
                     .dump());
    return;
  }
  context.Line(Describe(node));
}

int Run(const Context& context, const Options& options) {
  EndSignals signals;
  motor_driver::Stopper stopper(context.VehicleOf(options.nodes));
  const auto limit = std::chrono::milliseconds(static_cast<long>(options.seconds * 1000));
  const bool stopped = stopper.Stop(limit, [&signals] { return signals.Arrived(); });
  // Before the data, which nobody may read.
  if (!stopped) context.Say(NotConfirmed(stopper.nodes()));
  for (const StoppedNode& node : stopper.nodes()) Print(context, node);
  return stopped ? kSuccess : kFailure;
}

}  // namespace

std::string Describe(const StoppedNode& node) {
  const std::string name = "node " + std::to_string(node.node) + ": ";
  if (node.standing) return name + "zero confirmed, standing";
  return name +
         (node.zero_confirmed ? "zero confirmed, but not seen to stand: " : "not stopped: ") +
         node.reason;
}

std::string NotConfirmed(const std::vector<StoppedNode>& nodes) {
  std::string moving;
  for (const StoppedNode& node : nodes) {
    if (!node.standing)
      moving += (moving.empty() ? "NODE " : ", NODE ") + std::to_string(node.node);
  }
  return "*** THE STOP IS NOT CONFIRMED: " + moving +
         " MAY STILL TURN. SECURE THE VEHICLE, SWITCH THE DRIVES OFF. ***";
}

void AddStop(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "stop", "zero speed to nodes that somebody else brought up, until they stand");
  AddNodes(*command, options->nodes, "node-IDs; those of the vehicle without");
  command->add_option("--limit", options->seconds, "how long to try (5)")
      ->check(Between(0, kLongestSeconds))
      ->type_name("S");
  command->callback([&context, options] {
    context.RequireMake();
    context.Nodes(options->nodes);
    context.run = [&context, options] { return Run(context, *options); };
  });
}

}  // namespace motorctl
