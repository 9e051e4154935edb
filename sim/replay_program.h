// What of motor-drive-sim replays a recording.
#pragma once

#include <signal.h>

#include <CLI/CLI.hpp>
#include <string>

namespace sim {

struct ReplayOptions {
  std::string log;  // empty: drives of a make
  std::string log_interface;
  int patience_s = 10;
};

// After the options of the drives, which a recording leaves no choice of.
void AddReplayOptions(CLI::App& app, ReplayOptions& options);

// True when the host did what the recorded one did. `signals`: blocked; SIGINT and SIGTERM end it.
// Throws std::system_error about the interface, std::runtime_error about the recording and the host.
bool RunReplay(const ReplayOptions& options, const std::string& interface, const sigset_t& signals);

}  // namespace sim
