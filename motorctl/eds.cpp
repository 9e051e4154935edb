#include "eds.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <system_error>

#include "object_search.h"

namespace motorctl {

Bytes EdsValue::Of(int node_id) const {
  Bytes result = bytes;
  unsigned carry = adds_node_id ? static_cast<unsigned>(node_id) : 0;
  for (std::uint8_t& byte : result) {
    carry += byte;
    byte = static_cast<std::uint8_t>(carry);
    carry >>= 8;
  }
  return result;
}

const EdsObject* Eds::Find(std::uint16_t index, std::uint8_t sub) const {
  return FindObject(objects, index, sub);
}

std::string AgainstLimits(const EdsObject& object, const Bytes& value, int node_id) {
  const auto text = [&object](const Bytes& bytes) { return ValueText(object.type, bytes); };
  if (object.low_limit) {
    const Bytes low = object.low_limit->Of(node_id);
    if (CompareValues(object.type, value, low) < 0) {
      return text(value) + " is below the low limit " + text(low);
    }
  }
  if (object.high_limit) {
    const Bytes high = object.high_limit->Of(node_id);
    if (CompareValues(object.type, value, high) > 0) {
      return text(value) + " is above the high limit " + text(high);
    }
  }
  return "";
}

Eds LoadEds(const std::string& file) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> opened(std::fopen(file.c_str(), "re"),
                                                               std::fclose);
  if (opened == nullptr) throw FileError(file + ": " + std::generic_category().message(errno));
  return ReadEds(opened.get(), file);
}

}  // namespace motorctl
