#include "make.h"

#include <amps_driver.h>
#include <hls_driver.h>
#include <tt_driver.h>
#include <zl_driver.h>

#include <stdexcept>

namespace {

template <typename Drive>
std::unique_ptr<DriverCommon> Create(const char* interface) {
  return std::make_unique<Drive>(interface);
}

bool CommandOneMotor(DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm) {
  return drive.SetSpeed(node, rpm[0]);
}

// These classes answer true for a frame that is no speed report, too, and then leave the node as it
// is.
bool MeasureOneMotor(DriverCommon& drive, std::uint8_t node, MeasuredRpm& rpm) {
  std::uint8_t reporting = 0;
  int counts = 0;
  return drive.GetSpeed(reporting, rpm[0], counts) && reporting == node;
}

bool CommandTwoMotors(DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm) {
  return drive.SetSpeed(node, rpm[0], rpm[1]);
}

bool MeasureTwoMotors(DriverCommon& drive, std::uint8_t, MeasuredRpm& rpm) {
  std::uint8_t node = 0;
  int counts[2] = {};
  return drive.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]);
}

const std::vector<Make>& Makes() {
  // clang-format off
  static const std::vector<Make> makes = {
      {"zl",   2, {1},    false, Create<ZlDriver>,   {{0x23, 0x60FF, 1}, {0x23, 0x60FF, 2}}, CommandTwoMotors, MeasureTwoMotors},
      {"tt",   1, {1, 2}, true,  Create<TtDriver>,   {{0x23, 0x60FF, 0}},                    CommandOneMotor,  MeasureOneMotor},
      {"hls",  1, {1},    false, Create<HlsDriver>,  {{0x23, 0x60FF, 0}},                    CommandOneMotor,  MeasureOneMotor},
      {"amps", 1, {1, 2}, false, Create<AMPSDriver>, {{0x2B, 0x2FF0, 9}},                    CommandOneMotor,  MeasureOneMotor},
  };
  // clang-format on
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
