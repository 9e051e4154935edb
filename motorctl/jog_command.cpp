// motorctl jog [NODE]
//
// The one command that turns wheels. However it ends, they are stopped, and the stop is measured;
// when that cannot be had, it says so and fails.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "jog.h"
#include "node_lock.h"
#include "resolution.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;

// A hub motor of 200 mm then moves a vehicle at about 1 m/s, a walking pace.
constexpr int kSafeRpm = 100;
constexpr int kHighestRpm = 6000;
constexpr double kLongestSeconds = 3600;
constexpr double kSteepestRamp = 10000;

// However gentle the ramp, a stop must not take long.
constexpr double kStoppingSeconds = 1;

struct Options {
  std::vector<int> node;  // one, or none: all wheels of the vehicle
  int rpm = 0;
  std::optional<int> rpm2;
  double seconds = 0;
  double ramp = 60;
  std::optional<int> period_ms;
  std::string csv;
  std::string svg;
  bool yes = false;
  bool allow_fast = false;
};

JogPlan Plan(const Context& context, const Options& options) {
  JogPlan plan;
  Vehicle& vehicle = plan.vehicle;
  vehicle = context.VehicleOf(options.node);
  const int fastest = std::max(std::abs(options.rpm), std::abs(options.rpm2.value_or(0)));
  SetPeriod(vehicle, options.period_ms);
  vehicle.max_rpm = std::max(1, fastest);
  vehicle.max_acceleration = options.ramp;
  vehicle.max_deceleration = std::max(options.ramp, fastest / kStoppingSeconds);
  vehicle.fault_deceleration = std::max(vehicle.fault_deceleration, vehicle.max_deceleration);
  plan.rpm.assign(vehicle.wheels.size(), options.rpm);
  // The second motor of a node that was named is a matter of its own.
  if (!options.node.empty() && plan.rpm.size() > 1) plan.rpm[1] = options.rpm2.value_or(0);
  plan.seconds = options.seconds;
  plan.ramp = options.ramp;
  return plan;
}

std::string Question(const Options& options, const Vehicle& vehicle, const std::string& unchecked) {
  char seconds[32];
  std::snprintf(seconds, sizeof(seconds), "%.1f s", options.seconds);
  return (unchecked.empty() ? "" : unchecked + ". ") + NodeNames(vehicle) + " will turn at " +
         std::to_string(options.rpm) + " rpm" +
         (options.rpm2 ? " and " + std::to_string(*options.rpm2) + " rpm" : "") + " for " +
         seconds +
         (vehicle.wheels.size() == 1 ? ". Is the wheel off the ground?"
                                     : ". Are the wheels off the ground?");
}

// Opened before anything turns: a name that cannot be written must not cost the measurement.
class ResultFile {
 public:
  explicit ResultFile(const std::string& name) : name_(name) {
    if (name_.empty()) return;
    file_.open(name_, std::ios::trunc);
    if (!file_) throw CommandFailed("cannot write " + name_);
  }
  bool Write(const std::string& text) {
    if (name_.empty()) return true;
    file_ << text << std::flush;
    return file_.good();
  }

 private:
  std::string name_;
  std::ofstream file_;
};

// Nothing at all is sent where nobody can be asked.
ExitStatus Confirm(const Context& context, const Options& options, const Vehicle& vehicle) {
  const bool can_be_asked = options.yes || ::isatty(STDIN_FILENO) != 0;
  const std::string unchecked = can_be_asked ? CheckResolution(context, vehicle) : "";
  if (options.yes && !unchecked.empty()) context.Say(unchecked);
  const ExitStatus status = context.Ask(options.yes, Question(options, vehicle, unchecked));
  if (status != kSuccess) context.Say("nothing was moved");
  return status;
}

std::string Picture(const Vehicle& vehicle, const Samples& samples) {
  std::vector<std::string> names;
  for (const motor_driver::Wheel& wheel : vehicle.wheels) names.push_back(wheel.name);
  char title[80];
  std::snprintf(title, sizeof(title), ": target (dashed) and measured speed (mean of %.0f ms)",
                kMeanSeconds * 1000);
  return Svg(samples, names, vehicle.make + " " + NodeNames(vehicle) + title);
}

