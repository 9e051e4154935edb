#include "driver_common.h"

#include <unistd.h>

#include <algorithm>
#include <thread>
#include <utility>

#include "canopen.h"
#include "filter_scope.h"
#include "log/logger.h"
#include "sdo_frame.h"
#include "sdo_observer.h"

namespace {

constexpr auto kSdoTimeout = std::chrono::milliseconds(100);
constexpr auto kSdoPoll = std::chrono::milliseconds(1);

constexpr std::uint32_t kSdoResponseOffset = cia301::kSdoRequest - cia301::kSdoResponse;

constexpr std::uint8_t kRestartsReported = 3;

// One counter for the whole process: deliberate, a restart of the drives' common supply shows as
// pre-operational heartbeats of any nodes in a row.
std::atomic<std::uint8_t> g_restart_count{0};

// A template because the outcome's own type is private to the class.
template <typename Outcome>
motor_driver::SdoTransfer::Outcome ToObserve(Outcome outcome, std::uint8_t response) {
  using Observed = motor_driver::SdoTransfer::Outcome;
  switch (outcome) {
    case Outcome::kNotSent:
      return Observed::kNotSent;
    case Outcome::kTimedOut:
      return Observed::kSilent;
    case Outcome::kRefused:
      return response == cia301::kAbort ? Observed::kRefused : Observed::kMisanswered;
    case Outcome::kAccepted:
      break;
  }
  return Observed::kAccepted;
}

}  // namespace

DriverCommon::DriverCommon(const char* interface_name) : DriverCan(interface_name) {
  SetFrameHandler([this](const CanFrame& frame) { return HandleCanFrame(frame); });
}

DriverCommon::~DriverCommon() {
  SetFrameHandler({});
  StopReading();
}

bool DriverCommon::IsActived(std::uint8_t node) {
  return SdoWriteWithFeedback(cia301::kSdoRequest + node, cia301::kUpload, cia402::kControlword, 0,
                              0);
}

bool DriverCommon::ResetNode(std::uint8_t node) {
  const std::uint8_t reset[] = {cia301::kResetNode, node};
  if (!WriteData(cia301::kNmt, reset, sizeof(reset))) {
    CORVEL_LOG_WARN("failed to reset node{}", node);
    return false;
  }
  CORVEL_LOG_INFO("reset node id = {}", node);
  CanDelayMs(10);
  const std::uint8_t enter_pre_operational[] = {cia301::kEnterPreOperational, node};
  if (!WriteData(cia301::kNmt, enter_pre_operational, sizeof(enter_pre_operational))) {
    CORVEL_LOG_WARN("failed to init node{}", node);
    return false;
  }
  CORVEL_LOG_INFO("init node id = {}", node);
  return true;
}

void DriverCommon::StartNode(std::uint8_t node) {
  const std::uint8_t start[] = {cia301::kStartNode, node};
  if (!WriteData(cia301::kNmt, start, sizeof(start))) {
    CORVEL_LOG_ERROR("failed to start node{}", node);
  }
}

void DriverCommon::StartAllNode() { StartNode(0); }

bool DriverCommon::SetSpeed(std::uint8_t, int) { return false; }

bool DriverCommon::SetSpeed(std::uint8_t, int, int) { return false; }

bool DriverCommon::SetSpeed(std::uint8_t, int, int, int, int) { return false; }

bool DriverCommon::GetSpeed(std::uint8_t&, double&, int&) { return false; }

bool DriverCommon::GetSpeed(std::uint8_t&, double&, int&, double&, int&) { return false; }

bool DriverCommon::GetSpeed(std::uint8_t&, double&, int&, double&, int&, double&, int&, double&,
                            int&) {
  return false;
}

bool DriverCommon::ClearDriverError(std::uint8_t) { return false; }

bool DriverCommon::ResetDriverStatus(std::uint8_t, DriverStatus) { return false; }

