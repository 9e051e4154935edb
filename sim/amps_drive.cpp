#include "sim/amps_drive.h"

#include "sim/single_axis.h"

namespace sim {
namespace {

void AddObjects(ObjectDictionary& dictionary, std::vector<Axis>& axes) {
  AddSingleAxisObjects(dictionary, axes[0], {Axis::kProfilePosition, Axis::kProfileVelocity});
  dictionary.Add(0x2FF0, 0, 1, Access::kConst, 9);
  dictionary.Add(0x2FF0, 9, 2, Access::kReadWrite).OnWrite([&axis = axes[0]](std::uint32_t value) {
    axis.SetTargetVelocity(static_cast<std::int16_t>(value));
    return AbortCode::kNone;
  });
  dictionary.Add(0x4700, 0, 1, Access::kConst, 1);
  dictionary.Add(0x4700, 1, 1, Access::kReadWrite);
  // TPDO1: statusword, error code, position.
  dictionary.SetPowerOnValue(0x1A00, 1, 0x60410010);
  dictionary.SetPowerOnValue(0x1A00, 2, 0x603F0010);
  dictionary.SetPowerOnValue(0x1A00, 3, 0x60630020);
  dictionary.SetPowerOnValue(0x1A00, 0, 3);
}

Make Describe() {
  Make make{};
  make.name = "amps";
  make.description = "one motor, 4096 counts per revolution, target velocity in rpm, by SDO";
  make.product_code = 4;
  make.device_name = "Simulated drive amps";
  make.hardware_version = "rev B";
  make.software_version = "sim 1.0.0";
  make.user_text = 0x4710;
  make.axis_count = 1;
  make.axis = {4096, 1, 1, Axis::kProfileVelocity, 10000, 6000};
  make.axis.state.enable_needs_shutdown = false;
  make.pdo.inhibit_unit = std::chrono::milliseconds(1);
  make.pdo.inhibit_time_is_period = true;
  make.pdo.configurable_while_valid = true;
  make.add_objects = AddObjects;
  make.object_texts = {{0x2FF0, ObjectText::kWhole, "Commands", DataType::kNone},
                       {0x2FF0, 9, "Velocity command", DataType::kInteger16},
                       {0x4700, ObjectText::kWhole, "Object 4700", DataType::kUnsigned8}};
  return make;
}

}  // namespace

const Make& AmpsDrive() {
  static const Make make = Describe();
  return make;
}

}  // namespace sim
