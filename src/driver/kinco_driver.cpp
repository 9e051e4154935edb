#include "kinco_driver.h"

#include <chrono>
#include <stdexcept>

#include "base/blocked_signals.h"
#include "canopen.h"
#include "driver/kinco/status.h"
#include "driver/kinco/supervision.h"
#include "driver/kinco/texts.h"
#include "driver/kinco/words.h"
#include "log/console.h"
#include "log/logger.h"

// The parts of this class are in kinco/: drive, texts, status, supervision. What writes a log line
// stands here, because the line names this file and the operation.

namespace kinco = motor_driver::kinco;

namespace {

constexpr int kClearAttempts = 10;

constexpr auto kLoopPeriod = std::chrono::milliseconds(5);
constexpr auto kRecoveryPause = std::chrono::seconds(1);

}  // namespace

KincoDriver::KincoDriver(const char* can_name, unsigned long pulses_per_revolution)
    : DriverCommon(can_name),
      pulses_per_revolution_(pulses_per_revolution),
      interface_name_(can_name != nullptr ? can_name : ""),
      nodes_(std::make_unique<kinco::NodeTable>()) {}

KincoDriver::~KincoDriver() {
  StopErrorParsingLoop();
  // Here already, while the object is still whole: the receive thread calls virtual operations.
  StopReading();
}

// --- Bring-up and motion -----------------------------------------------------------------------

bool KincoDriver::ActiveNode(std::uint8_t node) {
  const std::uint32_t server = cia301::kSdoRequest + node;
  if (!SdoWriteWithFeedback(server, cia301::kDownload2, cia402::kControlword, 0,
                            cia402::kEnableOperation)) {
    corvel::PrintLine("write error 0x6040, 0x00, 0x000F");
    return false;
  }
  std::uint32_t response = 0;
  if (!SdoWriteWithFeedbackData(server, cia301::kUpload, cia402::kErrorCode, 0, 0, &response)) {
    CORVEL_LOG_WARN("node:{} failed to read motor error status", node);
    return false;
  }
  const auto error_code = static_cast<std::uint16_t>(response);
  if (error_code == 0) {
    CORVEL_LOG_INFO("node:{} motor no error", node);
    return true;
  }
  CORVEL_LOG_ERROR("node:{} motor has error {:x}", node, error_code);
  for (int attempt = 0; attempt < kClearAttempts; ++attempt) {
    if (SdoWriteWithFeedback(server, cia301::kDownload2, cia402::kControlword, 0,
                             kinco::kFaultResetAndEnable)) {
      CORVEL_LOG_INFO("node:{} clear motor error success", node);
      return true;
    }
    CORVEL_LOG_ERROR("node:{} clear motor err failed. Sdo write err", node);
  }
  CORVEL_LOG_ERROR("node:{} clear err failed", node);
  return false;
}

bool KincoDriver::CheckStatus(std::uint8_t node) {
  std::uint32_t response = 0;
  if (!SdoWriteWithFeedbackData(cia301::kSdoRequest + node, cia301::kUpload, cia402::kStatusword, 0,
                                0, &response)) {
    CORVEL_LOG_ERROR("node: {} failed to read status word", node);
    return false;
  }
  const auto statusword = static_cast<std::uint16_t>(response);
  CORVEL_LOG_INFO("node: {} check status: 0x{:x}", node, statusword);
  switch (statusword & 0xFF) {
    case kinco::kStatusReady:
      CORVEL_LOG_INFO("node: {} is ready", node);
      break;
    case kinco::kStatusEmergency:
      CORVEL_LOG_WARN("node: {} is emergency stop", node);
      break;
    default:
      CORVEL_LOG_ERROR("node: {} is not ready", node);
  }
  return true;
}

// --- Configuration file ------------------------------------------------------------------------

bool KincoDriver::LoadDriverConfig(const std::string& path) {
  CORVEL_LOG_INFO("LoadDriverConfig from {}", path);
  if (!LoadConfig(path)) {
    return false;
  }
  CORVEL_LOG_INFO("Error code config loaded successfully");
  return true;
}

bool KincoDriver::LoadConfig(const std::string& path) {
  if (path.empty()) {
    CORVEL_LOG_ERROR("driver_conf_path is empty");
    return false;
  }
  try {
    const kinco::ConfigFile file(path);
    if (!file.IsDefined()) {
      CORVEL_LOG_ERROR("Failed to load YAML file: {}", path);
      return false;
    }
    if (file.ReadErrorCodes(error_codes_)) {
      CORVEL_LOG_INFO("Loaded {} error codes", error_codes_.size());
    }
    if (file.ReadTexts("driver_status", driver_status_texts_)) {
      CORVEL_LOG_INFO("Loaded {} status codes", driver_status_texts_.size());
    }
    if (file.ReadTexts("motor_status", motor_status_texts_)) {
      CORVEL_LOG_INFO("Loaded {} high status codes", motor_status_texts_.size());
    }
    if (const auto wait = file.ReadEmergencyResetWait()) {
      emergency_reset_wait_ms_ = *wait;
      CORVEL_LOG_INFO("emergency_reset_wait: {}ms", emergency_reset_wait_ms_.load());
    }
    return true;
  } catch (const std::runtime_error& exception) {
    CORVEL_LOG_ERROR("Failed to load YAML file: {}, error: {}", path, exception.what());
  }
  return false;
}

// --- Status tracking ---------------------------------------------------------------------------

