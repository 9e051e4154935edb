#include "sim/zl_drive.h"

#include "sim/profile_objects.h"

namespace sim {
namespace {

constexpr std::uint8_t kAxisCount = 2;

// The two halves of a 32-bit object that holds 16 bits of each motor.
std::uint32_t Join(std::uint16_t motor1, std::uint16_t motor2) {
  return motor1 | static_cast<std::uint32_t>(motor2) << 16;
}

void AddCommonObjects(ObjectDictionary& dictionary, std::vector<Axis>& axes) {
  dictionary.Add(0x6040, 0, 2, Access::kReadWrite).Mappable().OnWrite([&axes](std::uint32_t value) {
    for (Axis& axis : axes) axis.SetControlword(static_cast<std::uint16_t>(value));
    return AbortCode::kNone;
  });
  dictionary.Add(0x6041, 0, 4, Access::kReadOnly).Mappable().OnRead([&axes] {
    return Join(axes[0].Statusword(), axes[1].Statusword());
  });
  dictionary.Add(0x603F, 0, 4, Access::kReadOnly).Mappable().OnRead([&axes] {
    return Join(axes[0].error_code(), axes[1].error_code());
  });
  AddModeObjects(dictionary, {&axes.front(), &axes.back()},
                 {Axis::kProfilePosition, Axis::kProfileVelocity});
  AddStopObjects(dictionary, {&axes.front(), &axes.back()});
}

void AddMotorObjects(ObjectDictionary& dictionary, std::uint8_t sub, Axis& axis) {
  // In rpm, as the velocity below.
  dictionary.Add(0x60FF, sub, 4, Access::kReadWrite)
      .Mappable()
      .OnWrite([&axis](std::uint32_t value) {
        axis.SetTargetVelocity(static_cast<std::int32_t>(value));
        return AbortCode::kNone;
      });
  dictionary.Add(0x606C, sub, 4, Access::kReadOnly).Mappable().OnRead([&axis] {
    return static_cast<std::uint32_t>(axis.VelocityUnits());
  });
  for (const std::uint16_t index : {std::uint16_t{0x6063}, std::uint16_t{0x6064}}) {
    dictionary.Add(index, sub, 4, Access::kReadOnly).Mappable().OnRead([&axis] {
      return static_cast<std::uint32_t>(axis.Position());
    });
  }
  // In rpm per second; 0 chooses the drive's own quick ramp.
  dictionary.Add(0x6083, sub, 4, Access::kReadWrite).OnWrite([&axis](std::uint32_t value) {
    axis.SetAcceleration(value);
    return AbortCode::kNone;
  });
  dictionary.Add(0x6084, sub, 4, Access::kReadWrite).OnWrite([&axis](std::uint32_t value) {
    axis.SetDeceleration(value);
    return AbortCode::kNone;
  });
}

void AddManufacturerObjects(ObjectDictionary& dictionary) {
  dictionary.Add(0x200F, 0, 2, Access::kReadWrite).Range(0, 1);  // 1 couples the two motors
  dictionary.Add(0x2010, 0, 2, Access::kReadWrite).Range(0, 1);  // 1 saves all parameters
  // Current limits of the two motors.
  for (const std::uint16_t index : {std::uint16_t{0x2012}, std::uint16_t{0x2014},
                                    std::uint16_t{0x2015}, std::uint16_t{0x2016}}) {
    dictionary.Add(index, 0, 1, Access::kConst, kAxisCount);
    for (std::uint8_t sub = 1; sub <= kAxisCount; ++sub) {
      dictionary.Add(index, sub, 2, Access::kReadWrite);
    }
  }
}

void AddObjects(ObjectDictionary& dictionary, std::vector<Axis>& axes) {
  AddCommonObjects(dictionary, axes);
  for (const std::uint16_t index :
       {std::uint16_t{0x6063}, std::uint16_t{0x6064}, std::uint16_t{0x606C}, std::uint16_t{0x6083},
        std::uint16_t{0x6084}, std::uint16_t{0x60FF}, std::uint16_t{0x607A},
        std::uint16_t{0x6081}}) {
    dictionary.Add(index, 0, 1, Access::kConst, kAxisCount);
  }
  for (std::uint8_t sub = 1; sub <= kAxisCount; ++sub) {
    AddMotorObjects(dictionary, sub, axes[sub - 1U]);
    AddPositioningObjects(dictionary, sub, axes[sub - 1U]);
  }
  AddManufacturerObjects(dictionary);
}

Make Describe() {
  Make make{};
  make.name = "zl";
  make.description = "two motors in one node, 4096 counts per revolution, target velocity in rpm";
  make.product_code = 1;
  make.device_name = "Simulated drive zl";
  make.hardware_version = "1.1";
  make.software_version = "sim 1.0.0";
  make.user_text = 0x2030;
  make.axis_count = kAxisCount;
  make.axis = {4096, 1, 1, Axis::kProfileVelocity, 10000, 6000};
  make.pdo = {Time(500)};
  make.add_objects = AddObjects;
  // A word of each motor in one object.
  make.object_texts = {{0x603F, ObjectText::kWhole, "Error codes", DataType::kUnsigned32},
                       {0x6041, ObjectText::kWhole, "Statuswords", DataType::kUnsigned32},
                       {0x200F, ObjectText::kWhole, "Motors coupled", DataType::kUnsigned16},
                       {0x2010, ObjectText::kWhole, "Save all parameters", DataType::kUnsigned16},
                       {0x2012, ObjectText::kWhole, "Current limit 2012", DataType::kUnsigned16},
                       {0x2014, ObjectText::kWhole, "Current limit 2014", DataType::kUnsigned16},
                       {0x2015, ObjectText::kWhole, "Current limit 2015", DataType::kUnsigned16},
                       {0x2016, ObjectText::kWhole, "Current limit 2016", DataType::kUnsigned16}};
  return make;
}

}  // namespace

const Make& ZlDrive() {
  static const Make make = Describe();
  return make;
}

}  // namespace sim
