#include "make.h"

#include <amps_driver.h>
#include <fake_driver.h>
#include <hls_driver.h>
#include <kinco_driver.h>
#include <tt_driver.h>
#include <zl_driver.h>

#include <stdexcept>

namespace motorctl {
namespace {

template <typename Drive>
std::unique_ptr<DriverCommon> Create(const char* interface, unsigned long) {
  return std::make_unique<Drive>(interface);
}

std::unique_ptr<DriverCommon> CreateKinco(const char* interface,
                                          unsigned long counts_per_revolution) {
  return std::make_unique<KincoDriver>(interface, counts_per_revolution);
}

void Start(DriverCommon& drive, std::uint8_t node, std::uint16_t) { drive.StartNode(node); }

// This make's own way; it is given no speed other than 0 before it is also released.
void StartKinco(DriverCommon& drive, std::uint8_t node, std::uint16_t period_ms) {
  drive.Init(node, period_ms);
  drive.set_speed_command_enabled(true);
}

bool CommandOne(DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm) {
  return drive.SetSpeed(node, rpm[0]);
}

bool CommandTwo(DriverCommon& drive, std::uint8_t node, const TargetRpm& rpm) {
  return drive.SetSpeed(node, rpm[0], rpm[1]);
}

// Most of these classes answer true for a frame that is no speed report, too, and then leave the
// node as it is.
bool MeasureOne(DriverCommon& drive, std::uint8_t node, MeasuredRpm& rpm) {
  std::uint8_t reporting = 0;
  double measured = 0;
  int counts = 0;
  if (!drive.GetSpeed(reporting, measured, counts) || reporting != node) return false;
  rpm[0] = measured;
  return true;
}

bool MeasureTwo(DriverCommon& drive, std::uint8_t, MeasuredRpm& rpm) {
  std::uint8_t node = 0;
  int counts[2] = {};
  return drive.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]);
}

constexpr std::uint32_t kTpdo1 = 0x180;
constexpr std::uint32_t kTpdo4 = 0x480;
constexpr Field kNone = {0, 0, 0};

// clang-format off
const std::vector<Make>& Makes() {
  static const std::vector<Make> makes = {
      {"zl", 2, {1}, false, true, Create<ZlDriver>, Start, CommandTwo, MeasureTwo,
       0x23, {{0x60FF, 1}, {0x60FF, 2}}, {{0x6064, 1}, {0x6064, 2}},
       {{0x6060, 0}, {0x6083, 1}, {0x6084, 1}, {0x200F, 0}, {0x2012, 1}, {0x2014, 1}, {0x2015, 1}, {0x2016, 1}, {0x1400, 1}, {0x1800, 5}, {0x1803, 5}},
       {kTpdo1, 0, 32}, 1, {kTpdo4, 4, 16}, {kTpdo4, 0, 16}},
      {"tt", 1, {1, 2}, true, true, Create<TtDriver>, Start, CommandOne, MeasureOne,
       0x23, {{0x60FF, 0}}, {{0x6063, 0}},
       {{0x6060, 0}, {0x1400, 1}, {0x1800, 5}, {0x1A00, 0}},
       {kTpdo1, 0, 32}, 1, kNone, kNone},
      {"hls", 1, {1}, false, false, Create<HlsDriver>, Start, CommandOne, MeasureOne,
       0x23, {{0x60FF, 0}}, {{0x6063, 0}},
       {{0x6060, 0}, {0x6083, 0}, {0x6084, 0}, {0x4603, 0}, {0x1800, 5}, {0x1803, 5}},
       {kTpdo1, 0, 32}, -1, {kTpdo4, 2, 16}, {kTpdo4, 0, 16}},
      {"amps", 1, {1, 2}, false, true, Create<AMPSDriver>, Start, CommandOne, MeasureOne,
       0x2B, {{0x2FF0, 9}}, {{0x6063, 0}},
       {{0x6060, 0}, {0x1800, 3}, {0x4700, 1}},
       {kTpdo1, 4, 32}, 1, kNone, kNone},
      {"kinco", 1, {1, 2, 3, 4}, false, false, CreateKinco, StartKinco, CommandOne, MeasureOne,
       0x23, {{0x60FF, 0}}, {{0x6063, 0}},
       {{0x6060, 0}, {0x2010, 0x0A}, {0x1400, 1}, {0x1800, 5}, {0x1803, 5}, {0x1A03, 0}},
       {kTpdo1, 0, 32}, 1, {kTpdo4, 2, 16}, {kTpdo4, 0, 16}},
      {"fake", 0, {}, false, false, Create<FakeDriver>, Start, CommandOne, MeasureOne,
       0x23, {}, {}, {}, kNone, 1, kNone, kNone},
  };
  return makes;
}
// clang-format on

}  // namespace

const Make& FindMake(const std::string& name) {
  for (const Make& make : Makes()) {
    if (name == make.name) return make;
  }
  throw std::invalid_argument("unknown make " + name);
}

}  // namespace motorctl
