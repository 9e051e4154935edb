#include "zl_driver.h"

#include <array>
#include <atomic>

#include "canopen.h"
#include "feedback.h"
#include "filter_scope.h"
#include "little_endian.h"
#include "log/console.h"
#include "log/logger.h"
#include "motion.h"
#include "sdo_sequence.h"

namespace {

// Manufacturer objects.
constexpr std::uint16_t kObject200F = 0x200F;
constexpr std::uint16_t kSaveParameters = 0x2010;
constexpr std::uint16_t kCurrentLimit2012 = 0x2012;
constexpr std::uint16_t kCurrentLimit2014 = 0x2014;
constexpr std::uint16_t kCurrentLimit2015 = 0x2015;
constexpr std::uint16_t kCurrentLimit2016 = 0x2016;

constexpr std::uint32_t kCountsPerRevolution = 4096;
constexpr std::uint16_t kHeartbeatPeriodMs = 2000;

constexpr std::uint8_t kReadErrorCommand = 0x43;  // deliberate: this make answers it as an upload

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;

// The failure texts are part of what hosts' logs are searched for: several name another value than
// the one written, and some have two blanks. Both deliberate.

// clang-format off
constexpr std::array<SdoStep, 9> kSpeedMode = {{
    Write<u16>(kObject200F,                  0, 0,                            "write error  0x200F, 0x00, 0x00"),
    Write<u8>(cia402::kModesOfOperation,     0, cia402::kProfileVelocityMode, "write error 0x6060, 0x00, 0x03"),
    Write<u32>(cia402::kProfileAcceleration, 1, 0,                            "write error 0x6060, 0x00, 0x03"),
    Write<u32>(cia402::kProfileAcceleration, 2, 0,                            "write error 0x6060, 0x00, 0x03"),
    Write<u32>(cia402::kProfileDeceleration, 1, 0,                            "write error 0x6060, 0x00, 0x03"),
    Write<u32>(cia402::kProfileDeceleration, 2, 0,                            "write error 0x6060, 0x00, 0x03"),
    Write<u16>(cia402::kControlword,         0, cia402::kShutdown,            "write error 0x6040, 0x00, 0x0006"),
    Write<u16>(cia402::kControlword,         0, cia402::kSwitchOn,            "write error 0x6040, 0x00, 0x0007"),
    Write<u16>(cia402::kControlword,         0, cia402::kEnableOperation,     "write error 0x6040, 0x00, 0x000F"),
}};

constexpr std::array<SdoStep, 8> kMotorCurrent = {{
    Write<u16>(kCurrentLimit2012, 1, 200, "write error  0x2012, 0x01, 200"),
    Write<u16>(kCurrentLimit2012, 2, 200, "write error  0x2012, 0x02, 200"),
    Write<u16>(kCurrentLimit2014, 1, 150, "write error  0x2014, 0x01, 150"),
    Write<u16>(kCurrentLimit2014, 2, 150, "write error  0x2014, 0x02, 150"),
    Write<u16>(kCurrentLimit2015, 1, 300, "write error  0x2015, 0x01, 300"),
    Write<u16>(kCurrentLimit2015, 2, 300, "write error  0x2015, 0x02, 300"),
    Write<u16>(kCurrentLimit2016, 1, 300, "write error  0x2016, 0x01, 300"),
    Write<u16>(kCurrentLimit2016, 2, 300, "write error  0x2016, 0x02, 300"),
}};

constexpr std::array<SdoStep, 24> PdoSetUp(std::uint8_t node, std::uint16_t period_ms) {
  using namespace cia301;  // NOLINT(google-build-using-namespace): a table of nothing else
  // Half milliseconds. Above 32767 ms the product does not fit the object and goes out as it is.
  const u32 event_timer = u32{period_ms} * 2;
  return {{
      Write<u32>(kRpdo1Communication, kPdoCobId,            (kPdoInvalid | kRpdo1) + node, "write error 0x1400, 0x01, 0x80000200 + node_id"),
      Write<u8>(kRpdo1Mapping,        0,                    0,                             "write error 0x1600, 0x00, 0"),
      Write<u32>(kRpdo1Mapping,       1,                    0x60FF0120,                    "write error 0x1600, 0x01, 0x60FF0120"),
      Write<u32>(kRpdo1Mapping,       2,                    0x60FF0220,                    "write error 0x1600, 0x02, 0x60FF0220"),
      Write<u8>(kRpdo1Mapping,        0,                    2,                             "write error 0x1600, 0x00, 0x02"),
      Write<u32>(kRpdo1Communication, kPdoCobId,            kRpdo1 + node,                 "write error 0x1400, 0x01, 0x00000200 + node_id"),
      Write<u32>(kTpdo1Communication, kPdoCobId,            (kPdoInvalid | kTpdo1) + node, "write error 0x1800, 0x01, 0x80000180 + node_id"),
      Write<u32>(kTpdo2Communication, kPdoCobId,            (kPdoInvalid | kTpdo2) + node, "write error 0x1801, 0x01, 0x80000180 + node_id"),
      Write<u32>(kTpdo3Communication, kPdoCobId,            (kPdoInvalid | kTpdo3) + node, "write error 0x1802, 0x01, 0x80000180 + node_id"),
      Write<u32>(kTpdo4Communication, kPdoCobId,            (kPdoInvalid | kTpdo4) + node, "write error 0x1803, 0x01, 0x80000180 + node_id"),
      Write<u8>(kTpdo1Mapping,        0,                    0,                             "write error 0x1A00, 0x00, 0x00"),
      Write<u32>(kTpdo1Mapping,       1,                    0x60640120,                    "write error 0x1A00, 0x01, 0x60640120"),
      Write<u32>(kTpdo1Mapping,       2,                    0x60640220,                    "write error 0x1A00, 0x02, 0x60640220"),
      Write<u8>(kTpdo1Mapping,        0,                    2,                             "write error 0x1A00, 0x00, 0x02"),
      Write<u8>(kTpdo1Communication,  kPdoTransmissionType, 0xFF,                          "write error 0x1800, 0x02, 0xFF"),
      Write<u16>(kTpdo1Communication, kPdoEventTimer,       event_timer,                   "write error 0x1800, 0x05, period*2"),
      Write<u32>(kTpdo1Communication, kPdoCobId,            kTpdo1 + node,                 "write error 0x1800, 0x01, 0x00000180 + node_id"),
      Write<u8>(kTpdo4Mapping,        0,                    0,                             "write error 0x1A03, 0x00, 0x00"),
      Write<u32>(kTpdo4Mapping,       1,                    0x603F0020,                    "write error 0x1A03, 0x01, 0x603F0020"),
      Write<u32>(kTpdo4Mapping,       2,                    0x60410020,                    "write error 0x1A03, 0x02, 0x60410020"),
      Write<u8>(kTpdo4Mapping,        0,                    2,                             "write error 0x1A03, 0x00, 0x02"),
      Write<u8>(kTpdo4Communication,  kPdoTransmissionType, 0xFF,                          "write error 0x1803, 0x02, 0xFF"),
      Write<u16>(kTpdo4Communication, kPdoEventTimer,       4000,                          "write error 0x1803, 0x05, 2000*2"),
      Write<u32>(kTpdo4Communication, kPdoCobId,            kTpdo4 + node,                 "write error 0x1803, 0x01, 0x00000180 + node_id"),
  }};
}
// clang-format on

// The only node whose positions are decoded: deliberate, this make is fitted as node 1.
constexpr std::uint32_t kDecodedTpdo1 = cia301::kTpdo1 + 1;

// One pair for the whole process: deliberate, see the class comment. Atomic so that hosts that read
// from two threads get wrong speeds, not undefined behaviour.
std::atomic<std::uint32_t> g_previous_counts[2];

double RpmSincePrevious(std::atomic<std::uint32_t>& previous, std::uint32_t counts,
                        std::uint16_t period_ms) {
  return motion::Rpm(counts, previous.exchange(counts), kCountsPerRevolution, period_ms);
}

}  // namespace

