#include "hls_driver.h"

#include <array>

#include "canopen.h"
#include "feedback.h"
#include "filter_scope.h"
#include "little_endian.h"
#include "log/console.h"
#include "log/logger.h"
#include "sdo_sequence.h"

namespace {

// Manufacturer objects.
constexpr std::uint16_t kCurrent = 0x2002;
constexpr std::uint16_t kProportionalGain = 0x2300;
constexpr std::uint16_t kIntegralGain = 0x2301;
constexpr std::uint16_t kDerivativeGain = 0x2302;
constexpr std::uint16_t kMaximumCurrent = 0x242A;
constexpr std::uint16_t kClearError = 0x4603;

// Parameters of all axes go through the SDO channel of node 0; the axis is the top nibble of the
// object index.
constexpr std::uint32_t kParameterChannel = cia301::kSdoRequest;
constexpr std::uint16_t kAxisStride = 0x1000;
constexpr std::uint8_t kAxisMask = 0x0F;

constexpr std::uint32_t kCountsPerRevolution = 131072;
constexpr std::uint16_t kHeartbeatPeriodMs = 2000;
constexpr std::uint8_t kReadErrorCommand = 0x43;  // deliberate: this make answers it as an upload
constexpr int kAttempts = 10;
constexpr std::uint32_t kStatusReady = 0x37;
constexpr std::uint32_t kStartedNode = 2;

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;

// The failure texts are part of what hosts' logs are searched for: several name another value or
// sub-index than the one written. Deliberate.

// clang-format off
constexpr std::array<SdoStep, 6> kSpeedMode = {{
    Write<u8>(cia402::kModesOfOperation,     0, cia402::kProfileVelocityMode, "write error 0x6060, 0x00, 0x03"),
    Write<u32>(cia402::kProfileAcceleration, 0, 0,                            "write error 0x6083, 0x00, 0x00"),
    Write<u32>(cia402::kProfileDeceleration, 0, 0,                            "write error 0x6084, 0x00, 0x00"),
    Write<u16>(cia402::kControlword,         0, cia402::kShutdown,            "write error 0x6040, 0x00, 0x0006"),
    Write<u16>(cia402::kControlword,         0, cia402::kSwitchOn,            "write error 0x6040, 0x00, 0x0007"),
    Write<u16>(cia402::kControlword,         0, cia402::kEnableOperation,     "write error 0x6040, 0x00, 0x000F"),
}};

constexpr std::array<SdoStep, 16> PdoSetUp(std::uint16_t period_ms) {
  using namespace cia301;  // NOLINT(google-build-using-namespace): a table of nothing else
  const auto period = static_cast<u8>(period_ms);  // one byte is sent: deliberate
  return {{
      Write<u8>(kRpdo1Mapping,        0,                    0,          "write error 0x1600, 0x00, 0"),
      Write<u32>(kRpdo1Mapping,       1,                    0x60FF0020, "write error 0x1600, 0x01, 0x60FF0020"),
      Write<u8>(kRpdo1Mapping,        0,                    1,          "write error 0x1600, 0x00, 0x01"),
      Write<u8>(kTpdo1Mapping,        0,                    0,          "write error 0x1A00, 0x00, 0x00"),
      Write<u32>(kTpdo1Mapping,       1,                    0x60630020, "write error 0x1A00, 0x01, 0x60640020"),
      Write<u8>(kTpdo1Mapping,        0,                    1,          "write error 0x1A00, 0x00, 0x01"),
      Write<u8>(kTpdo1Communication,  kPdoEventTimer,       period,     "write error 0x1800, 0x03, period*2"),
      Write<u8>(kTpdo1Communication,  kPdoInhibitTime,      period,     "write error 0x1800, 0x05, period*2"),
      Write<u8>(kTpdo1Communication,  kPdoTransmissionType, 0xFE,       "write error 0x1800, 0x02, 0xFE"),
      Write<u8>(kTpdo4Mapping,        0,                    0,          "write error 0x1A03, 0x00, 0x00"),
      Write<u32>(kTpdo4Mapping,       1,                    0x603F0010, "write error 0x1A03, 0x01, 0x603F0020"),
      Write<u32>(kTpdo4Mapping,       2,                    0x60410010, "write error 0x1A03, 0x02, 0x60410020"),
      Write<u8>(kTpdo4Mapping,        0,                    2,          "write error 0x1A03, 0x00, 0x02"),
      Write<u16>(kTpdo4Communication, kPdoEventTimer,       2000,       "write error 0x1803, 0x05, 2000"),
      Write<u16>(kTpdo4Communication, kPdoInhibitTime,      2000,       "write error 0x1803, 0x05, 2000"),
      Write<u8>(kTpdo4Communication,  kPdoTransmissionType, 0xFE,       "write error 0x1803, 0x02, 0xFF"),
  }};
}
// clang-format on

OneMotorFeedback g_feedback(0, 1);

std::uint16_t ParameterIndex(std::uint8_t node, std::uint16_t address) {
  return static_cast<std::uint16_t>((node & kAxisMask) * kAxisStride + address);
}

}  // namespace

