// motorctl config save|diff|restore
#include "config_command.h"

#include <CLI/CLI.hpp>
#include <ctime>

#include "config_session.h"
#include "dcf.h"
#include "output_file.h"

namespace motorctl {
namespace {

struct SaveOptions {
  int node = 0;
  std::string output;
  bool dcf = false;
  bool partial = false;
};

std::string TimeOfDay() {
  const std::time_t now = std::time(nullptr);
  std::tm utc = {};
  ::gmtime_r(&now, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

// What is missing in the file: a few by name.
void SaySome(const Context& context, const std::string& what,
             const std::vector<std::string>& objects) {
  constexpr std::size_t kNamed = 10;
  for (std::size_t i = 0; i < objects.size() && i < kNamed; ++i) {
    context.Say(what + objects[i]);
  }
  if (objects.size() > kNamed) {
    context.Say(what + std::to_string(objects.size() - kNamed) + " more objects");
  }
}

int Save(const Context& context, const SaveOptions& options) {
  ConfigSession session(context, options.node);
  session.HoldSignals();
  ConfigWalk walk = session.Walk();
  SaySome(context, "not in the drive: ", walk.absent);
  SaySome(context, "could not be read: ", walk.unread);
  if (!walk.unread.empty() && !options.partial) {
    throw CommandFailed("nothing was saved; --partial saves the rest");
  }
  Config& config = walk.config;
  config.tool = std::string("motorctl ") + MOTORCTL_VERSION;
  config.time = TimeOfDay();
  const std::string text =
      options.dcf ? WriteDcf(*context.data_sheet, config) : WriteConfig(config);
  const std::string disturbance = session.device().Disturbance();
  if (!disturbance.empty()) throw CommandFailed(disturbance);
  if (options.output.empty()) {
    context.Write(text);
  } else {
    WriteWholeFile(options.output, text);
  }
  const auto changing =
      std::count_if(config.objects.begin(), config.objects.end(),
                    [](const ConfigObject& object) { return object.is_volatile; });
  context.Say("node " + std::to_string(options.node) + ": " +
              std::to_string(config.objects.size()) + " objects saved, " +
              std::to_string(changing) + " of them change by themselves");
  return kSuccess;
}

void AddSave(CLI::App& config, Context& context) {
  const auto options = std::make_shared<SaveOptions>();
  CLI::App* const save = config.add_subcommand("save", "write what a drive holds as a file");
  save->add_option("NODE", options->node, "node-ID")->required()->check(CLI::Range(1, 127));
  save->add_option("--output", options->output,
                   "the file, which is there whole or not at all (standard output)")
      ->type_name("FILE");
  save->add_flag("--dcf", options->dcf, "as a device configuration file of CiA 306; needs --eds");
  save->add_flag("--partial", options->partial, "also where objects could not be read");
  save->callback([&context, options] {
    if (options->dcf && !context.data_sheet) {
      throw CLI::ValidationError("--dcf", "needs --eds");
    }
    context.run = [&context, options] { return Save(context, *options); };
  });
}

}  // namespace

void AddConfig(CLI::App& app, Context& context) {
  CLI::App* const config =
      app.add_subcommand("config", "save, compare and restore what is in a drive");
  config->require_subcommand(1);
  AddTimeout(*config, context);
  AddSave(*config, context);
  AddConfigDiff(*config, context);
  AddConfigRestore(*config, context);
}

}  // namespace motorctl
