// motorctl record [--directory DIR] [--continuous] [--now]
#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "context.h"
#include "record_control.h"
#include "recorder.h"

namespace motorctl {
namespace {

constexpr std::uintmax_t kMegabyte = 1'000'000;

struct Options {
  RecordPlan plan;
  std::size_t limit_mb = 200;
  bool continuous = false;
  std::size_t file_mb = 10;
  std::size_t files_mb = 1000;
  bool now = false;
};

int AskNow(const Context& context) {
  const RecordAnswer answer = AskForRecord(context.vehicle.interface);
  if (!answer.answerer.empty()) context.Say("the answer is that of " + answer.answerer);
  if (!answer.written) throw CommandFailed("not recorded: " + answer.text);
  context.Line(answer.text);
  return kSuccess;
}

}  // namespace

void AddRecord(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  RecordPlan& plan = options->plan;
  CLI::App* const command = app.add_subcommand(
      "record", "keep the last minute of the bus, both directions, and write it when it matters");
  command->add_option("--directory", plan.directory, "where the folders of incidents go (.)")
      ->type_name("DIR");
  command->add_option("--seconds", plan.seconds, "how much before an event is written (60)")
      ->check(Between(0, 3600))
      ->type_name("S");
  command->add_option("--after", plan.after, "how much after it (5)")
      ->check(Between(0, kMostAfterSeconds))
      ->type_name("S");
  command->add_option("--memory-mb", plan.memory_mb, "for frames of 24 bytes (32)")
      ->check(CLI::Range(1, 1024))
      ->type_name("MB");
  command->add_option("--keep", plan.limits.count, "as many folders, then the oldest goes (20)")
      ->check(CLI::Range(1, 10'000))
      ->type_name("COUNT");
  command->add_option("--limit-mb", options->limit_mb, "of all folders together (200)")
      ->check(CLI::Range(1, 1'000'000))
      ->type_name("MB");
  CLI::Option* const continuous = command->add_flag("--continuous", options->continuous,
                                                    "all frames, too, in files that take turns");
  command->add_option("--file-mb", options->file_mb, "of each file (10)")
      ->check(CLI::Range(1, 100'000))
      ->needs(continuous)
      ->type_name("MB");
  command->add_option("--files-mb", options->files_mb, "of all files, then the oldest goes (1000)")
      ->check(CLI::Range(2, 10'000'000))
      ->needs(continuous)
      ->type_name("MB");
  command->add_flag("--now", options->now, "have the recorder that runs write what it has");
  command->callback([&context, options] {
    options->plan.limits.bytes = std::uintmax_t{options->limit_mb} * kMegabyte;
    if (options->continuous) {
      options->plan.continuous =
          LogLimits{options->file_mb * kMegabyte, options->files_mb * kMegabyte};
    }
    context.run = [&context, options] {
      if (options->now) return AskNow(context);
      return Recorder(context, options->plan).Run();
    };
  });
}

}  // namespace motorctl
