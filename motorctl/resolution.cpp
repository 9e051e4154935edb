#include "resolution.h"

#include <algorithm>
#include <cstdio>
#include <vector>

#include "sdo_client.h"

namespace motorctl {
namespace {

constexpr std::uint16_t kEncoderResolution = 0x608F;
constexpr std::uint8_t kIncrements = 1;
constexpr std::uint8_t kRevolutions = 2;

std::vector<int> NodesOf(const Vehicle& vehicle) {
  std::vector<int> nodes;
  for (const motor_driver::Wheel& wheel : vehicle.wheels) {
    if (std::find(nodes.begin(), nodes.end(), wheel.node) == nodes.end()) {
      nodes.push_back(wheel.node);
    }
  }
  return nodes;
}

}  // namespace

std::string NodeNames(const Vehicle& vehicle) {
  std::string names;
  const std::vector<int> nodes = NodesOf(vehicle);
  for (const int node : nodes) names += (names.empty() ? "" : ", ") + std::to_string(node);
  return (nodes.size() == 1 ? "node " : "nodes ") + names;
}

std::string CheckResolution(const Context& context, const Vehicle& vehicle) {
  const Make& make = *motor_driver::FindMake(vehicle.make);
  // With two motors in a node, the sub-indices are theirs.
  if (make.motors > 1) return "";
  const unsigned long assumed =
      motor_driver::CountsPerRevolution(make, vehicle.counts_per_revolution);
  SdoClient client(context.vehicle.interface, context.SdoTimeout());
  std::string unknown;
  for (const int node : NodesOf(vehicle)) {
    const SdoAnswer increments = client.Upload(node, kEncoderResolution, kIncrements);
    const SdoAnswer revolutions = client.Upload(node, kEncoderResolution, kRevolutions);
    if (!increments.ok() || !revolutions.ok() || revolutions.number() == 0) {
      unknown += (unknown.empty() ? "" : ", ") + std::to_string(node);
      continue;
    }
    const double told = static_cast<double>(increments.number()) / revolutions.number();
    if (told == static_cast<double>(assumed)) continue;
    char counts[32];
    std::snprintf(counts, sizeof(counts), "%g", told);
    throw CommandFailed("node " + std::to_string(node) + " has " + counts +
                        " counts per revolution (0x608F), not " + std::to_string(assumed) +
                        ": every speed would be wrong; see --counts-per-revolution");
  }
  if (unknown.empty() || !make.counts_are_configured) return "";
  return "node " + unknown + " does not tell its encoder resolution: " + std::to_string(assumed) +
         " counts per revolution cannot be checked, and if they are wrong, so is every speed";
}

}  // namespace motorctl
