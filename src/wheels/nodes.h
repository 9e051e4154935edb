// The nodes behind the wheels of a vehicle.
#pragma once

#include <vehicle.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "wheels/makes.h"

namespace motor_driver {

struct Node {
  std::uint8_t id = 0;
  std::array<std::optional<std::size_t>, kMaxMotors> wheels;  // that its motors turn

  std::string name() const { return "node " + std::to_string(id); }
};

// In the order in which the wheels name them.
inline std::vector<Node> NodesOf(const Vehicle& vehicle) {
  std::vector<Node> nodes;
  for (std::size_t wheel = 0; wheel < vehicle.wheels.size(); ++wheel) {
    const auto id = static_cast<std::uint8_t>(vehicle.wheels[wheel].node);
    std::size_t node = 0;
    while (node < nodes.size() && nodes[node].id != id) {
      ++node;
    }
    if (node == nodes.size()) {
      nodes.emplace_back().id = id;
    }
    nodes[node].wheels.at(static_cast<std::size_t>(vehicle.wheels[wheel].motor) - 1) = wheel;
  }
  return nodes;
}

}  // namespace motor_driver