HlsDriver::HlsDriver(const char* can_name) : DriverCommon(can_name) {}

// The receive thread makes virtual calls (heartbeats): it ends while the object is still of this
// class.
HlsDriver::~HlsDriver() { StopReading(); }

bool HlsDriver::ActiveNode(std::uint8_t node) {
  const std::uint32_t request = cia301::kSdoRequest + node;
  const std::uint32_t response = cia301::kSdoResponse + node;
  const OnlyHearing sdo_responses(*this, response);
  ClearReadQueue();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    SdoWrite(request, kReadErrorCommand, cia402::kErrorCode, 0, 0);
    CanDelayMs(100);
    std::uint32_t can_id = 0;
    std::uint8_t command = 0;
    std::uint16_t index = 0;
    std::uint8_t sub_index = 0;
    std::uint32_t error_code = 0;
    SdoRead(&can_id, &command, &index, &sub_index, &error_code);
    CORVEL_LOG_INFO("node:{} get frame can_id:0x{:x} read_index:0x{:x}", node, can_id, index);
    if (can_id == 0) {
      break;  // silent: only clearing the error can still tell whether it is there
    }
    if (can_id != response || index != cia402::kErrorCode) {
      continue;
    }
    if (error_code == 0) {
      CORVEL_LOG_INFO("node:{} motor no error", node);
      return true;
    }
    CORVEL_LOG_ERROR("node:{} motor has error {:x}", node, error_code);
    break;
  }
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (SdoWriteWithFeedback(request, cia301::kDownload2, kClearError, 0, 1)) {
      CORVEL_LOG_INFO("node:{} clear motor error success", node);
      return true;
    }
    CORVEL_LOG_ERROR("node:{} clear motor err failed. Sdo write err", node);
  }
  CORVEL_LOG_ERROR("node:{} clear err failed", node);
  return false;
}

bool HlsDriver::ResetNode(std::uint8_t) { return true; }

void HlsDriver::StartAllNode() {}

std::uint16_t HlsDriver::SetSpeedMode(std::uint8_t node) {
  return RunSdoSequence(*this, node, kSpeedMode, FailureText::kLine);
}

std::uint16_t HlsDriver::EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) {
  pdo_period_ = period_ms;
  std::uint16_t failures = SetSpeedMode(node);
  failures = static_cast<std::uint16_t>(
      failures + RunSdoSequence(*this, node, PdoSetUp(period_ms), FailureText::kLine));
  ClearReadQueue();
  SetHeartbeatPacket(node, kHeartbeatPeriodMs);
  return failures;
}

bool HlsDriver::SetSpeed(std::uint8_t node, int speed) {
  // Tenths of rpm, mirrored; computed unsigned, where overflow wraps around.
  const std::uint32_t velocity =
      static_cast<std::uint32_t>(speed) * static_cast<std::uint32_t>(-10);
  std::uint8_t target_velocity[4] = {};
  little_endian::Store32(velocity, target_velocity);
  return WriteData(cia301::kRpdo1 + node, target_velocity, sizeof(target_velocity));
}

