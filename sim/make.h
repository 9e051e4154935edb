#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "sim/axis.h"
#include "sim/object_dictionary.h"
#include "sim/object_text.h"
#include "sim/pdo_engine.h"

namespace sim {

/// What makes a node a drive of one make; everything else is CiA 301.
struct Make {
  std::string_view name;
  std::string_view description;
  std::uint32_t product_code;         // 0x1018 sub 2
  std::string_view device_name;       // 0x1008
  std::string_view hardware_version;  // 0x1009
  std::string_view software_version;  // 0x100A
  // Of the object, with sub-index 0, in which a host may keep a text of its own.
  std::uint16_t user_text;
  std::size_t axis_count;
  AxisTraits axis;
  PdoTraits pdo;
  /// Adds the CiA 402 and manufacturer objects and ties them to the axes, which outlive the
  /// dictionary.
  void (*add_objects)(ObjectDictionary& dictionary, std::vector<Axis>& axes);
  /// Of the objects that no other make has, and of those that are of another type than elsewhere.
  std::vector<ObjectText> object_texts;
  // Can be left inactive: silent and deaf until a frame on its own node-ID wakes it.
  bool has_activation = false;
  // Answers on SDO channel 0 too, to the parameters of its axis: index 0x2000 to 0x2FFF plus
  // 0x1000 times the low four bits of the node-ID.
  bool has_parameter_channel = false;
};

}  // namespace sim
