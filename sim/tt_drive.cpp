#include "sim/tt_drive.h"

#include "sim/single_axis.h"

namespace sim {
namespace {

constexpr std::uint32_t kSaveSignature = 0x65766173;  // "save"
constexpr std::uint32_t kSavesOnCommand = 1;

void AddObjects(ObjectDictionary& dictionary, std::vector<Axis>& axes) {
  AddSingleAxisObjects(dictionary, axes[0], {Axis::kProfilePosition, Axis::kProfileVelocity});
  dictionary.Add(0x1010, 0, 1, Access::kConst, 1);
  dictionary.Add(0x1010, 1, 4, Access::kReadWrite)
      .OnRead([] { return kSavesOnCommand; })
      .OnWrite([](std::uint32_t signature) {
        return signature == kSaveSignature ? AbortCode::kNone : AbortCode::kNotStored;
      });
}

Make Describe() {
  Make make{};
  make.name = "tt";
  make.description = "one motor, 32768 counts per revolution, target velocity in rpm";
  make.product_code = 2;
  make.device_name = "Simulated drive tt";
  make.hardware_version = "T1.0";
  make.software_version = "sim 1.0.0";
  make.user_text = 0x2020;
  make.axis_count = 1;
  make.axis = {32768, 1, 1, Axis::kProfileVelocity, 10000, 6000};
  make.add_objects = AddObjects;
  make.has_activation = true;
  return make;
}

}  // namespace

const Make& TtDrive() {
  static const Make make = Describe();
  return make;
}

}  // namespace sim
