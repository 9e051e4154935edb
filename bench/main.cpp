// Measures the library beside a bare CAN socket that does the same work.
#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <set>
#include <string>
#include <vector>

#include "drives.h"
#include "far_end.h"
#include "idle.h"
#include "measures.h"
#include "network.h"
#include "report.h"

namespace {

constexpr int kCannotRun = 1;
constexpr int kUsage = 2;

constexpr Scale kQuick = {1, 0.2, 0.05, 0.02, 500, 20, 50, 2'048, 3, 20, 2, 2};

Scale FullScale(double seconds, int repetitions, std::uint32_t lapses) {
  return {repetitions, seconds, seconds / 5, 0.1, 20'000, 320, 500, 200'000, 50, 1'000, 8, lapses};
}

struct Options {
  std::string interface = "can0";
  std::string far_interface = "can1";
  double seconds = 5;
  int repetitions = 5;
  std::uint32_t lapses = 200;
  std::set<std::string> only;
  bool quick = false;
  bool own_network = false;
  bool json = false;
  std::string idle_holder;
  std::string drives_make;
  std::uint32_t nodes = 1;
};

struct Measure {
  const char* name;
  std::vector<Row> (*run)(const Bench& bench);
};

constexpr Measure kMeasures[] = {
    {"receive", MeasureReceiveCost},
    {"rate", MeasureReceiveRate},
    {"send", MeasureSend},
    {"sdo", MeasureSdo},
    {"latency", MeasureLatency},
    {"memory", MeasureQueueMemory},
    {"idle", MeasureIdleCost},
    {"stop", MeasureStop},
    {"supervision", MeasureSupervision},
    {"cycle", MeasureControlCycle},
    {"calls", MeasureWheelsCalls},
    {"lateness", MeasureLateness},
    {"stale", MeasureStaleCommand},
};

std::vector<Row> RunMeasures(const Bench& bench, const std::set<std::string>& only) {
  std::vector<Row> rows;
  for (const Measure& measure : kMeasures) {
    if (!only.empty() && only.count(measure.name) == 0) {
      continue;
    }
    fmt::print(stderr, "measuring: {}\n", measure.name);
    const std::vector<Row> more = measure.run(bench);
    rows.insert(rows.end(), more.begin(), more.end());
  }
  return rows;
}

int Run(const Options& options) {
  if (!options.idle_holder.empty()) {
    const bool library = options.idle_holder == "library";
    return HoldIdle(library ? IdleHolder::kLibrary : IdleHolder::kBare, options.interface,
                    options.seconds);
  }
  if (!options.drives_make.empty()) {
    return HoldDrives(options.drives_make, options.nodes, options.far_interface);
  }
  if (options.own_network) {
    EnterOwnNetwork(options.interface, options.far_interface);
  }
  FarEnd far_end(options.far_interface);
  const Bench bench = {
      far_end, options.interface, options.far_interface,
      options.quick ? kQuick : FullScale(options.seconds, options.repetitions, options.lapses)};
  std::vector<Row> rows = RunMeasures(bench, options.only);
  if (options.quick) {
    for (Row& row : rows) {
      row.target = Target::kNone;  // so short a run judges nothing
    }
  }
  fmt::print("{}", options.json ? Json(rows) : Table(rows));
  return 0;
}

int ParseAndRun(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Measures the library beside a bare CAN socket that does the same work, on a "
      "connected pair of CAN interfaces.");
  app.add_option("--interface", options.interface, "interface of the library")
      ->capture_default_str();
  app.add_option("--far-interface", options.far_interface, "interface of the far end")
      ->capture_default_str();
  app.add_option("--seconds", options.seconds, "length of the run at a fixed rate")
      ->capture_default_str()
      ->check(CLI::Range(0.1, 3600.0));
  app.add_option("--repetitions", options.repetitions, "of each CPU and latency measure")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
  app.add_option("--lapses", options.lapses, "how often a host stops to command")
      ->capture_default_str()
      ->check(CLI::Range(1, 10'000));
  std::set<std::string> names;
  for (const Measure& measure : kMeasures) {
    names.insert(measure.name);
  }
  app.add_option("--only", options.only, "measures to run, all others are left out")
      ->check(CLI::IsMember(names));
  app.add_flag("--quick", options.quick, "only to see that it runs: the figures mean nothing");
  app.add_flag("--own-network", options.own_network,
               "create the pair in a network namespace of its own (root)");
  app.add_flag("--json", options.json, "JSON in place of the table");
  app.add_option("--idle-holder", options.idle_holder)
      ->check(CLI::IsMember({"library", "bare"}))
      ->group("");  // not for people, as the next two: how the program starts itself
  app.add_option("--hold-drives", options.drives_make)->group("");
  app.add_option("--nodes", options.nodes)->group("");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  // The library's log lines would stand between those of the table.
  ::setenv("SPDLOG_STDOUT", "false", 0);
  ::setenv("SPDLOG_SYSTEMD", "false", 0);
  ::setenv("SPDLOG_LEVEL", "error", 0);
  return Run(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return ParseAndRun(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "motor-driver-bench: %s\n", error.what());
    return kCannotRun;
  }
}
