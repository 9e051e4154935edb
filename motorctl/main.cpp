// Commissioning and diagnosis of drives from the command line.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "context.h"
#include "data_sheet.h"
#include "emergency_watch.h"
#include "guard.h"
#include "terminal.h"

namespace motorctl {
namespace {

// As they stand on the command line; nothing where they do not.
struct Named {
  std::string vehicle;
  std::optional<std::string> interface;
  std::optional<std::string> make;
  std::optional<unsigned long> counts_per_revolution;
  std::string data_sheet;
};

std::string CheckInterface(const std::string& name) {
  return motor_driver::IsInterfaceName(name) ? "" : "1 to 15 letters, digits, '.', '_' or '-'";
}

std::string CheckMake(const std::string& name) {
  return motor_driver::FindMake(name) != nullptr ? ""
                                                 : name + " is not " + motor_driver::MakeNames();
}

// The file first, then what the command line says.
void TakeVehicle(const Named& named, Context& context) {
  context.vehicle_file = named.vehicle;
  if (!named.vehicle.empty()) context.vehicle = motor_driver::LoadVehicle(named.vehicle);
  if (named.interface) context.vehicle.interface = *named.interface;
  context.named_interface = named.interface.value_or("");
  context.named_counts = named.counts_per_revolution.has_value();
  if (named.make) context.vehicle.make = *named.make;
  if (named.counts_per_revolution) {
    context.vehicle.counts_per_revolution = *named.counts_per_revolution;
  }
  context.make = motor_driver::FindMake(context.vehicle.make);
}

void TakeDataSheet(const std::string& file, Context& context) {
  if (file.empty()) return;
  context.data_sheet = LoadEds(file);
  if (!context.data_sheet->note.empty()) context.Say(context.data_sheet->note);
  UseDataSheet(&*context.data_sheet);
}

void AddGlobalOptions(CLI::App& app, Context& context, Named& named) {
  app.set_version_flag("--version", std::string("motorctl ") + MOTORCTL_VERSION);
  app.add_option(
         "--vehicle", named.vehicle,
         "file that describes the vehicle: make, interface, nodes, counts ($MOTORCTL_VEHICLE)")
      ->envname("MOTORCTL_VEHICLE")
      ->type_name("FILE");
  app.add_option("--interface", named.interface, "CAN interface (can0)")
      ->check(CheckInterface)
      ->type_name("NAME");
  app.add_option("--make", named.make, "make of the drives: " + motor_driver::MakeNames())
      ->check(CheckMake)
      ->type_name("MAKE");
  app.add_option("--counts-per-revolution", named.counts_per_revolution,
                 "encoder resolution, of makes that do not know theirs (10000)")
      ->check(CLI::Range(4UL, 1UL << 24U))
      ->type_name("COUNTS");
  app.add_option("--eds", named.data_sheet,
                 "data sheet of the device (EDS or DCF of CiA 306): its names, types and limits")
      ->type_name("FILE");
  app.add_flag("--json", context.json, "one JSON object per line");
  app.add_flag("--verbose", context.verbose, "what the library says, on standard error");
  // For completion, and for whoever writes the names of the makes down.
  app.add_flag_callback("--list-makes",
                        [] {
                          for (const Make& make : motor_driver::Makes())
                            std::printf("%s\n", make.name);
                          throw CLI::Success();
                        })
      ->group("");
}

// The library reads its environment at its first line.
void ConfigureLibraryLog() {
  setenv("SPDLOG_STDOUT", "true", 1);
  setenv("SPDLOG_SYSTEMD", "false", 0);
  setenv("SPDLOG_LEVEL", "warning", 0);
}

// The command that is guarded has options of its own. What stands before it is left.
int TakeGuardedCommand(int argc, char** argv, Context& context) {
  const auto end = argv + argc;
  const auto dashes =
      std::find_if(argv, end, [](const char* word) { return !std::strcmp(word, "--"); });
  const auto guard =
      std::find_if(argv, dashes, [](const char* word) { return !std::strcmp(word, "guard"); });
  if (guard == dashes || dashes == end) return argc;
  context.guarded_command.assign(dashes + 1, end);
  return static_cast<int>(dashes - argv);
}

// They wait for nodes, or move them.
bool IsOnTheBus(const CLI::App& app) {
  const char* const names[] = {"doctor", "scan",     "info", "sdo",
                               "config", "bring-up", "jog",  "monitor"};
  return std::any_of(std::begin(names), std::end(names),
                     [&app](const char* name) { return app.got_subcommand(name); });
}

// Of a file that is named on the command line.
int StatusOfWrongFile(const CLI::App& app) {
  if (app.got_subcommand("guard")) return kGuardFailed;
  const CLI::App* const config = app.get_subcommand("config");
  return config->got_subcommand("diff") ? kUsage : kFailure;
}

int Run(int argc, char** argv) {
  Context context;
  argc = TakeGuardedCommand(argc, argv, context);
  Named named;
  CLI::App app("Commissioning and diagnosis of servo drives on a CAN bus.", "motorctl");
  app.footer(
      "Options may stand before or after the command. \"motorctl COMMAND --help\" tells more.\n"
      "Exit status: 0 success, 1 failure, 2 wrong usage.");
  app.require_subcommand(1);
  app.fallthrough();
  AddGlobalOptions(app, context, named);
  // Before the callbacks of the commands, which look at it.
  app.parse_complete_callback([&] {
    if (app.got_subcommand("vehicle")) named.vehicle.clear();  // it names its own
    TakeVehicle(named, context);
    TakeDataSheet(named.data_sheet, context);
  });

  AddDoctor(app, context);
  AddScan(app, context);
  AddInfo(app, context);
  AddSdo(app, context);
  AddConfig(app, context);
  AddBringUp(app, context);
  AddJog(app, context);
  AddStop(app, context);
  AddGuard(app, context);
  AddMonitor(app, context);
  AddRecord(app, context);
  AddReport(app, context);
  AddExplain(app, context);
  AddDecode(app, context);
  AddVehicle(app, context);
  for (CLI::App* command : app.get_subcommands({})) {
    command->fallthrough();
    for (CLI::App* nested : command->get_subcommands({})) nested->fallthrough();
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help_or_version) {
    return app.exit(help_or_version);
  } catch (const CLI::ParseError& error) {
    context.Say(std::string(error.what()) + "; see --help");
    return kUsage;
  } catch (const std::runtime_error& wrong_file) {
    context.Say(wrong_file.what());
    return StatusOfWrongFile(app);
  }

  // A reader that has gone away shows as a failed write: a command may have wheels to stop.
  ::signal(SIGPIPE, SIG_IGN);
  ConfigureLibraryLog();
  const LibraryOutput library_output;
  int status = kFailure;
  try {
    std::optional<EmergencyWatch> watch;
    if (IsOnTheBus(app)) watch.emplace(context);
    status = context.run();
  } catch (const NobodyReads&) {
    // `| head` has what it wanted.
  } catch (const std::exception& error) {
    context.Say(error.what());
  }
  const std::string library_text = LibraryOutput::Take();
  if (context.verbose) std::fputs(library_text.c_str(), stderr);
  return status;
}

}  // namespace
}  // namespace motorctl

int main(int argc, char** argv) try {
  return motorctl::Run(argc, argv);
} catch (const std::exception& error) {
  std::fprintf(stderr, "motorctl: %s\n", error.what());
  return motorctl::kFailure;
}