ZlDriver::ZlDriver(const char* can_name) : DriverCommon(can_name) {}

// The receive thread makes virtual calls (heartbeats): it ends before the object is a ZlDriver no
// more.
ZlDriver::~ZlDriver() { StopReading(); }

bool ZlDriver::ActiveNode(std::uint8_t node) {
  const OnlyHearing sdo_responses(*this, cia301::kSdoResponse + node);
  ClearReadQueue();
  SdoWrite(cia301::kSdoRequest + node, kReadErrorCommand, cia402::kErrorCode, 0, 0);
  CanDelayMs(5);

  std::uint32_t can_id = 0;
  std::uint8_t command = 0;
  std::uint16_t index = 0;
  std::uint8_t sub_index = 0;
  std::uint32_t error_code = 0;
  SdoRead(&can_id, &command, &index, &sub_index, &error_code);
  if (index != cia402::kErrorCode) {
    return true;
  }
  if (error_code == 0) {
    corvel::PrintLine("Motor has no error");
    return true;
  }
  corvel::Print(stderr, fmt::format("MotorError!! Code = 0x{:08X}\n", error_code));
  corvel::PrintLine("Clean motor error now");
  if (!SdoWriteWithFeedback(cia301::kSdoRequest + node, cia301::kDownload2, cia402::kControlword, 0,
                            cia402::kFaultReset)) {
    corvel::PrintLine("write error  0x6040, 0x00, 0x80");
  }
  return true;
}

