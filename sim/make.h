#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "sim/axis.h"
#include "sim/frame.h"
#include "sim/object_dictionary.h"

namespace sim {

/// What makes a node a drive of one make; everything else is CiA 301.
struct Make {
  std::string_view name;
  std::string_view description;
  std::uint32_t product_code;  // 0x1018 sub 2
  std::size_t axis_count;
  AxisTraits axis;
  Time event_timer_unit;  // of sub-index 5 of 0x1800 and following
  /// Adds the CiA 402 and manufacturer objects and ties them to the axes, which outlive the
  /// dictionary.
  void (*add_objects)(ObjectDictionary& dictionary, std::vector<Axis>& axes);
};

const std::vector<const Make*>& AllMakes();

/// Throws std::invalid_argument, naming the makes there are, on an unknown one.
const Make& FindMake(std::string_view name);

}  // namespace sim