bool DriverCommon::CheckReportPeriod(std::uint8_t) { return false; }

std::uint16_t DriverCommon::GetTpdo0Period(std::uint8_t node) {
  std::uint32_t event_timer = 0;
  const bool read = SdoWriteWithFeedbackData(cia301::kSdoRequest + node, cia301::kUpload,
                                             cia301::kTpdo1Communication, cia301::kPdoEventTimer, 0,
                                             &event_timer);
  return read ? static_cast<std::uint16_t>(event_timer) : std::uint16_t{0};
}

bool DriverCommon::SetHeartbeatPacket(std::uint8_t node, std::uint16_t period_ms) {
  return SdoWrite(cia301::kSdoRequest + node, cia301::kDownload2, cia301::kProducerHeartbeatTime, 0,
                  period_ms);
}

void DriverCommon::HeartbeatCallback(HeartbeatTimeout& hb) {
  if (!is_initialized_) {
    return;
  }
  if (hb.state == cia301::kBootUp) {
    // "Heartboot", and boot-up as the state that is called normal: deliberate, hosts know the line.
    CORVEL_LOG_DEBUG("Heartboot callback: node is running normally");
  }
  if (hb.state != cia301::kPreOperational) {
    g_restart_count = 0;
    return;
  }
  // Not reset when it is reported, so that one long run is reported once.
  if (++g_restart_count == kRestartsReported) {
    CORVEL_LOG_WARN("Receive restart signal (0x7F) 3 times");
  }
}

bool DriverCommon::Init(std::uint8_t, std::uint16_t) { return true; }

bool DriverCommon::Init(std::uint8_t, std::uint8_t, std::uint16_t) { return true; }

ErrorCodeInfo DriverCommon::GetErrorCode(std::uint8_t) const { return {0, "unknown"}; }

bool DriverCommon::LoadDriverConfig(const std::string&) { return false; }

DriverStatus DriverCommon::GetDriverStatus(std::uint8_t) { return DriverStatus::Unknown; }

std::string DriverCommon::GetDriverStatusDetails(std::uint8_t) const { return {}; }

bool DriverCommon::WriteData(std::uint32_t can_id, const std::uint8_t* data, std::uint8_t len) {
  return CanWrite(can_id, data, len);
}

bool DriverCommon::ReadData(std::uint32_t* can_id, std::uint8_t* data, std::uint8_t* len) {
  CanFrame frame = {};
  const bool taken = ReadData(frame);
  *can_id = frame.can_id;
  std::copy_n(frame.data, frame.len, data);
  *len = frame.len;
  return taken;
}

bool DriverCommon::ReadData(CanFrame& frame) {
  // Only tried: a reader must neither wait for another thread's transfer nor steal its answer.
  const std::unique_lock<std::recursive_mutex> lock(sdo_mutex_, std::try_to_lock);
  return lock.owns_lock() && GetCanFrame(frame);
}

void DriverCommon::CanDelayMs(std::uint32_t ms) { ::usleep(ms * 1000); }

bool DriverCommon::IsNormal() { return true; }

void DriverCommon::set_is_initialized(bool value) { is_initialized_ = value; }

void DriverCommon::set_speed_command_enabled(bool value) {
  speed_command_enabled_.store(value, std::memory_order_release);
}

bool DriverCommon::SdoWrite(std::uint32_t can_id, std::uint8_t command, std::uint16_t index,
                            std::uint8_t sub_index, std::uint32_t data) {
  std::uint8_t request[kSdoFrameSize] = {};
  StoreSdo({command, index, sub_index, data}, request);
  return WriteData(can_id, request, sizeof(request));
}

