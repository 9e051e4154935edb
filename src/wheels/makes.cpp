#include "wheels/makes.h"

#include <amps_driver.h>
#include <fake_driver.h>
#include <hls_driver.h>
#include <kinco_driver.h>
#include <tt_driver.h>
#include <zl_driver.h>

#include <algorithm>
#include <cctype>

namespace motor_driver {
namespace {

constexpr std::uint32_t kTpdo1 = 0x180;
constexpr std::uint32_t kRpdo1 = 0x200;
constexpr std::uint32_t kTpdo4 = 0x480;
constexpr int kEveryMotor = NamedObject::kEveryMotor;
constexpr auto kSigned = NamedObject::Shown::kSigned;
constexpr auto kHex = NamedObject::Shown::kHex;

template <typename Drive>
std::unique_ptr<DriverCommon> Create(const Vehicle& vehicle) {
  return std::make_unique<Drive>(vehicle.interface.c_str());
}

std::unique_ptr<DriverCommon> CreateKinco(const Vehicle& vehicle) {
  return std::make_unique<KincoDriver>(vehicle.interface.c_str(), vehicle.counts_per_revolution);
}

void SuperviseKinco(DriverCommon& drive) {
  static_cast<KincoDriver&>(drive).StartErrorParsingLoop();
}

std::string KincoErrorText(const DriverCommon& drive, std::uint16_t code) {
  return static_cast<const KincoDriver&>(drive).GetErrorCodeInfo(code).msg;
}

void CommandOne(DriverCommon& drive, std::uint8_t node, const MotorRpm& rpm) {
  drive.SetSpeed(node, rpm[0]);
}

void CommandTwo(DriverCommon& drive, std::uint8_t node, const MotorRpm& rpm) {
  drive.SetSpeed(node, rpm[0], rpm[1]);
}

Make Zl() {
  Make make;
  make.name = "zl";
  make.title = "ZL";
  make.motors = 2;
  make.create = Create<ZlDriver>;
  make.counts_per_revolution = 4096;
  make.command = CommandTwo;
  make.targets = {{0x60FF, 1}, {0x60FF, 2}};
  make.positions = {{0x6064, 1}, {0x6064, 2}};
  make.velocities = {{0x606C, 1}, {0x606C, 2}};
  make.expected = {{0x6060, 0}, {0x6083, 1}, {0x6084, 1}, {0x200F, 0}, {0x2012, 1}, {0x2014, 1},
                   {0x2015, 1}, {0x2016, 1}, {0x1400, 1}, {0x1800, 5}, {0x1803, 5}};
  make.target = {kRpdo1, 0, 32};
  make.position = {kTpdo1, 0, 32};
  make.error_code = {kTpdo4, 0, 16};
  make.statusword = {kTpdo4, 4, 16};
  make.objects = {{0x2010, 0, "Save all parameters"},
                  {0x2012, kEveryMotor, "Current limit"},
                  {0x2014, kEveryMotor, "Current limit"},
                  {0x2015, kEveryMotor, "Current limit"},
                  {0x2016, kEveryMotor, "Current limit"}};
  return make;
}

Make Tt() {
  Make make;
  make.name = "tt";
  make.title = "TT";
  make.create = Create<TtDriver>;
  make.must_be_woken = true;
  make.counts_per_revolution = 32768;
  make.command = CommandOne;
  make.targets = {{0x60FF, 0}};
  make.positions = {{0x6063, 0}};
  make.velocities = {{0x606C, 0}};
  make.expected = {{0x6060, 0}, {0x1400, 1}, {0x1800, 5}, {0x1A00, 0}};
  make.target = {kRpdo1, 0, 32};
  make.position = {kTpdo1, 0, 32};
  make.wake_up = 0x1010;
  return make;
}

Make Hls() {
  Make make;
  make.name = "hls";
  make.title = "HLS";
  make.create = Create<HlsDriver>;
  make.resets = false;
  make.counts_per_revolution = 131072;
  make.command = CommandOne;
  make.max_motor_rpm = 200'000'000;  // tenths in 32 bits
  make.targets = {{0x60FF, 0}};
  make.positions = {{0x6063, 0}};
  make.velocities = {{0x606C, 0}};
  make.velocity_units_per_rpm = 10;
  make.expected = {{0x6060, 0}, {0x6083, 0}, {0x6084, 0}, {0x4603, 0}, {0x1800, 5}, {0x1803, 5}};
  make.target = {kRpdo1, 0, 32};
  make.position = {kTpdo1, 0, 32};
  make.direction = -1;
  make.error_code = {kTpdo4, 0, 16};
  make.statusword = {kTpdo4, 2, 16};
  make.serves_node_zero = true;
  make.objects = {{0x4603, 0, "Clear fault"}};
  make.axis_parameters = {{0x2002, 0, "current"},
                          {0x242A, 0, "maximum current"},
                          {0x2300, 0, "P gain"},
                          {0x2301, 0, "I gain"},
                          {0x2302, 0, "D gain"}};
  return make;
}

Make Amps() {
  Make make;
  make.name = "amps";
  make.title = "AMPS";
  make.create = Create<AMPSDriver>;
  make.needs_event_timer = true;
  make.counts_per_revolution = 4096;
  make.command = CommandOne;
  make.max_motor_rpm = 32767;  // the object holds 16 bits
  make.target_command = 0x2B;
  make.targets = {{0x2FF0, 9}};
  make.positions = {{0x6063, 0}};
  make.velocities = {{0x606C, 0}};
  make.expected = {{0x6060, 0}, {0x1800, 3}, {0x4700, 1}};
  make.position = {kTpdo1, 4, 32};
  make.objects = {{0x2FF0, 9, "Velocity command", kSigned}};
  return make;
}

Make Kinco() {
  Make make;
  make.name = "kinco";
  make.title = "Kinco";
  make.create = CreateKinco;
  make.resets = false;
  make.starts_by_init = true;
  make.supervise = SuperviseKinco;
  make.error_text = KincoErrorText;
  make.counts_are_configured = true;
  make.command = CommandOne;
  make.targets = {{0x60FF, 0}};
  make.positions = {{0x6063, 0}};
  make.velocities = {{0x606C, 0}};
  make.velocity_units_per_rpm = 512.0 / 1875.0;
  make.expected = {{0x6060, 0}, {0x2010, 0x0A}, {0x1400, 1}, {0x1800, 5}, {0x1803, 5}, {0x1A03, 0}};
  make.target = {kRpdo1, 0, 32};
  make.position = {kTpdo1, 0, 32};
  make.error_code = {kTpdo4, 0, 16};
  make.statusword = {kTpdo4, 2, 16};
  make.inputs = {kTpdo4, 4, 16};
  make.emergency_stop_mask = 0x00DF;  // 0x50 or 0x70 in the low byte
  make.emergency_stop = 0x0050;
  make.modes = {{-3, "Immediate speed"}};
  make.objects = {{0x2010, 0x0A, "Digital inputs", kHex}};
  return make;
}

Make Fake() {
  Make make;
  make.name = "fake";
  make.title = "Fake";
  make.simulated = true;
  make.resets = false;
  make.create = Create<FakeDriver>;
  make.command = CommandOne;
  return make;
}

}  // namespace

const std::vector<Make>& Makes() {
  static const std::vector<Make> makes = {Zl(), Tt(), Hls(), Amps(), Kinco(), Fake()};
  return makes;
}

const Make* FindMake(const std::string& name) {
  const auto make = std::find_if(Makes().begin(), Makes().end(),
                                 [&name](const Make& known) { return name == known.name; });
  return make != Makes().end() ? &*make : nullptr;
}

std::string MakeNames() {
  std::string names;
  for (const Make& make : Makes()) {
    if (!names.empty()) {
      names += &make == &Makes().back() ? " or " : ", ";
    }
    names += make.name;
  }
  return names;
}

bool IsInterfaceName(const std::string& name) {
  constexpr std::size_t kLongest = 15;
  const bool plain = std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) != 0 || c == '_' || c == '-' || c == '.';
  });
  return !name.empty() && name.size() <= kLongest && plain && name.front() != '-';
}

}  // namespace motor_driver
