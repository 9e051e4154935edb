// Commissioning and diagnosis of drives from the command line.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <exception>
#include <string>

#include "context.h"

namespace motorctl {
namespace {

// Linux takes more, but a name is also handed to the program ip.
std::string CheckInterfaceName(const std::string& name) {
  constexpr std::size_t kLongest = 15;
  const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.';
  });
  if (name.empty() || name.size() > kLongest || !plain || name.front() == '-') {
    return "1 to 15 letters, digits, '.', '_' or '-'";
  }
  return "";
}

// The library reads its environment at its first line.
void ConfigureLibraryLog() {
  setenv("SPDLOG_STDOUT", "true", 1);
  setenv("SPDLOG_SYSTEMD", "false", 0);
  setenv("SPDLOG_LEVEL", "warning", 0);
}

int Run(int argc, char** argv) {
  Context context;
  CLI::App app("Commissioning and diagnosis of servo drives on a CAN bus.", "motorctl");
  app.set_version_flag("--version", std::string("motorctl ") + MOTORCTL_VERSION);
  app.footer(
      "Options may stand before or after the command. \"motorctl COMMAND --help\" tells more.\n"
      "Exit status: 0 success, 1 failure, 2 wrong usage.");
  app.require_subcommand(1);
  app.fallthrough();
  app.add_option("--interface", context.interface, "CAN interface (can0)")
      ->check(CheckInterfaceName)
      ->type_name("NAME");
  app.add_option("--make", context.make, "make of the drives: zl, tt, hls, amps, kinco or fake")
      ->check(CLI::IsMember({"zl", "tt", "hls", "amps", "kinco", "fake"}))
      ->type_name("MAKE");
  app.add_option("--counts-per-revolution", context.counts_per_revolution,
                 "encoder resolution of a kinco drive (10000)")
      ->check(CLI::Range(1UL, 1UL << 21U))
      ->type_name("COUNTS");
  app.add_flag("--json", context.json, "one JSON object per line");
  app.add_flag("--verbose", context.verbose, "what the library says, on standard error");

  AddDoctor(app, context);
  AddScan(app, context);
  AddInfo(app, context);
  AddSdo(app, context);
  AddBringUp(app, context);
  AddJog(app, context);
  AddMonitor(app, context);
  AddExplain(app, context);
  AddDecode(app, context);
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
  }

  // A reader that has gone away shows as a failed write: a command may have wheels to stop.
  ::signal(SIGPIPE, SIG_IGN);
  ConfigureLibraryLog();
  const LibraryOutput library_output;
  int status = kFailure;
  try {
    status = context.run();
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
