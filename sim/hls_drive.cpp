#include "sim/hls_drive.h"

#include "sim/single_axis.h"

namespace sim {
namespace {

void AddObjects(ObjectDictionary& dictionary, std::vector<Axis>& axes) {
  AddSingleAxisObjects(dictionary, axes[0], {Axis::kProfilePosition, Axis::kProfileVelocity});
  dictionary.Add(0x2002, 0, 2, Access::kReadWrite);  // current
  dictionary.Add(0x242A, 0, 2, Access::kReadWrite);  // highest current
  for (const std::uint16_t gain :
       {std::uint16_t{0x2300}, std::uint16_t{0x2301}, std::uint16_t{0x2302}}) {
    dictionary.Add(gain, 0, 4, Access::kReadWrite);
  }
  dictionary.Add(0x4603, 0, 2, Access::kReadWrite)
      .Range(0, 1)
      .OnWrite([&axis = axes[0]](std::uint32_t value) {
        if (value == 1) axis.ResetFault();
        return AbortCode::kNone;
      });
}

Make Describe() {
  Make make{};
  make.name = "hls";
  make.description = "one motor, 131072 counts per revolution, target velocity in 0.1 rpm";
  make.product_code = 3;
  make.device_name = "Simulated drive hls";
  make.hardware_version = "3";
  make.software_version = "sim 1.0.0";
  make.user_text = 0x2500;
  make.axis_count = 1;
  make.axis = {131072, 1, 10, Axis::kProfileVelocity, 10000, 6000};
  make.axis.state.controlword_resets_faults = false;
  // Hosts take a drive of this make for ready when the whole statusword is 0x37.
  make.axis.statusword_tells_motion = false;
  make.pdo.configurable_while_valid = true;
  make.pdo.accepts_short_times = true;
  make.pdo.change_detection = std::chrono::milliseconds(5);
  make.add_objects = AddObjects;
  make.object_texts = {{0x2002, ObjectText::kWhole, "Current", DataType::kUnsigned16},
                       {0x242A, ObjectText::kWhole, "Maximum current", DataType::kUnsigned16},
                       {0x2300, ObjectText::kWhole, "P gain", DataType::kUnsigned32},
                       {0x2301, ObjectText::kWhole, "I gain", DataType::kUnsigned32},
                       {0x2302, ObjectText::kWhole, "D gain", DataType::kUnsigned32},
                       {0x4603, ObjectText::kWhole, "Clear fault", DataType::kUnsigned16}};
  make.has_parameter_channel = true;
  return make;
}

}  // namespace

const Make& HlsDrive() {
  static const Make make = Describe();
  return make;
}

}  // namespace sim
