#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "sim/eds.h"
#include "sim/makes.h"
#include "sim/replay_program.h"
#include "sim/simulated_drive.h"

namespace {

using Drives = std::vector<std::unique_ptr<sim::SimulatedDrive>>;

constexpr std::size_t kMaxNodes = 32;

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

// "node 1" or "nodes 1, 2".
std::string NodeList(const std::vector<unsigned>& nodes) {
  std::string list = nodes.size() == 1 ? "node" : "nodes";
  const char* separator = " ";
  for (const unsigned node : nodes) {
    list += separator + std::to_string(node);
    separator = ", ";
  }
  return list;
}

void CheckNodes(std::vector<unsigned> nodes, const sim::SimulatedDrive::Options& options) {
  if (nodes.size() > kMaxNodes) {
    throw std::invalid_argument("--node: at most " + std::to_string(kMaxNodes) + " nodes");
  }
  if (nodes.size() > 1 && options.tpdo1_id != 0) {
    throw std::invalid_argument("--tpdo1-id: for one node only");
  }
  std::sort(nodes.begin(), nodes.end());
  if (std::adjacent_find(nodes.begin(), nodes.end()) != nodes.end()) {
    throw std::invalid_argument("--node: the same node twice");
  }
}

Drives PlugIn(const std::vector<unsigned>& nodes, sim::SimulatedDrive::Options options) {
  Drives drives;
  for (const unsigned node : nodes) {
    options.node_id = static_cast<std::uint8_t>(node);
    drives.push_back(std::make_unique<sim::SimulatedDrive>(options));
  }
  return drives;
}

// Blocked before any thread exists, so that the signals wait for WaitForEnd.
sigset_t BlockSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2}) sigaddset(&signals, signal);
  ::sigprocmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

// Obeys the signals until SIGINT, SIGTERM or a drive's failure, which is returned.
std::string WaitForEnd(const Drives& drives, const sigset_t& signals) {
  const timespec look_up_every{0, 100'000'000};
  for (;;) {
    switch (::sigtimedwait(&signals, nullptr, &look_up_every)) {
      case SIGUSR1:
        for (const auto& drive : drives) drive->PressEmergencyStop();
        break;
      case SIGUSR2:
        for (const auto& drive : drives) drive->ReleaseEmergencyStop();
        break;
      case SIGINT:
      case SIGTERM:
        return "";
      default:
        break;
    }
    for (const auto& drive : drives) {
      std::string failure = drive->Failure();
      if (!failure.empty()) return failure;
    }
  }
}

// A line for each: name and description.
std::string MakeList(const char* indent) {
  std::string list;
  const char* separator = "";
  for (const sim::Make* make : sim::AllMakes()) {
    std::string name(make->name);
    name.resize(std::max<std::size_t>(name.size(), 6), ' ');
    list.append(separator).append(indent).append(name).append(" ").append(make->description);
    separator = "\n";
  }
  return list;
}

int Run(int argc, char** argv) {
  sim::ReplayOptions replay;
  sim::SimulatedDrive::Options options;
  options.interface.clear();
  options.make.clear();
  std::vector<unsigned> nodes{1};
  std::vector<std::int32_t> positions;
  std::vector<std::string> faults;
  bool data_sheet = false;

  CLI::App app("Simulates servo drives: CANopen nodes on a SocketCAN interface.", kProgram);
  app.set_version_flag("--version", std::string(kProgram) + " " + MOTOR_DRIVE_SIM_VERSION);
  app.add_flag_callback(
      "--list-makes", [] { throw CLI::CallForVersion(MakeList(""), kEnded); },
      "print the makes and end");
  app.footer(
      "Makes:\n" + MakeList("  ") + "\n\n" + sim::FaultHelp() +
      "\nRuns until SIGINT or SIGTERM. SIGUSR1 presses the emergency stop, SIGUSR2 releases "
      "it.\n--replay ends by itself.\nExit status: 0 ended by signal, or replayed to the end; 1 "
      "failed, a replay was ended by signal, or the host did not do what the recorded one did; 2 "
      "wrong usage.");
  app.add_option("--interface", options.interface, "CAN interface, for instance can1")
      ->type_name("NAME");
  app.add_option("--make", options.make, "make of the drives, see below")->type_name("MAKE");
  app.add_flag("--eds", data_sheet,
               "print the electronic data sheet of the make (CiA 306) and end; needs no interface");
  app.add_option("--node", nodes, "node-ID, 1 to 127 (1); several times for several drives")
      ->check(CLI::Range(1U, 127U))
      ->take_all()
      ->type_name("ID");
  app.add_option("--heartbeat-ms", options.heartbeat_ms,
                 "heartbeat period from power-on (0 = none)")
      ->type_name("N");
  app.add_option("--start-position", positions,
                 "encoder counts at power-on, for each motor in turn")
      ->expected(1, static_cast<int>(sim::Node::kMaxAxes))
      ->type_name("COUNTS");
  app.add_option("--counts-per-revolution", options.counts_per_revolution,
                 "resolution of the encoder (the make's)")
      ->check(CLI::Range(1, sim::Node::kMaxCountsPerRevolution))
      ->type_name("COUNTS");
  app.add_option("--tpdo1-id", options.tpdo1_id,
                 "CAN identifier of TPDO1 at power-on (0x180 + node-ID)")
      ->check(CLI::Range(0x001, 0x7FF))
      ->type_name("ID");
  app.add_flag("--inactive", options.inactive,
               "silent until the activation frame (only makes that have one)");
  app.add_option("--fault", faults, "misbehave, see below; may be given several times")
      ->take_all()
      ->type_name("FAULT");
  sim::AddReplayOptions(app, replay);

  try {
    app.parse(argc, argv);
    const bool replays = !replay.log.empty();
    if (options.interface.empty() && !data_sheet) throw CLI::RequiredError("--interface");
    if (options.make.empty() && !replays) throw CLI::RequiredError("--make");
    std::copy(positions.begin(), positions.end(), options.start_positions.begin());
    for (const std::string& fault : faults) options.faults.push_back(sim::ParseFault(fault));
    CheckNodes(nodes, options);
    if (data_sheet) {
      std::cout << sim::DataSheet(sim::FindMake(options.make)) << std::flush;
      return std::cout ? kEnded : kFailed;
    }
    if (!replays && !sim::FindMake(options.make).has_activation && options.inactive) {
      throw std::invalid_argument("--inactive: make '" + options.make + "' has no activation");
    }
  } catch (const CLI::Success& help_or_version) {
    return app.exit(help_or_version);
  } catch (const std::exception& error) {
    std::cerr << kProgram << ": " << error.what() << "; see --help\n";
    return kWrongUsage;
  }

  const sigset_t signals = BlockSignals();
  try {
    if (!replay.log.empty()) {
      return sim::RunReplay(replay, options.interface, signals) ? kEnded : kFailed;
    }
    const Drives drives = PlugIn(nodes, options);
    std::cerr << kProgram << ": " << options.make << " drive, " << NodeList(nodes) << ", ready on "
              << options.interface << std::endl;
    const std::string failure = WaitForEnd(drives, signals);
    if (failure.empty()) {
      std::cerr << kProgram << ": " << NodeList(nodes) << " unplugged\n";
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
