// Set-up, motion and status of the Kinco drive, as far as they write no log line.
#include <fmt/format.h>

#include <array>
#include <limits>
#include <string>

#include "driver/canopen.h"
#include "driver/feedback.h"
#include "driver/kinco/status.h"
#include "driver/kinco/supervision.h"
#include "driver/kinco/texts.h"
#include "driver/kinco/words.h"
#include "driver/little_endian.h"
#include "driver/sdo_sequence.h"
#include "kinco_driver.h"
#include "log/console.h"

namespace kinco = motor_driver::kinco;

std::uint16_t g_period = 0;

namespace {

constexpr std::uint16_t kHeartbeatPeriodMs = 2000;

// Velocity unit of 0x60FF: counts per revolution x 512 / 1875 per rpm.
constexpr unsigned long kVelocityNumerator = 512;
constexpr unsigned long kVelocityDenominator = 1875;

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;

// The failure texts are part of what hosts' logs are searched for: several name another value or
// sub-index than the one written. Deliberate.

// clang-format off
constexpr std::array<SdoStep, 4> kSpeedMode = {{
    Write<u8>(cia402::kModesOfOperation, 0, 0xFD,                     "write error 0x6060, 0x00, 0xFD"),
    Write<u16>(cia402::kControlword,     0, cia402::kShutdown,        "write error 0x6040, 0x00, 0x0006"),
    Write<u16>(cia402::kControlword,     0, cia402::kSwitchOn,        "write error 0x6040, 0x00, 0x0007"),
    Write<u16>(cia402::kControlword,     0, cia402::kEnableOperation, "write error 0x6040, 0x00, 0x000F"),
}};
// Controlwords that lead out of the emergency stop.
constexpr std::array<SdoStep, 3> kLeaveEmergency = {{
    Write<u16>(cia402::kControlword, 0, 0x0000,                   "write error 0x6040, 0x00, 0x0000"),
    Write<u16>(cia402::kControlword, 0, cia402::kShutdown,        "write error 0x6040, 0x00, 0x0006"),
    Write<u16>(cia402::kControlword, 0, cia402::kEnableOperation, "write error 0x6040, 0x00, 0x000F"),
}};

// The three COB-ID texts carry the value: deliberate, they are the only ones of this make that do.
struct CobIdTexts {
  explicit CobIdTexts(std::uint8_t node)
      : rpdo1(fmt::format("write error 0x1400, 0x01, {:x}", cia301::kRpdo1 + node)),
        tpdo1(fmt::format("write error 0x1800, 0x01, {:x}", cia301::kTpdo1 + node)),
        tpdo4(fmt::format("write error 0x1803, 0x01, {:x}", cia301::kTpdo4 + node)) {}

