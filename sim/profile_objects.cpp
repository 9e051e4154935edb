#include "sim/profile_objects.h"

#include <algorithm>

namespace sim {
namespace {

// Bit of a mode in 0x6502: standard modes from bit 0 on, a manufacturer's own from bit 16 on.
std::uint32_t ModeBit(std::int8_t mode) {
  return mode > 0 ? 1U << static_cast<unsigned>(mode - 1) : 1U << static_cast<unsigned>(15 - mode);
}

}  // namespace

void AddModeObjects(ObjectDictionary& dictionary, const std::vector<Axis*>& axes,
                    const std::vector<std::int8_t>& modes) {
  dictionary.Add(0x6060, 0, 1, Access::kReadWrite)
      .Mappable()
      .OnWrite([axes, modes](std::uint32_t value) {
        const auto mode = static_cast<std::int8_t>(value);
        if (mode != 0 && std::find(modes.begin(), modes.end(), mode) == modes.end()) {
          return AbortCode::kInvalidValue;
        }
        for (Axis* axis : axes) axis->SetMode(mode);
        return AbortCode::kNone;
      });
  dictionary.Add(0x6061, 0, 1, Access::kReadOnly).Mappable().OnRead([axis = axes.front()] {
    return static_cast<std::uint32_t>(axis->mode());
  });
  std::uint32_t supported = 0;
  for (const std::int8_t mode : modes) supported |= ModeBit(mode);
  dictionary.Add(0x6502, 0, 4, Access::kConst, supported);
}

void AddStopObjects(ObjectDictionary& dictionary, const std::vector<Axis*>& axes) {
  dictionary.Add(0x6007, 0, 2, Access::kReadWrite, 0).OnWrite([axes](std::uint32_t value) {
    const auto option = static_cast<AbortConnectionOption>(value);
    switch (option) {
      case AbortConnectionOption::kNoAction:
      case AbortConnectionOption::kFaultSignal:
      case AbortConnectionOption::kDisableVoltage:
      case AbortConnectionOption::kQuickStop:
        for (Axis* axis : axes) axis->SetAbortConnectionOption(option);
        return AbortCode::kNone;
    }
    return AbortCode::kInvalidValue;
  });
  const auto quick_ramp = static_cast<std::uint32_t>(QuickStopOption::kQuickRamp);
  dictionary.Add(0x605A, 0, 2, Access::kReadWrite, quick_ramp).OnWrite([axes](std::uint32_t value) {
    const auto option = static_cast<QuickStopOption>(value);
    switch (option) {
      case QuickStopOption::kDisable:
      case QuickStopOption::kSlowDown:
      case QuickStopOption::kQuickRamp:
      case QuickStopOption::kSlowDownAndStay:
      case QuickStopOption::kQuickRampAndStay:
        for (Axis* axis : axes) axis->SetQuickStopOption(option);
        return AbortCode::kNone;
    }
    return AbortCode::kInvalidValue;
  });
}

void AddPositioningObjects(ObjectDictionary& dictionary, std::uint8_t sub, Axis& axis) {
  dictionary.Add(0x607A, sub, 4, Access::kReadWrite)
      .Mappable()
      .OnWrite([&axis](std::uint32_t value) {
        axis.SetTargetPosition(static_cast<std::int32_t>(value));
        return AbortCode::kNone;
      });
  // In units of the target velocity; 0 chooses the make's highest speed.
  dictionary.Add(0x6081, sub, 4, Access::kReadWrite)
      .Mappable()
      .OnWrite([&axis](std::uint32_t value) {
        axis.SetProfileVelocity(value);
        return AbortCode::kNone;
      });
}

}  // namespace sim
