#include "sim/replay_program.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <utility>

#include "sim/replay_on_bus.h"

namespace sim {
namespace {

void Say(const std::string& text) { std::cerr << "motor-drive-sim: " << text << std::endl; }

std::string Summary(const Recording& recording) {
  const auto from_host = std::count_if(recording.lines.begin(), recording.lines.end(),
                                       [](const Recording::Line& line) { return line.from_host; });
  char text[128];
  std::snprintf(text, sizeof text, "%.1f s, %td frames of the host, %td of the drives",
                static_cast<double>(recording.lines.back().time.count()) / 1e6, from_host,
                static_cast<std::ptrdiff_t>(recording.lines.size()) - from_host);
  return text;
}

}  // namespace

void AddReplayOptions(CLI::App& app, ReplayOptions& options) {
  CLI::Option* const replay =
      app.add_option("--replay", options.log,
                     "in place of a make: be the drives of this log (candump -L -x, or bus.log of "
                     "motorctl record) for a host that does what the recorded one did")
          ->type_name("LOG");
  for (const char* of_drives : {"--make", "--node", "--heartbeat-ms", "--start-position",
                                "--counts-per-revolution", "--tpdo1-id", "--inactive", "--fault"}) {
    replay->excludes(app.get_option(of_drives));
  }
  app.add_option("--log-interface", options.log_interface, "whose frames of the log count")
      ->needs(replay)
      ->type_name("NAME");
  app.add_option("--patience", options.patience_s,
                 "seconds that a frame of the host may be overdue (10)")
      ->needs(replay)
      ->check(CLI::Range(1, 86'400))
      ->type_name("S");
}

bool RunReplay(const ReplayOptions& options, const std::string& interface,
               const sigset_t& signals) {
  Recording recording = ReadRecording(options.log, options.log_interface);
  const std::string summary = Summary(recording);
  if (recording.left_out != 0) {
    Say(std::to_string(recording.left_out) +
        " frames are left out: only data frames with 11-bit identifiers are replayed");
  }
  Replay replay(std::move(recording), std::chrono::seconds(options.patience_s));
  const auto ready = [&] {
    Say("replay of " + options.log + ": " + summary + ", ready on " + interface);
  };
  const auto ended = [&signals] {
    const timespec at_once{};
    const int signal = ::sigtimedwait(&signals, nullptr, &at_once);
    return signal == SIGINT || signal == SIGTERM;
  };
  const bool over = PlayOnBus(replay, interface, ready, ended);
  Say(over ? "the host did what the recorded one did" : "ended before the recording was over");
  return over;
}

}  // namespace sim