  std::string rpdo1;
  std::string tpdo1;
  std::string tpdo4;
};

std::array<SdoStep, 20> PdoSetUp(std::uint8_t node, std::uint16_t period_ms,
                                 const CobIdTexts& texts) {
  using namespace cia301;  // NOLINT(google-build-using-namespace): a table of nothing else
  return {{
      Write<u8>(kRpdo1Mapping,        0,                    0,             "write error 0x1600, 0x00, 0"),
      Write<u32>(kRpdo1Mapping,       1,                    0x60FF0020,    "write error 0x1600, 0x01, 0x60FF0020"),
      Write<u32>(kRpdo1Communication, kPdoCobId,            kRpdo1 + node, texts.rpdo1.c_str()),
      Write<u8>(kRpdo1Mapping,        0,                    1,             "write error 0x1600, 0x00, 0x01"),
      Write<u8>(kTpdo1Mapping,        0,                    0,             "write error 0x1A00, 0x00, 0x00"),
      Write<u32>(kTpdo1Mapping,       1,                    0x60630020,    "write error 0x1A00, 0x01, 0x60640020"),
      Write<u32>(kTpdo1Communication, kPdoCobId,            kTpdo1 + node, texts.tpdo1.c_str()),
      Write<u8>(kTpdo1Mapping,        0,                    1,             "write error 0x1A00, 0x00, 0x01"),
      Write<u8>(kTpdo1Communication,  kPdoEventTimer,       period_ms,     "write error 0x1800, 0x03, period*2"),
      Write<u8>(kTpdo1Communication,  kPdoInhibitTime,      period_ms,     "write error 0x1800, 0x05, period*2"),
      Write<u8>(kTpdo1Communication,  kPdoTransmissionType, 0xFE,          "write error 0x1800, 0x02, 0xFE"),
      Write<u8>(kTpdo4Mapping,        0,                    0,             "write error 0x1A03, 0x00, 0x00"),
      Write<u32>(kTpdo4Mapping,       1,                    0x603F0010,    "write error 0x1A03, 0x01, 0x603F0020"),
      Write<u32>(kTpdo4Mapping,       2,                    0x60410010,    "write error 0x1A03, 0x02, 0x60410020"),
      Write<u32>(kTpdo4Mapping,       3,                    0x20100A10,    "write error 0x1A03, 0x03, 0x20100A10"),
      Write<u32>(kTpdo4Communication, kPdoCobId,            kTpdo4 + node, texts.tpdo4.c_str()),
      Write<u8>(kTpdo4Mapping,        0,                    3,             "write error 0x1A03, 0x00, 0x02"),
      Write<u16>(kTpdo4Communication, kPdoEventTimer,       200,           "write error 0x1803, 0x05, 200"),
      Write<u16>(kTpdo4Communication, kPdoInhibitTime,      200,           "write error 0x1803, 0x05, 200"),
      Write<u8>(kTpdo4Communication,  kPdoTransmissionType, 0xFE,          "write error 0x1803, 0x02, 0xFF"),
  }};
}
// clang-format on

OneMotorFeedback g_feedback(1, 4);

// The drive's velocity unit, truncated toward zero. Saturates: a speed beyond what the drive can
// express must not come out as a turn the other way.
std::int32_t ToDriveVelocity(int speed_rpm, unsigned long pulses_per_revolution) {
  const unsigned long units_per_rpm =
      pulses_per_revolution * kVelocityNumerator / kVelocityDenominator;
  const float units = static_cast<float>(units_per_rpm) * static_cast<float>(speed_rpm);
  constexpr float kLimit = 2147483648.0F;
  if (units >= kLimit) {
    return std::numeric_limits<std::int32_t>::max();
  }
  if (units <= -kLimit) {
    return std::numeric_limits<std::int32_t>::min();
  }
  return static_cast<std::int32_t>(units);
}

}  // namespace

// --- Set-up and motion --------------------------------------------------------------------------

bool KincoDriver::ResetNode(std::uint8_t) { return true; }

void KincoDriver::StartAllNode() {}

std::uint16_t KincoDriver::SetSpeedMode(std::uint8_t node) {
  return RunSdoSequence(*this, node, kSpeedMode, FailureText::kLine);
}

std::uint16_t KincoDriver::EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) {
  pdo_period_ = period_ms;
  const CobIdTexts texts(node);
  std::uint16_t failures = SetSpeedMode(node);
  failures = static_cast<std::uint16_t>(
      failures + RunSdoSequence(*this, node, PdoSetUp(node, period_ms, texts), FailureText::kLine));
  SetHeartbeatPacket(node, kHeartbeatPeriodMs);
  return failures;
}

bool KincoDriver::SetSpeed(std::uint8_t node, int speed) {
  const std::int32_t velocity =
      speed_command_enabled() ? ToDriveVelocity(speed, pulses_per_revolution_) : 0;
  std::uint8_t target_velocity[4] = {};
  little_endian::Store32(static_cast<std::uint32_t>(velocity), target_velocity);
  return WriteData(cia301::kRpdo1 + node, target_velocity, sizeof(target_velocity));
}

