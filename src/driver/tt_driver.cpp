#include "tt_driver.h"

#include <algorithm>
#include <array>

#include "canopen.h"
#include "feedback.h"
#include "filter_scope.h"
#include "little_endian.h"
#include "log/logger.h"
#include "sdo_sequence.h"

namespace {

// The frame that activates a node goes to the node-ID itself as identifier, no CANopen function
// code.
constexpr std::uint8_t kActivation[] = {0x10, 0x10};
constexpr std::uint32_t kActivationMs = 2000;
constexpr int kActivationPasses = 10;
constexpr std::uint8_t kConfirmationsNeeded = 2;

constexpr std::uint32_t kSaveSignature = 0x65766173;  // "save"

constexpr std::uint32_t kCountsPerRevolution = 32768;
constexpr std::uint16_t kHeartbeatPeriodMs = 2000;

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;

// clang-format off
constexpr std::array<SdoStep, 5> kSpeedMode = {{
    Write<u8>(cia402::kModesOfOperation, 0, cia402::kProfileVelocityMode, "write error 0x6060, 0x00, 0x03"),
    Write<u16>(cia402::kControlword,     0, cia402::kFaultReset,          "write error 0x6040, 0x00, 0x0080"),
    Write<u16>(cia402::kControlword,     0, cia402::kShutdown,            "write error 0x6040, 0x00, 0x0006"),
    Write<u16>(cia402::kControlword,     0, cia402::kSwitchOn,            "write error 0x6040, 0x00, 0x0007"),
    Write<u16>(cia402::kControlword,     0, cia402::kEnableOperation,     "write error 0x6040, 0x00, 0x000F"),
}};

constexpr std::array<SdoStep, 16> PdoSetUp(std::uint8_t node, std::uint16_t period_ms) {
  using namespace cia301;  // NOLINT(google-build-using-namespace): a table of nothing else
  // TPDO2 to TPDO4 are switched off with TPDO1's identifier: deliberate, this make takes it so.
  const u32 tpdo_off = (kPdoInvalid | kTpdo1) + node;
  return {{
      Write<u32>(kRpdo1Communication, kPdoCobId,            (kPdoInvalid | kRpdo1) + node, "write error 0x1400, 0x01, 0x80000200 + node_id"),
      Write<u8>(kRpdo1Communication,  kPdoTransmissionType, 0xFF,                          "write error 0x1400, 0x02, 0xFF"),
      Write<u8>(kRpdo1Mapping,        0,                    0,                             "write error 0x1600, 0x00, 0"),
      Write<u32>(kRpdo1Mapping,       1,                    0x60FF0020,                    "write error 0x1600, 0x01, 0x60FF0020"),
      Write<u8>(kRpdo1Mapping,        0,                    1,                             "write error 0x1600, 0x00, 0x01"),
      Write<u32>(kRpdo1Communication, kPdoCobId,            kRpdo1 + node,                 "write error 0x1400, 0x01, 0x00000200 + node_id"),
      Write<u32>(kTpdo1Communication, kPdoCobId,            tpdo_off,                      "write error 0x1800, 0x01, 0x80000180 + node_id"),
      Write<u32>(kTpdo2Communication, kPdoCobId,            tpdo_off,                      "write error 0x1801, 0x01, 0x80000180 + node_id"),
      Write<u32>(kTpdo3Communication, kPdoCobId,            tpdo_off,                      "write error 0x1802, 0x01, 0x80000180 + node_id"),
      Write<u32>(kTpdo4Communication, kPdoCobId,            tpdo_off,                      "write error 0x1803, 0x01, 0x80000180 + node_id"),
      Write<u8>(kTpdo1Communication,  kPdoTransmissionType, 0xFF,                          "write error 0x1800, 0x02, 0xFF"),
      Write<u16>(kTpdo1Communication, kPdoEventTimer,       period_ms,                     "write error 0x1800, 0x05, period"),
      Write<u8>(kTpdo1Mapping,        0,                    0,                             "write error 0x1A00, 0x00, 0x00"),
      Write<u32>(kTpdo1Mapping,       1,                    0x60630020,                    "write error 0x1A00, 0x01, 0x60630020"),
      Write<u8>(kTpdo1Mapping,        0,                    1,                             "write error 0x1A00, 0x00, 0x01"),
      Write<u32>(kTpdo1Communication, kPdoCobId,            kTpdo1 + node,                 "write error 0x1800, 0x01, 0x00000180 + node_id"),
  }};
}
// clang-format on

OneMotorFeedback g_feedback(1, 2);

bool IsBootUp(const CanFrame& frame) { return frame.len == 1 && frame.data[0] == cia301::kBootUp; }

// An emergency message that reports "no error".
bool IsEmptyEmergency(const CanFrame& frame) {
  return frame.len == 8 && std::all_of(std::begin(frame.data), std::end(frame.data),
                                       [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace

TtDriver::TtDriver(const char* can_name) : DriverCommon(can_name) {}

// The receive thread makes virtual calls (heartbeats): it ends while the object is still of this
// class.
TtDriver::~TtDriver() { StopReading(); }

bool TtDriver::ActiveNode(std::uint8_t node) {
  if (IsActived(node)) {
    CORVEL_LOG_INFO("node{} has been actived\n", node);
    return true;
  }
  const std::uint32_t heartbeat = cia301::kHeartbeat + node;
  const std::uint32_t emergency = cia301::kEmergency + node;
  // Stay in force after the return, as the class comment says: deliberate.
  HearOnly(*this, heartbeat, emergency);
  if (!WriteData(node, kActivation, sizeof(kActivation))) {
    CORVEL_LOG_WARN("node{} write command failed", node);
    return false;
  }
  ClearReadQueue();
  CanDelayMs(kActivationMs);

  std::uint8_t confirmations = 0;
  for (int pass = 0; pass < kActivationPasses && confirmations < kConfirmationsNeeded; ++pass) {
    CanFrame frame = {};
    const bool taken = GetCanFrame(frame);
    if (taken && frame.can_id == heartbeat && IsBootUp(frame)) {
      ++confirmations;
      continue;  // without a pause: the emergency message follows on its heels
    }
    if (taken && frame.can_id == emergency && IsEmptyEmergency(frame)) {
      ++confirmations;
    }
    CanDelayMs(10);
  }
  if (confirmations != kConfirmationsNeeded) {
    CORVEL_LOG_ERROR("failed to active node{}, flag = {}\n", node, confirmations);
    return false;
  }
  CORVEL_LOG_INFO("Active node id = {}", node);
  return true;
}

std::uint16_t TtDriver::SetSpeedMode(std::uint8_t node) {
  return RunSdoSequence(*this, node, kSpeedMode, FailureText::kBare);
}

std::uint16_t TtDriver::EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) {
  pdo_period_ = period_ms;
  SetHeartbeatPacket(node, kHeartbeatPeriodMs);
  std::uint16_t failures = SetSpeedMode(node);
  failures = static_cast<std::uint16_t>(
      failures + RunSdoSequence(*this, node, PdoSetUp(node, period_ms), FailureText::kBare));
  ClearReadQueue();
  return failures;
}

bool TtDriver::SetSpeed(std::uint8_t node, int speed) {
  std::uint8_t target_velocity[4] = {};
  little_endian::Store32(static_cast<std::uint32_t>(speed), target_velocity);
  return WriteData(cia301::kRpdo1 + node, target_velocity, sizeof(target_velocity));
}

bool TtDriver::GetSpeed(std::uint8_t& node, double& rpm, int& counts) {
  return g_feedback.Take(*this, kCountsPerRevolution, pdo_period_, node, rpm, counts);
}

bool TtDriver::CheckStatus(std::uint8_t node) {
  // Stays in force after the return, as the class comment says: deliberate.
  HearOnly(*this, cia301::kTpdo1 + node);
  const bool reports = ReportsPosition(*this, node, pdo_period_);
  // Both texts carry their own line end: deliberate.
  if (reports) {
    CORVEL_LOG_INFO("node{} motor works\n", node);
  } else {
    CORVEL_LOG_ERROR("node{} motor error\r\n", node);
  }
  return reports;
}

bool TtDriver::SaveAllParams(std::uint8_t node) {
  const OnlyHearing sdo_responses(*this, cia301::kSdoResponse + node);
  ClearReadQueue();
  return SdoWriteWithFeedback(cia301::kSdoRequest + node, cia301::kDownload4,
                              cia301::kStoreParameters, 1, kSaveSignature);
}

std::uint32_t TtDriver::GetNumberOfPulsesPerRevolution() { return kCountsPerRevolution; }
