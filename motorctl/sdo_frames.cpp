#include "sdo_frames.h"

namespace motorctl::sdo {

unsigned Specifier(const SdoFrame& frame) { return frame[0] >> 5U; }

std::uint32_t Number(const std::uint8_t* bytes, std::size_t count) {
  std::uint32_t number = 0;
  for (std::size_t i = count; i > 0; --i) number = number << 8U | bytes[i - 1];
  return number;
}

SdoFrame Request(unsigned command, const SdoObject& object, std::uint32_t value) {
  return {static_cast<std::uint8_t>(command),
          static_cast<std::uint8_t>(object.index),
          static_cast<std::uint8_t>(object.index >> 8U),
          object.sub_index,
          static_cast<std::uint8_t>(value),
          static_cast<std::uint8_t>(value >> 8U),
          static_cast<std::uint8_t>(value >> 16U),
          static_cast<std::uint8_t>(value >> 24U)};
}

SdoObject ObjectOf(int node, const SdoFrame& frame) {
  return {node, static_cast<std::uint16_t>(Number(&frame[1], 2)), frame[3]};
}

bool Same(const SdoObject& one, const SdoObject& other) {
  return one.index == other.index && one.sub_index == other.sub_index;
}

}  // namespace motorctl::sdo
