#include "amps_driver.h"

#include <array>

#include "canopen.h"
#include "feedback.h"
#include "filter_scope.h"
#include "sdo_sequence.h"

namespace {

// Manufacturer objects.
constexpr std::uint16_t kVelocityCommand = 0x2FF0;
constexpr std::uint8_t kVelocityCommandSub = 9;
constexpr std::uint16_t kObject4700 = 0x4700;

constexpr std::uint32_t kCountsPerRevolution = 4096;
constexpr std::size_t kPositionOffset = 4;  // in TPDO1

using u8 = std::uint8_t;
using u16 = std::uint16_t;

// clang-format off
constexpr std::array<SdoStep, 2> kSpeedMode = {{
    Write<u8>(cia402::kModesOfOperation, 0, cia402::kProfileVelocityMode, "write error 0x6060, 0x00, 0x03"),
    Write<u16>(cia402::kControlword,     0, cia402::kEnableOperation,     "write error 0x6040, 0x00, 0x000F"),
}};

constexpr std::array<SdoStep, 2> PdoSetUp(std::uint16_t period_ms) {
  return {{
      Write<u16>(cia301::kTpdo1Communication, cia301::kPdoInhibitTime, period_ms, "write error 0x1800, 0x03, period"),
      Write<u8>(kObject4700,                  1,                       1,         "write error 0x4700, 0x01, 1"),
  }};
}
// clang-format on

OneMotorFeedback g_feedback(1, 2, kPositionOffset);

}  // namespace

AMPSDriver::AMPSDriver(const char* can_name) : DriverCommon(can_name) {}

// The receive thread makes virtual calls (heartbeats): it ends while the object is still of this
// class.
AMPSDriver::~AMPSDriver() { StopReading(); }

bool AMPSDriver::ActiveNode(std::uint8_t) { return true; }

std::uint16_t AMPSDriver::SetSpeedMode(std::uint8_t node) {
  HearOnly(*this, cia301::kSdoResponse + node);
  return RunSdoSequence(*this, node, kSpeedMode, FailureText::kBare);
}

std::uint16_t AMPSDriver::EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) {
  pdo_period_ = period_ms;
  const std::uint16_t failures = SetSpeedMode(node);
  HearOnly(*this, cia301::kSdoResponse + node);
  return static_cast<std::uint16_t>(
      failures + RunSdoSequence(*this, node, PdoSetUp(period_ms), FailureText::kBare));
}

bool AMPSDriver::SetSpeed(std::uint8_t node, int speed) {
  // Two bytes by command, four on the wire: deliberate, the drive takes the low two.
  SdoWrite(cia301::kSdoRequest + node, cia301::kDownload2, kVelocityCommand, kVelocityCommandSub,
           static_cast<std::uint32_t>(speed));
  return true;
}

bool AMPSDriver::GetSpeed(std::uint8_t& node, double& rpm, int& counts) {
  return g_feedback.Take(*this, kCountsPerRevolution, pdo_period_, node, rpm, counts);
}

bool AMPSDriver::CheckStatus(std::uint8_t) { return true; }

bool AMPSDriver::SaveAllParams(std::uint8_t) { return true; }

std::uint32_t AMPSDriver::GetNumberOfPulsesPerRevolution() { return kCountsPerRevolution; }

bool AMPSDriver::Init(std::uint8_t node1, std::uint8_t node2, std::uint16_t period_ms) {
  EnableSpeedModeAndPdoMode(node1, period_ms);
  EnableSpeedModeAndPdoMode(node2, period_ms);
  HearOnly(*this, cia301::kTpdo1 + node1, cia301::kTpdo1 + node2);
  ClearReadQueue();
  return true;
}
