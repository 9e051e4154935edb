// motorctl guard [NODE...] [--fresh-ms N] -- COMMAND ARGS
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "guard.h"
#include "prove_guard.h"

namespace motorctl {
namespace {

struct Options {
  std::vector<int> nodes;
  std::optional<int> fresh_ms;
  bool prove = false;
  int rpm = 20;
  bool yes = false;
};

int Run(const Context& context, const GuardPlan& plan) {
  try {
    return Guard(context, plan).Run();
  } catch (const std::exception& error) {
    context.Say(plan.words.front() + " was not started: " + error.what());
    return kGuardFailed;
  }
}

std::vector<std::string> Environment() {
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) environment.emplace_back(*entry);
  return environment;
}

void CheckOptions(const Context& context, const Options& options) {
  context.RequireMake();
  context.Nodes(options.nodes);  // throws where there are none
  if (options.prove && (options.nodes.size() != 1 || context.make->simulated)) {
    throw CLI::ValidationError("--prove", "takes one NODE with a wheel that turns");
  }
  if (options.prove != context.guarded_command.empty()) {
    throw CLI::ValidationError(
        "guard", options.prove ? "--prove brings its own command"
                               : "which command? motorctl guard [NODE...] -- COMMAND ARGS");
  }
}

}  // namespace

void AddGuard(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "guard", "run a host (after --) and stop the wheels when it ends, hangs or is stopped");
  AddNodes(*command, options->nodes, "node-IDs; those of the vehicle without");
  command
      ->add_option("--fresh-ms", options->fresh_ms,
                   "end a host that once sent WATCHDOG=1 and is silent for this long")
      ->check(CLI::Range(20, 60'000))
      ->type_name("MS");
  command->add_flag("--prove", options->prove,
                    "turn the wheel of a node, kill the host, see it stop");
  command->add_option("--rpm", options->rpm, "speed for --prove (20)")
      ->check(CLI::Range(5, 100))
      ->type_name("RPM");
  command->add_flag("--yes", options->yes, "for --prove: do not ask");
  command->footer(
      "Exit status: that of COMMAND, or 128 + the signal that ended it; 1 the stop is "
      "not confirmed;\n2 usage; 125 not started; 126 not executable; 127 not found.");
  command->callback([&context, options] {
    CheckOptions(context, *options);
    if (options->prove) {
      context.run = [&context, options] {
        return ProveGuard(context, {options->nodes.front(), options->rpm, options->yes});
      };
      return;
    }
    // Before this program changes anything in its environment.
    const auto plan = std::make_shared<GuardPlan>();
    plan->vehicle = context.VehicleOf(options->nodes);
    plan->nodes = context.Nodes(options->nodes);
    plan->words = context.guarded_command;
    plan->environment = Environment();
    if (options->fresh_ms) plan->fresh = std::chrono::milliseconds(*options->fresh_ms);
    context.run = [&context, plan] { return Run(context, *plan); };
  });
}

}  // namespace motorctl
