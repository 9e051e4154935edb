#include "make.h"

#include <zl_driver.h>

#include <stdexcept>

namespace {

const std::vector<Make>& Makes() {
  static const std::vector<Make> makes = {
      {"zl",
       1,
       [](const char* interface) -> std::unique_ptr<DriverCommon> {
         return std::make_unique<ZlDriver>(interface);
       },
       {1, 2},
       [](DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm) {
         return drive.SetSpeed(node, rpm[0], rpm[1]);
       },
       [](DriverCommon& drive, MeasuredRpm& rpm) {
         std::uint8_t node = 0;
         int counts[2] = {};
         return drive.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]);
       }},
  };
  return makes;
}

}  // namespace

std::vector<std::string> MakeNames() {
  std::vector<std::string> names;
  for (const Make& make : Makes()) {
    names.emplace_back(make.name);
  }
  return names;
}

const Make& FindMake(const std::string& name) {
  for (const Make& make : Makes()) {
    if (name == make.name) {
      return make;
    }
  }
  throw std::invalid_argument("unknown make " + name);
}
