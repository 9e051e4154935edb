#include "moving_objects.h"

#include "wheels/makes.h"

namespace motorctl {

std::uint16_t OfFirstAxis(std::uint16_t index) {
  constexpr std::uint16_t kFirst = 0x6000;
  constexpr std::uint16_t kEnd = 0xA000;
  constexpr std::uint16_t kAxis = 0x0800;
  if (index < kFirst || index >= kEnd) return index;
  return static_cast<std::uint16_t>(kFirst + (index - kFirst) % kAxis);
}

bool Moves(std::uint16_t index) {
  for (const int moving :
       {0x60FF, 0x2FF0, 0x6071, 0x607A, 0x6040, 0x6060, 0x6042, 0x60B0, 0x60B1, 0x60B2, 0x60C1}) {
    if (OfFirstAxis(index) == moving) return true;
  }
  for (const motor_driver::Make& make : motor_driver::Makes()) {
    for (const motor_driver::Object& target : make.targets) {
      if (index == target.index) return true;
    }
  }
  return false;
}

}  // namespace motorctl
