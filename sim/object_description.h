// What a data sheet says of the objects of a make.
#pragma once

#include <cstdint>
#include <string>

#include "sim/make.h"
#include "sim/object_text.h"

namespace sim {

/// In bytes; 0 of a string or a record.
unsigned SizeOf(DataType type);

struct Described {
  std::string name;
  DataType type;
};

/// Of the index as a whole. Throws std::logic_error when nothing is known of it.
Described DescribeObject(const Make& make, std::uint16_t index);
/// Of one of its sub-indices.
Described DescribeSub(const Make& make, std::uint16_t index, std::uint8_t sub);

}  // namespace sim
