// motorctl doctor [NODE...]
#include <linux/can/error.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <map>
#include <memory>

#include "doctor_report.h"
#include "identifiers.h"
#include "link.h"
#include "listener.h"
#include "signals.h"
#include "words.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;

// The heartbeat that the makes' set-ups ask for comes every 2 s.
constexpr auto kListen = std::chrono::milliseconds(2500);
constexpr int kShortestQueue = 10;

std::string UpCommand(const Context& context) {
  return "as root: ip link set " + context.vehicle.interface +
         " up type can bitrate 500000 restart-ms 100";
}

bool HasSocketCan() {
  const int can = ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
  if (can >= 0) ::close(can);
  return can >= 0;
}

std::string ErrorCounters(const Link& link) {
  if (!link.transmit_errors || !link.receive_errors) return "";
  return ", error counters: transmit " + std::to_string(*link.transmit_errors) + ", receive " +
         std::to_string(*link.receive_errors);
}

void CheckHardware(const Context& context, const Link& link, DoctorReport& report) {
  if (!link.bitrate) {
    report.Fail("bit rate", "none is set", UpCommand(context));
  } else {
    report.Ok("bit rate", std::to_string(*link.bitrate) + " bit/s; all nodes must have the same");
  }
  if (link.restart_ms.value_or(0) == 0) {
    report.Warn(
        "restart-ms", "0: after bus-off the bus stays dead",
        "as root: ip link set " + context.vehicle.interface + " down; then " + UpCommand(context));
  } else {
    report.Ok("restart-ms", std::to_string(*link.restart_ms) + " ms after bus-off");
  }
  if (link.bus_state.empty()) return;
  const std::string state = link.bus_state + ErrorCounters(link);
  const char* const wiring =
      "check wiring, both 120 Ohm terminations, the bit rate, and that another node is switched on";
  if (link.bus_state == "ERROR-ACTIVE") {
    report.Ok("bus state", state);
  } else if (link.bus_state == "BUS-OFF") {
    report.Fail("bus state", state,
                std::string(wiring) + "; then as root: ip link set " + context.vehicle.interface +
                    " type can restart");
  } else {
    report.Warn("bus state", state, wiring);
  }
}

// Whether there is a bus to listen to.
bool CheckInterface(const Context& context, DoctorReport& report) {
  if (!HasSocketCan()) {
    report.Fail("kernel", "no SocketCAN",
                "as root: modprobe can-raw; without hardware: tools/with-can");
    return false;
  }
  const std::optional<Link> link = FindLink(context.vehicle.interface);
  if (!link) {
    report.Fail("interface", "there is no " + context.vehicle.interface,
                "\"ip link\" lists what there is; is the adapter plugged in, its driver loaded?");
    return false;
  }
  if (!link->is_can) {
    report.Fail("interface", context.vehicle.interface + " is not a CAN interface",
                "name another with --interface; \"ip link\" lists what there is");
    return false;
  }
  report.Ok("interface", context.vehicle.interface + " exists" +
                             (link->kind.empty() ? "" : ", kind " + link->kind));
  if (!link->up) {
    report.Fail("up", context.vehicle.interface + " is down", UpCommand(context));
    return false;
  }
  report.Ok("up", context.vehicle.interface + " is up");
  if (link->kind == "can") {
    CheckHardware(context, *link, report);
  } else if (link->kind == "vcan") {
    report.Warn("virtual", "local programs do not see what the library sends on a vcan",
                "use a vxcan pair: ip link add dev can0 type vxcan peer name can1");
  } else {
    report.Ok("bit rate", "none: a virtual interface");
  }
  if (link->queue_length < kShortestQueue) {
    report.Warn("txqueuelen", std::to_string(link->queue_length) + ": commands may be refused",
                "as root: ip link set " + context.vehicle.interface + " txqueuelen 10");
  } else {
    report.Ok("txqueuelen", std::to_string(link->queue_length));
  }
  return true;
}

struct Heard {
  int frames = 0;
  int errors = 0;
  std::map<int, std::uint8_t> heartbeats;  // NMT state by node
};

Heard Listen(const Context& context, EndSignals& signals) {
  Listener listener(context.vehicle.interface);
  Heard heard;
  HeardFrame frame;
  for (const auto end = Clock::now() + kListen; Clock::now() < end && !signals.Arrived();) {
    if (!listener.Hear(frame, std::chrono::milliseconds(50))) continue;
    (frame.is_error() ? heard.errors : heard.frames) += 1;
    const std::uint32_t id = frame.frame.can_id;
    if (frame.is_data() && id > kHeartbeat && id < kHeartbeat + 128 && frame.frame.can_dlc == 1) {
      heard.heartbeats[static_cast<int>(id - kHeartbeat)] = frame.frame.data[0];
    }
  }
  return heard;
}

void CheckTraffic(const Heard& heard, DoctorReport& report) {
  if (heard.frames == 0) {
    report.Warn("traffic", "not one frame in 2.5 s",
                "normal for drives that were never set up; otherwise: supply, wiring, bit rate");
  } else {
    report.Ok("traffic", std::to_string(heard.frames) + " frames in 2.5 s");
  }
  if (heard.errors > 0) {
    report.Fail("error frames", std::to_string(heard.errors) + " in 2.5 s",
                "bit rate of every node, wiring, both terminations");
  }
  if (heard.heartbeats.empty()) {
    report.Warn("heartbeats", "none in 2.5 s",
                "\"motorctl scan\" finds silent nodes; \"motorctl bring-up\" sets heartbeats");
    return;
  }
  std::string nodes;
  for (const auto& [node, state] : heard.heartbeats) {
    nodes +=
        (nodes.empty() ? "node " : ", node ") + std::to_string(node) + " " + NmtStateText(state);
  }
  report.Ok("heartbeats", nodes);
}

int Run(const Context& context, const std::vector<int>& nodes) {
  EndSignals signals;
  DoctorReport report(context);
  if (CheckInterface(context, report)) {
    CheckTraffic(Listen(context, signals), report);
    if (signals.Arrived()) throw CommandFailed("interrupted");
    for (const int node : nodes) CheckNode(context, node, report);
  }
  if (report.failed() == 0) {
    context.Say(nodes.empty() ? "nothing is wrong with the bus; name a node to have it examined"
                              : "nothing is wrong");
    return kSuccess;
  }
  context.Say(std::to_string(report.failed()) +
              (report.failed() == 1 ? " check failed" : " checks failed"));
  return kFailure;
}

}  // namespace

void AddDoctor(CLI::App& app, Context& context) {
  const auto nodes = std::make_shared<std::vector<int>>();
  CLI::App* const command = app.add_subcommand(
      "doctor", "check interface, bus and nodes step by step, and say how to mend what is wrong");
  AddTimeout(*command, context);
  AddNodes(*command, *nodes, "node-IDs to examine; those of the vehicle, or only the bus, without");
  command->callback([&context, nodes] {
    if (nodes->empty() && !context.vehicle.wheels.empty()) *nodes = context.Nodes({});
    context.run = [&context, nodes] { return Run(context, *nodes); };
  });
}

}  // namespace motorctl
