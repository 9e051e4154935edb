#include "sim/single_axis.h"

#include "sim/profile_objects.h"
namespace sim {
namespace {

void AddStateObjects(ObjectDictionary& dictionary, Axis& axis) {
  dictionary.Add(0x603F, 0, 2, Access::kReadOnly).Mappable().OnRead([&axis] {
    return axis.error_code();
  });
  dictionary.Add(0x6040, 0, 2, Access::kReadWrite).Mappable().OnWrite([&axis](std::uint32_t value) {
    axis.SetControlword(static_cast<std::uint16_t>(value));
    return AbortCode::kNone;
  });
  dictionary.Add(0x6041, 0, 2, Access::kReadOnly).Mappable().OnRead([&axis] {
    return axis.Statusword();
  });
}

void AddMotionObjects(ObjectDictionary& dictionary, Axis& axis) {
  for (const std::uint16_t index : {std::uint16_t{0x6063}, std::uint16_t{0x6064}}) {
    dictionary.Add(index, 0, 4, Access::kReadOnly).Mappable().Continuous().OnRead([&axis] {
      return static_cast<std::uint32_t>(axis.Position());
    });
  }
  dictionary.Add(0x606C, 0, 4, Access::kReadOnly).Mappable().Continuous().OnRead([&axis] {
    return static_cast<std::uint32_t>(axis.VelocityUnits());
  });
  // In rpm per second; 0 chooses the drive's own quick ramp.
  dictionary.Add(0x6083, 0, 4, Access::kReadWrite).OnWrite([&axis](std::uint32_t value) {
    axis.SetAcceleration(value);
    return AbortCode::kNone;
  });
  dictionary.Add(0x6084, 0, 4, Access::kReadWrite).OnWrite([&axis](std::uint32_t value) {
    axis.SetDeceleration(value);
    return AbortCode::kNone;
  });
  dictionary.Add(0x60FF, 0, 4, Access::kReadWrite).Mappable().OnWrite([&axis](std::uint32_t value) {
    axis.SetTargetVelocity(static_cast<std::int32_t>(value));
    return AbortCode::kNone;
  });
}

}  // namespace

void AddSingleAxisObjects(ObjectDictionary& dictionary, Axis& axis,
                          const std::vector<std::int8_t>& modes) {
  AddStateObjects(dictionary, axis);
  AddModeObjects(dictionary, {&axis}, modes);
  AddStopObjects(dictionary, {&axis});
  AddMotionObjects(dictionary, axis);
  AddPositioningObjects(dictionary, 0, axis);
}

}  // namespace sim
