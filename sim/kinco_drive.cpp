#include "sim/kinco_drive.h"

#include "sim/single_axis.h"

namespace sim {
namespace {

constexpr std::int8_t kImmediateSpeedMode = -3;
constexpr std::uint8_t kInputs = 0x0A;
constexpr std::uint32_t kEmergencyStopInput = 0x0001;

void AddObjects(ObjectDictionary& dictionary, std::vector<Axis>& axes) {
  AddSingleAxisObjects(dictionary, axes[0],
                       {kImmediateSpeedMode, Axis::kProfilePosition, Axis::kProfileVelocity});
  dictionary.Add(0x2010, 0, 1, Access::kConst, kInputs);
  dictionary.Add(0x2010, kInputs, 2, Access::kReadOnly).Mappable().OnRead([&axis = axes[0]] {
    return axis.emergency_pressed() ? kEmergencyStopInput : 0U;
  });
  // Position encoder resolution: increments per motor revolutions.
  dictionary.Add(0x608F, 0, 1, Access::kConst, 2);
  dictionary.Add(0x608F, 1, 4, Access::kReadOnly).OnRead([&axis = axes[0]] {
    return static_cast<std::uint32_t>(axis.counts_per_revolution());
  });
  dictionary.Add(0x608F, 2, 4, Access::kConst, 1);
}

Make Describe() {
  Make make{};
  make.name = "kinco";
  make.description =
      "one motor, 10000 counts per revolution, target velocity in 1875/512 counts per minute";
  make.product_code = 5;
  make.device_name = "Simulated drive kinco";
  make.hardware_version = "A2";
  make.software_version = "sim 1.0.0";
  make.user_text = 0x2F00;
  make.axis_count = 1;
  make.axis = {10000, 1875, 512, kImmediateSpeedMode, 10000, 6000};
  make.axis.velocity_in_counts = true;
  make.axis.state.fault_reset_shuts_down = true;
  make.pdo.configurable_while_valid = true;
  make.pdo.accepts_short_times = true;
  make.pdo.change_detection = std::chrono::milliseconds(5);
  make.add_objects = AddObjects;
  make.object_texts = {
      {0x2010, ObjectText::kWhole, "Inputs", DataType::kNone},
      {0x2010, kInputs, "Digital inputs", DataType::kUnsigned16},
      {0x608F, ObjectText::kWhole, "Position encoder resolution", DataType::kUnsigned32},
      {0x608F, 1, "Encoder increments", DataType::kUnsigned32},
      {0x608F, 2, "Motor revolutions", DataType::kUnsigned32}};
  return make;
}

}  // namespace

const Make& KincoDrive() {
  static const Make make = Describe();
  return make;
}

}  // namespace sim