bool HlsDriver::GetSpeed(std::uint8_t& node, double& rpm, int& counts) {
  if (!g_feedback.Take(*this, kCountsPerRevolution, pdo_period_, node, rpm, counts)) {
    return false;
  }
  // Also after a foreign frame, where it turns the caller's value: deliberate.
  rpm = -rpm;
  return true;
}

bool HlsDriver::CheckStatus(std::uint8_t node) {
  std::uint32_t statusword = 0;
  SdoWriteWithFeedbackData(cia301::kSdoRequest + node, cia301::kUpload, cia402::kStatusword, 0, 0,
                           &statusword);
  CORVEL_LOG_INFO("node: {} check status: 0x{:x}", node, statusword);
  if (statusword != kStatusReady) {
    CORVEL_LOG_ERROR("node: {} is not ready", node);
    return false;
  }
  CORVEL_LOG_INFO("node: {} is ready", node);
  return true;
}

bool HlsDriver::SaveAllParams(std::uint8_t) { return true; }

std::uint32_t HlsDriver::GetNumberOfPulsesPerRevolution() { return kCountsPerRevolution; }

bool HlsDriver::Init(std::uint8_t, std::uint8_t, std::uint16_t) {
  StartNode(kStartedNode);
  return true;
}

std::uint16_t HlsDriver::WriteParam(std::uint8_t node, std::uint16_t address, std::uint8_t command,
                                    std::uint32_t value) {
  const std::uint16_t index = ParameterIndex(node, address);
  if (SdoWriteWithFeedback(kParameterChannel, command, index, 0, value)) {
    return 0;
  }
  corvel::Print(stdout,
                fmt::format("write param: node={} addr=0x{:x} value=0x{:x}\n", node, index, value));
  return 1;
}

std::uint16_t HlsDriver::ReadParam(std::uint8_t node, std::uint16_t address, std::uint32_t* value) {
  const std::uint16_t index = ParameterIndex(node, address);
  if (SdoWriteWithFeedbackData(kParameterChannel, cia301::kUpload, index, 0, 0, value)) {
    return 0;
  }
  corvel::Print(stdout,
                fmt::format("read param: node={} addr=0x{:x} value=0x{:x}\n", node, index, *value));
  return 1;
}

std::uint16_t HlsDriver::SetMotorCurrent(std::uint8_t node, std::uint32_t current,
                                         std::uint32_t max_current) {
  CORVEL_LOG_INFO("node{} set current:{} max current:{}", node, current, max_current);
  const std::uint16_t failed = WriteParam(node, kCurrent, cia301::kDownload2, current);
  return static_cast<std::uint16_t>(
      failed + WriteParam(node, kMaximumCurrent, cia301::kDownload2, max_current));
}

std::uint16_t HlsDriver::SetPIDParam(std::uint8_t node, std::uint32_t p, std::uint32_t i,
                                     std::uint32_t d) {
  CORVEL_LOG_INFO("node{} set pid p:{} i:{} d:{}", node, p, i, d);
  int failed = WriteParam(node, kProportionalGain, cia301::kDownload4, p);
  failed += WriteParam(node, kIntegralGain, cia301::kDownload4, i);
  failed += WriteParam(node, kDerivativeGain, cia301::kDownload4, d);
  return static_cast<std::uint16_t>(failed);
}

std::uint16_t HlsDriver::GetPIDParam(std::uint8_t node, std::uint32_t* p, std::uint32_t* i,
                                     std::uint32_t* d) {
  int failed = ReadParam(node, kProportionalGain, p);
  failed += ReadParam(node, kIntegralGain, i);
  failed += ReadParam(node, kDerivativeGain, d);
  CORVEL_LOG_INFO("node{} get pid p:{} i:{} d:{}", node, *p, *i, *d);
  return static_cast<std::uint16_t>(failed);
}