void KincoDriver::ParseTpdo3Frame(std::uint32_t can_id, const std::uint8_t* data,
                                  std::uint8_t len) {
  const std::uint8_t node = kinco::NodeOf(can_id);
  if (!IsManagedNode(node)) {
    return;
  }
  if (len < kinco::kStatusPdoSize) {
    CORVEL_LOG_WARN("Invalid TPDO3 frame size: {}, can_id: 0x{:03X}, node: {}", len,
                    can_id & cia301::kBaseIdMask, node);
    return;
  }
  std::uint16_t error_code = 0;
  {
    const std::lock_guard<std::mutex> lock(status_mutex_);
    kinco::NodeState& state = nodes_->At(node);
    kinco::StoreStatusPdo(data, state);
    error_code = state.error_code;
  }
  if (error_code != 0) {
    CORVEL_LOG_DEBUG("Kinco driver error code: 0x{:04X}, node: {}", error_code, node);
  }
}

ErrorCodeInfo KincoDriver::GetErrorCode(std::uint8_t node) const {
  const std::lock_guard<std::mutex> lock(status_mutex_);
  const kinco::NodeState state = nodes_->Of(node);
  if (!state.HasError()) {
    return {0, kinco::kUnknownText};
  }
  ErrorCodeInfo info = GetErrorCodeInfo(state.error_code);
  CORVEL_LOG_INFO("DriverErr. node:{} code:{} msg:{} event:{}", node, state.error_code, info.msg,
                  info.code);
  return info;
}

// --- Supervision -------------------------------------------------------------------------------

void KincoDriver::StartErrorParsingLoop() {
  if (loop_running_) {
    CORVEL_LOG_WARN("Error parsing loop already running");
    return;
  }
  loop_can_ = kinco::OpenStatusSocket(interface_name_);
  loop_running_ = true;

  // A lambda, so that its log lines name "operator()" as their function.
  const BlockedSignals inherited_by_the_thread;
  loop_thread_ = std::thread([this] {
    CORVEL_LOG_INFO("Error parsing loop started");
    bool recovered = true;  // what got no thread reports no error, and hears nothing either
    while (loop_running_) {
      if (!recovered || loop_can_->GetCanError() != 0) {
        CORVEL_LOG_WARN("Error parsing CAN socket error, attempting recovery");
        recovered = kinco::Recover(*loop_can_);
        if (!recovered) {
          CORVEL_LOG_ERROR("Error parsing CAN socket recovery failed");
          kinco::PauseWhile(loop_running_, kRecoveryPause);
          continue;
        }
      }
      std::uint32_t can_id = 0;
      std::uint8_t data[8] = {};
      std::uint8_t len = 0;
      while (loop_running_ && loop_can_->GetReadQueueSize() > 0) {
        loop_can_->GetCanFrame(&can_id, data, &len);
        DispatchStatusFrame(can_id, data, len);
      }
      CheckEmergencyStop();
      std::this_thread::sleep_for(kLoopPeriod);
    }
    CORVEL_LOG_INFO("Error parsing loop stopped");
  });
}

void KincoDriver::StopErrorParsingLoop() {
  if (!loop_running_) {
    return;
  }
  loop_running_ = false;
  if (loop_thread_.joinable()) {
    loop_thread_.join();
  }
  loop_can_.reset();
  CORVEL_LOG_INFO("Error parsing loop stopped");
}

void KincoDriver::CheckEmergencyStop() {
  const kinco::NodeTable nodes = [this] {
    const std::lock_guard<std::mutex> lock(status_mutex_);
    return *nodes_;
  }();
  kinco::EmergencyStop& stop = kinco::g_emergency_stop;
  const bool input_active = nodes.AnyInput();
  if (!input_active && !nodes.AnyEmergency()) {
    if (stop.entered) {
      // The reset timer stays as it is: deliberate, the next emergency then resets at once.
      CORVEL_LOG_INFO("EmergencyStop Exited");
    }
    emergency_active_ = false;
    stop.entered = false;
    return;
  }
  if (!stop.entered) {
    CORVEL_LOG_ERROR("EmergencyStop Enter");
    stop.entered = true;
  }
  emergency_active_ = true;
  if (input_active) {
    return;
  }
  const std::chrono::milliseconds wait(emergency_reset_wait_ms_);
  switch (stop.reset_timer.Look(wait)) {
    case kinco::ResetTimer::State::kStarted:
      CORVEL_LOG_INFO("EmergencyStop reset after {}ms", wait.count());
      return;
    case kinco::ResetTimer::State::kRunning:
      return;
    case kinco::ResetTimer::State::kOver:
      break;
  }
  bool all_reset = true;
  for (std::uint8_t node = 0; node < nodes.end(); ++node) {
    if (nodes.Of(node).InEmergency() && !ResetDriverStatus(node, DriverStatus::EmergencyStop)) {
      CORVEL_LOG_ERROR("EmergencyStop reset failed. node: {}", node);
      all_reset = false;
    }
  }
  if (all_reset) {
    stop.reset_timer.Stop();
    CORVEL_LOG_INFO("EmergencyStop reset done");
  }
}

bool KincoDriver::ResetDriverStatus(std::uint8_t node, DriverStatus status) {
  if (status == DriverStatus::EmergencyStop) {
    return ResetEmergencyStatus(node);
  }
  CORVEL_LOG_ERROR("Node {}: Unknown driver status type: {}", node, static_cast<int>(status));
  return false;
}