std::uint16_t ZlDriver::SetSpeedMode(std::uint8_t node) {
  return RunSdoSequence(*this, node, kSpeedMode, FailureText::kLine);
}

std::uint16_t ZlDriver::SetMotorCurrent(std::uint8_t node) {
  return RunSdoSequence(*this, node, kMotorCurrent, FailureText::kLine);
}

std::uint16_t ZlDriver::EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) {
  pdo_period_ = period_ms;
  std::uint16_t failures = SetMotorCurrent(node);
  failures = static_cast<std::uint16_t>(failures + SetSpeedMode(node));
  failures = static_cast<std::uint16_t>(
      failures + RunSdoSequence(*this, node, PdoSetUp(node, period_ms), FailureText::kLine));
  ClearReadQueue();
  SetHeartbeatPacket(node, kHeartbeatPeriodMs);
  return failures;
}

bool ZlDriver::SetSpeed(std::uint8_t node, int speed1, int speed2) {
  std::uint8_t target_velocities[8] = {};
  little_endian::Store32(static_cast<std::uint32_t>(speed1), target_velocities);
  little_endian::Store32(static_cast<std::uint32_t>(speed2), target_velocities + 4);
  return WriteData(cia301::kRpdo1 + node, target_velocities, sizeof(target_velocities));
}

bool ZlDriver::GetSpeed(std::uint8_t&, double& rpm1, int& counts1, double& rpm2, int& counts2) {
  CanFrame frame = {};
  if (!GetCanFrame(frame) || frame.can_id != kDecodedTpdo1) {
    return false;
  }
  const std::uint32_t position1 = little_endian::Load32(frame.data);
  const std::uint32_t position2 = little_endian::Load32(frame.data + 4);
  rpm1 = RpmSincePrevious(g_previous_counts[0], position1, pdo_period_);
  rpm2 = RpmSincePrevious(g_previous_counts[1], position2, pdo_period_);
  counts1 = static_cast<int>(position1);
  counts2 = static_cast<int>(position2);
  return true;
}

bool ZlDriver::CheckStatus(std::uint8_t node) {
  const OnlyHearing tpdo1(*this, cia301::kTpdo1 + node);
  const bool reports = ReportsPosition(*this, node, pdo_period_);
  // Both texts carry their own line end: deliberate.
  if (reports) {
    CORVEL_LOG_INFO("node{} motor works\n", node);
  } else {
    CORVEL_LOG_ERROR("node{} motor error\r\n", node);
  }
  return reports;
}

bool ZlDriver::SaveAllParams(std::uint8_t node) {
  const OnlyHearing sdo_responses(*this, cia301::kSdoResponse + node);
  ClearReadQueue();
  return SdoWriteWithFeedback(cia301::kSdoRequest + node, cia301::kDownload2, kSaveParameters, 0,
                              1);
}

std::uint32_t ZlDriver::GetNumberOfPulsesPerRevolution() { return kCountsPerRevolution; }