int Run(const Context& context, const Options& options) {
  const UseLock lock(context.vehicle.interface, context.Nodes(options.node));
  const JogPlan plan = Plan(context, options);
  const ExitStatus confirmed = Confirm(context, options, plan.vehicle);
  if (confirmed != kSuccess) return confirmed;
  ResultFile csv(options.csv);
  ResultFile svg(options.svg);

  std::optional<EndSignals> signals;
  signals.emplace();
  bool stopped = true;
  std::string failure;
  {
    BackgroundOutput output(context);
    Jog jog(context, plan, *signals, output);
    bool enabled = true;  // until the opposite is known
    try {
      enabled = jog.BringUp();
      jog.Turn();
    } catch (const std::exception& error) {
      jog.Fail(error.what());
    }
    if (enabled) {
      stopped = jog.Stop();
    } else {
      output.Say("nothing was moved");
    }
    const std::size_t wheels = plan.vehicle.wheels.size();
    if (!csv.Write(Csv(jog.samples(), wheels))) jog.Fail("cannot write " + options.csv);
    if (!svg.Write(Picture(plan.vehicle, jog.samples()))) {
      jog.Fail("cannot write " + options.svg);
    }
    failure = jog.failure();
    if (context.json) {
      output.Line(Json{{"command", "jog"},
                       {"event", "end"},
                       {"ok", failure.empty()},
                       {"failure", failure.empty() ? Json(nullptr) : Json(failure)},
                       {"enabled", enabled},
                       {"stop_confirmed", enabled ? Json(stopped) : Json(nullptr)}}
                      .dump());
    }
    // The wheels stand: from here on a signal may end a program that waits for its reader.
    signals.reset();
  }
  return stopped && failure.empty() ? kSuccess : kFailure;
}

void CheckOptions(const Context& context, const Options& options) {
  context.RequireMake();
  const Make& make = *context.make;
  if (make.simulated) {
    throw CLI::ValidationError("--make", std::string("a ") + make.name +
                                             " drive has no wheel whose stop could be measured; "
                                             "try motor-drive-sim");
  }
  context.Nodes(options.node);
  if (options.rpm2 && (make.motors < 2 || options.node.empty())) {
    throw CLI::ValidationError(
        "--rpm2", make.motors < 2 ? std::string("make ") + make.name + " has one motor per node"
                                  : "needs NODE: without, all wheels of the vehicle turn at --rpm");
  }
  const int fastest = std::max(std::abs(options.rpm), std::abs(options.rpm2.value_or(0)));
  if (fastest > kSafeRpm && !options.allow_fast) {
    throw CLI::ValidationError("--rpm",
                               "more than " + std::to_string(kSafeRpm) + " rpm needs --allow-fast");
  }
}

}  // namespace

void AddJog(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "jog", "turn the wheels of a node, or of the vehicle, for a while, show the speed, stop");
  AddNodes(*command, options->node, "node-ID; all wheels of the vehicle without")->expected(0, 1);
  const std::string limit = " (100 at most without --allow-fast)";
  command->add_option("--rpm", options->rpm, "speed" + limit)
      ->required()
      ->check(CLI::Range(-kHighestRpm, kHighestRpm))
      ->type_name("RPM");
  command->add_option("--rpm2", options->rpm2, "speed of the node's second motor (0)")
      ->check(CLI::Range(-kHighestRpm, kHighestRpm))
      ->type_name("RPM");
  command->add_option("--seconds", options->seconds, "duration, both ramps included")
      ->required()
      ->check(Between(0, kLongestSeconds))
      ->type_name("S");
  command->add_option("--ramp", options->ramp, "rpm per second (60)")
      ->check(Between(0, kSteepestRamp))
      ->type_name("RPM_PER_S");
  command->add_option("--period", options->period_ms, "control period in milliseconds (10)")
      ->check(CLI::Range(2, 100))
      ->type_name("MS");
  AddTimeout(*command, context);
  command->add_option("--csv", options->csv, "write every cycle as a table")->type_name("FILE");
  command->add_option("--svg", options->svg, "write a picture of target and measured speed")
      ->type_name("FILE");
  command->add_flag("--yes", options->yes,
                    "do not ask; needed where standard input is not a terminal");
  command->add_flag("--allow-fast", options->allow_fast, "more than 100 rpm");
  command->callback([&context, options] {
    CheckOptions(context, *options);
    context.run = [&context, options] { return Run(context, *options); };
  });
}

}  // namespace motorctl