bool KincoDriver::GetSpeed(std::uint8_t& node, double& rpm, int& counts) {
  node = 0;
  rpm = 0.0;
  counts = 0;
  CanFrame frame = {};
  return ReadData(frame) && g_feedback.Decode(frame, static_cast<double>(pulses_per_revolution_),
                                              pdo_period_, node, rpm, counts);
}

bool KincoDriver::CheckReportPeriod(std::uint8_t node) { return GetTpdo0Period(node) == g_period; }

bool KincoDriver::SaveAllParams(std::uint8_t) { return true; }

std::uint32_t KincoDriver::GetNumberOfPulsesPerRevolution() {
  return static_cast<std::uint32_t>(pulses_per_revolution_);
}

bool KincoDriver::Init(std::uint8_t node, std::uint16_t period_ms) {
  StartNode(node);
  g_period = period_ms;
  return true;
}

bool KincoDriver::ClearDriverError(std::uint8_t node) {
  const std::uint32_t server = cia301::kSdoRequest + node;
  if (!SdoWriteWithFeedback(server, cia301::kDownload2, cia402::kControlword, 0,
                            kinco::kFaultResetAndEnable)) {
    corvel::PrintLine("write error 0x6040, 0x00, 0x0086");
    return false;
  }
  if (!SdoWriteWithFeedback(server, cia301::kDownload2, cia402::kControlword, 0,
                            cia402::kEnableOperation)) {
    corvel::PrintLine("write error 0x6040, 0x00, 0x000F");
    return false;
  }
  return true;
}

bool KincoDriver::ResetEmergencyStatus(std::uint8_t node) {
  // Not confirmed: the supervision must not block on a node that does not answer.
  for (const SdoStep& step : kLeaveEmergency) {
    if (!SdoWrite(cia301::kSdoRequest + node, step.command, step.index, step.sub_index,
                  step.value)) {
      corvel::PrintLine(step.failure_text);
      return false;
    }
  }
  return true;
}

// --- Status ------------------------------------------------------------------------------------

ErrorCodeInfo KincoDriver::GetErrorCodeInfo(std::uint16_t code) const {
  const auto known = error_codes_.find(code);
  return known != error_codes_.end() ? known->second : ErrorCodeInfo{0, kinco::kUnknownText};
}

ErrorCodeInfo KincoDriver::GetDriverStatusCodeInfo(std::uint8_t code) const {
  return {code, kinco::TextOf(driver_status_texts_, code)};
}

ErrorCodeInfo KincoDriver::GetMotorStatusCodeInfo(std::uint8_t code) const {
  return {code, kinco::TextOf(motor_status_texts_, code)};
}

void KincoDriver::ParseHeartBeatFrame(std::uint32_t can_id, const std::uint8_t* data,
                                      std::uint8_t len) {
  if (len == 0) {
    return;
  }
  const std::uint8_t node = kinco::NodeOf(can_id);
  if (!IsManagedNode(node)) {
    return;
  }
  const std::lock_guard<std::mutex> lock(status_mutex_);
  nodes_->At(node).heartbeat = data[0];
}

void KincoDriver::DispatchStatusFrame(std::uint32_t can_id, const std::uint8_t* data,
                                      std::uint8_t len) {
  switch (kinco::KindOf(can_id)) {
    case kinco::StatusFrame::kHeartbeat:
      ParseHeartBeatFrame(can_id, data, len);
      break;
    case kinco::StatusFrame::kStatusPdo:
      ParseTpdo3Frame(can_id, data, len);
      break;
    case kinco::StatusFrame::kOther:
      break;
  }
}

bool KincoDriver::IsEmergencyStatus(std::uint16_t status) {
  return kinco::IsEmergencyStatus(status);
}

DriverStatus KincoDriver::GetDriverStatus(std::uint8_t node) {
  const std::lock_guard<std::mutex> lock(status_mutex_);
  return kinco::Summary(nodes_->Of(node));
}

std::string KincoDriver::GetDriverStatusDetails(std::uint8_t node) const {
  const std::lock_guard<std::mutex> lock(status_mutex_);
  return kinco::Details(nodes_->Of(node));
}
