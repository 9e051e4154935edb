#include "context.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace motorctl {

void Context::RequireMake() const {
  if (make == nullptr) {
    throw CLI::ValidationError("--make", "which make is it? " + motor_driver::MakeNames());
  }
}

std::vector<int> Context::Nodes(const std::vector<int>& named) const {
  std::vector<int> nodes = named;
  if (nodes.empty()) {
    for (const motor_driver::Wheel& wheel : vehicle.wheels) {
      if (std::find(nodes.begin(), nodes.end(), wheel.node) == nodes.end()) {
        nodes.push_back(wheel.node);
      }
    }
  }
  if (nodes.empty()) throw CLI::ValidationError("NODE", "which node, or which --vehicle?");
  return nodes;
}

Vehicle Context::VehicleOf(const std::vector<int>& named) const {
  Vehicle result = vehicle;
  if (named.empty()) return result;
  result.wheels.clear();
  for (const int node : named) {
    for (std::size_t motor = 1; motor <= make->motors; ++motor) {
      motor_driver::Wheel wheel;
      wheel.name = "node " + std::to_string(node);
      if (make->motors > 1) wheel.name += " motor " + std::to_string(motor);
      wheel.node = node;
      wheel.motor = static_cast<int>(motor);
      result.wheels.push_back(wheel);
    }
  }
  return result;
}

void SetPeriod(Vehicle& vehicle, std::optional<int> period_ms) {
  if (!period_ms) return;
  constexpr int kPatience = 10;
  vehicle.period = std::chrono::milliseconds(*period_ms);
  vehicle.command_timeout = std::max(vehicle.command_timeout, kPatience * vehicle.period);
  vehicle.feedback_timeout = std::max(vehicle.feedback_timeout, kPatience * vehicle.period);
}

CLI::Option* AddNodes(CLI::App& command, std::vector<int>& nodes, const std::string& description) {
  return command.add_option("NODE", nodes, description)->check(CLI::Range(1, 127));
}

void AddTimeout(CLI::App& command, Context& context, int usual_ms) {
  command
      .add_option("--timeout", context.timeout_ms,
                  "milliseconds to wait for each SDO answer (" + std::to_string(usual_ms) + ")")
      ->check(CLI::Range(1, 10'000))
      ->type_name("MS");
}

CLI::Validator Between(double above, double most) {
  return CLI::Validator(
      [above, most](const std::string& text) {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (*end == '\0' && end != text.c_str() && value > above && value <= most) {
          return std::string();
        }
        char message[64];
        std::snprintf(message, sizeof(message), "not above %g and at most %g: ", above, most);
        return message + text;
      },
      "");
}

}  // namespace motorctl
