#pragma once

#include <cstdint>

namespace sim {

/// Codes of CiA 301. kNone: of a record, whose sub-indices differ.
enum class DataType : std::uint16_t {
  kNone = 0x00,
  kInteger8 = 0x02,
  kInteger16 = 0x03,
  kInteger32 = 0x04,
  kUnsigned8 = 0x05,
  kUnsigned16 = 0x06,
  kUnsigned32 = 0x07,
  kVisibleString = 0x09,
};

/// What a data sheet says of an object, beyond what the dictionary knows.
struct ObjectText {
  static constexpr int kWhole = -1;

  std::uint16_t index;
  int sub;  // kWhole: of the index, and of all sub-indices that have no row of their own
  const char* name;
  DataType type;
};

}  // namespace sim
