#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <system_error>
#include <vector>

#include "sim/simulated_drive.h"

namespace {

enum ExitStatus { kEnded = 0, kFailed = 1, kWrongUsage = 2 };

constexpr const char* kProgram = "motor-drive-sim";

// What to do about the failure; starts with a separator, empty when there is no advice.
std::string Advice(const std::error_code& code, const std::string& interface) {
  switch (code.value()) {
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
      return "; this kernel has no SocketCAN: run the program under tools/with-can, or as root "
             "'modprobe can-raw'";
    case ENODEV:
      return "; make a virtual pair with 'ip link add dev can0 type vxcan peer name " + interface +
             "', or list the interfaces there are with 'ip link'";
    case ENETDOWN:
      return "; bring it up with 'ip link set " + interface + " up'";
    default:
      return "";
  }
}

// Waits for SIGINT or SIGTERM, which the caller has blocked, or for the drive to fail.
std::string WaitForEnd(sim::SimulatedDrive& drive, const sigset_t& signals) {
  const timespec look_up_every{0, 100'000'000};
  for (;;) {
    if (::sigtimedwait(&signals, nullptr, &look_up_every) > 0) return "";
    std::string failure = drive.Failure();
    if (!failure.empty()) return failure;
  }
}

int Run(int argc, char** argv) {
  sim::SimulatedDrive::Options options;
  options.interface.clear();
  options.make.clear();
  unsigned node_id = 1;
  std::vector<std::int32_t> positions;
  std::vector<std::string> faults;

  std::string makes;
  for (const sim::Make* make : sim::AllMakes()) {
    makes += "  " + std::string(make->name) + "  " + std::string(make->description) + "\n";
  }

  CLI::App app("Simulates a servo drive: a CANopen node on a SocketCAN interface.", kProgram);
  app.set_version_flag("--version", std::string(kProgram) + " " + MOTOR_DRIVE_SIM_VERSION);
  app.footer("Makes:\n" + makes + "\n" + sim::FaultHelp() +
             "\nRuns until SIGINT or SIGTERM. Exit status: 0 ended by signal, 1 failed, 2 wrong "
             "usage.");
  app.add_option("--interface", options.interface, "CAN interface, for instance can1")
      ->required()
      ->type_name("NAME");
  app.add_option("--make", options.make, "make of the drive, see below")
      ->required()
      ->type_name("MAKE");
  app.add_option("--node", node_id, "node-ID, 1 to 127 (1)")
      ->check(CLI::Range(1U, 127U))
      ->type_name("ID");
  app.add_option("--heartbeat-ms", options.heartbeat_ms,
                 "heartbeat period from power-on (0 = none)")
      ->type_name("N");
  app.add_option("--start-position", positions,
                 "encoder counts at power-on, for each motor in turn")
      ->expected(1, static_cast<int>(sim::Node::kMaxAxes))
      ->type_name("COUNTS");
  app.add_option("--fault", faults, "misbehave, see below; may be given several times")
      ->take_all()
      ->type_name("FAULT");

  try {
    app.parse(argc, argv);
    options.node_id = static_cast<std::uint8_t>(node_id);
    std::copy(positions.begin(), positions.end(), options.start_positions.begin());
    for (const std::string& fault : faults) options.faults.push_back(sim::ParseFault(fault));
    sim::FindMake(options.make);
  } catch (const CLI::Success& help_or_version) {
    return app.exit(help_or_version);
  } catch (const std::exception& error) {
    std::cerr << kProgram << ": " << error.what() << "; see --help\n";
    return kWrongUsage;
  }

  // Blocked before any thread exists, so that the signals wait for WaitForEnd.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);

  try {
    sim::SimulatedDrive drive(options);
    std::cerr << kProgram << ": " << options.make << " drive, node " << node_id << ", ready on "
              << options.interface << std::endl;
    const std::string failure = WaitForEnd(drive, signals);
    if (failure.empty()) {
      std::cerr << kProgram << ": node " << node_id << " unplugged\n";
      return kEnded;
    }
    std::cerr << kProgram << ": " << failure << "; is "
              << options.interface << " still there? See 'ip link'\n";
  } catch (const std::system_error& error) {
    std::cerr << kProgram << ": " << error.what() << Advice(error.code(), options.interface)
              << "\n";
  }
  return kFailed;
}

}  // namespace

int main(int argc, char** argv) try {
  return Run(argc, argv);
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s: %s\n", kProgram, error.what());
  return kFailed;
}
