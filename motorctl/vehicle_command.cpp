// motorctl vehicle check FILE
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "context.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;
using motor_driver::Wheel;

Json Describe(const Vehicle& vehicle) {
  Json wheels = Json::array();
  for (const Wheel& wheel : vehicle.wheels) {
    wheels.push_back({{"name", wheel.name},
                      {"node", wheel.node},
                      {"motor", wheel.motor},
                      {"mirrored", wheel.mirrored},
                      {"gear_ratio", wheel.gear_ratio}});
  }
  return {{"make", vehicle.make}, {"interface", vehicle.interface}, {"wheels", wheels}};
}

int Check(const Context& context, const std::string& file) {
  Json line = {{"command", "vehicle check"}, {"file", file}};
  Vehicle vehicle;
  try {
    vehicle = motor_driver::LoadVehicle(file);
  } catch (const motor_driver::VehicleError& error) {
    if (context.json) {
      line.update({{"ok", false}, {"failure", error.what()}});
      context.Line(line.dump());
    }
    throw CommandFailed(error.what());
  }
  if (context.json) {
    line.update({{"ok", true}, {"failure", nullptr}});
    line.update(Describe(vehicle));
    context.Line(line.dump());
    return kSuccess;
  }
  for (const Wheel& wheel : vehicle.wheels) {
    char gear[32] = "";
    if (wheel.gear_ratio != 1) std::snprintf(gear, sizeof(gear), ", gear %g", wheel.gear_ratio);
    context.Line(wheel.name + ": " + vehicle.make + " on " + vehicle.interface + ", node " +
                 std::to_string(wheel.node) + ", motor " + std::to_string(wheel.motor) +
                 (wheel.mirrored ? ", mirrored" : "") + gear);
  }
  context.Line(file + ": " + context.Coloured(Colour::kGreen, "good"));
  return kSuccess;
}

}  // namespace

void AddVehicle(CLI::App& app, Context& context) {
  CLI::App* const vehicle = app.add_subcommand("vehicle", "look at the description of a vehicle");
  vehicle->require_subcommand(1);
  const auto file = std::make_shared<std::string>();
  CLI::App* const check = vehicle->add_subcommand(
      "check", "one line per wheel, or what is wrong with the file and where; needs no bus");
  check->add_option("FILE", *file, "as for --vehicle")->required();
  check->callback(
      [&context, file] { context.run = [&context, file] { return Check(context, *file); }; });
}

}  // namespace motorctl