bool DriverCommon::SdoRead(std::uint32_t* can_id, std::uint8_t* command, std::uint16_t* index,
                           std::uint8_t* sub_index, std::uint32_t* data) {
  CanFrame frame = {};
  SdoFrame sdo = {};
  const bool parsed = ReadData(frame) && ParseSdo(frame.data, frame.len, sdo);
  *can_id = parsed ? frame.can_id : 0;
  *command = sdo.command;
  *index = sdo.index;
  *sub_index = sdo.sub_index;
  *data = sdo.data;
  return parsed;
}

bool DriverCommon::WaitSdoResponse(std::uint32_t response_id, std::uint16_t index,
                                   std::uint8_t sub_index, std::uint8_t* command,
                                   std::uint32_t* data) {
  const auto deadline = std::chrono::steady_clock::now() + kSdoTimeout;
  while (std::chrono::steady_clock::now() < deadline) {
    CanFrame frame = {};
    if (!GetCanFrame(frame)) {
      std::this_thread::sleep_for(kSdoPoll);
      continue;
    }
    SdoFrame sdo = {};
    if (frame.can_id == response_id && ParseSdo(frame.data, frame.len, sdo) && sdo.index == index &&
        sdo.sub_index == sub_index) {
      *command = sdo.command;
      *data = sdo.data;
      return true;
    }
  }
  return false;
}

bool DriverCommon::SdoWriteWithFeedback(std::uint32_t can_id, std::uint8_t command,
                                        std::uint16_t index, std::uint8_t sub_index,
                                        std::uint32_t data) {
  const std::lock_guard<std::recursive_mutex> lock(sdo_mutex_);
  std::uint32_t response_data = 0;
  const SdoOutcome outcome = TransferSdo(can_id, command, index, sub_index, data, &response_data);
  if (outcome == SdoOutcome::kTimedOut) {
    CORVEL_LOG_WARN("SDO response timeout, can_id: 0x{:03X}, index: 0x{:04X}, sub: 0x{:02X}",
                    can_id - kSdoResponseOffset, index, sub_index);
  }
  return outcome == SdoOutcome::kAccepted;
}

bool DriverCommon::SdoWriteWithFeedbackData(std::uint32_t can_id, std::uint8_t command,
                                            std::uint16_t index, std::uint8_t sub_index,
                                            std::uint32_t data, std::uint32_t* response_data) {
  const std::lock_guard<std::recursive_mutex> lock(sdo_mutex_);
  const SdoOutcome outcome = TransferSdo(can_id, command, index, sub_index, data, response_data);
  if (outcome == SdoOutcome::kTimedOut) {
    // The same line as above, but the sinks name the operation that the host called.
    CORVEL_LOG_WARN("SDO response timeout, can_id: 0x{:03X}, index: 0x{:04X}, sub: 0x{:02X}",
                    can_id - kSdoResponseOffset, index, sub_index);
  }
  return outcome == SdoOutcome::kAccepted;
}

DriverCommon::SdoOutcome DriverCommon::TransferSdo(std::uint32_t can_id, std::uint8_t command,
                                                   std::uint16_t index, std::uint8_t sub_index,
                                                   std::uint32_t data,
                                                   std::uint32_t* response_data) {
  *response_data = 0;
  std::uint8_t response = 0;
  const auto transfer = [&] {
    const std::uint32_t response_id = can_id - kSdoResponseOffset;
    const OnlyHearing the_response(*this, response_id);
    ClearReadQueue();
    if (!SdoWrite(can_id, command, index, sub_index, data)) {
      return SdoOutcome::kNotSent;
    }
    if (!WaitSdoResponse(response_id, index, sub_index, &response, response_data)) {
      return SdoOutcome::kTimedOut;
    }
    return IsAccepted(command, response) ? SdoOutcome::kAccepted : SdoOutcome::kRefused;
  };
  const SdoOutcome outcome = transfer();
  if (motor_driver::SdoObserver* const observer = motor_driver::CurrentSdoObserver()) {
    observer->Finished(
        {can_id, command, index, sub_index, data, ToObserve(outcome, response), *response_data});
  }
  return outcome;
}
