#include "kinco_driver.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <ios>
#include <limits>
#include <system_error>

#include "blocked_signals.h"
#include "canopen.h"
#include "little_endian.h"
#include "log/console.h"
#include "log/logger.h"
#include "motion.h"
#include "sdo_sequence.h"

std::uint16_t g_period = 0;

namespace {

constexpr std::uint16_t kFaultResetAndEnable = 0x0086;
constexpr std::uint16_t kStatusReady = 0x37;
constexpr std::uint16_t kStatusEmergency = 0x50;
constexpr std::uint16_t kStatusIgnoredBit = 0x20;  // quick stop: set or not in the emergency state

constexpr std::uint16_t kHeartbeatPeriodMs = 2000;
constexpr int kClearAttempts = 10;

// Velocity unit of 0x60FF: counts per revolution x 512 / 1875 per rpm.
constexpr unsigned long kVelocityNumerator = 512;
constexpr unsigned long kVelocityDenominator = 1875;

constexpr std::uint8_t kStatusPdoSize = 6;  // error code, statusword, digital inputs
constexpr std::uint8_t kLastDecodedNode = 4;

constexpr std::uint32_t kFunctionMask = 0x780;
constexpr std::uint32_t kNodeMask = 0x7F;

constexpr auto kLoopPeriod = std::chrono::milliseconds(5);
constexpr auto kRecoveryPause = std::chrono::seconds(1);

constexpr std::uint16_t kNotReported = 0xFFFF;
constexpr char kUnknownText[] = "unknown";

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

// Positions of nodes 1 to 4, and the state of the emergency-stop supervision: once for the whole
// process, deliberate, see the class comment. Atomic so that several objects do no worse than mix
// their values.
std::atomic<std::uint32_t> g_previous_position[kLastDecodedNode];
std::atomic<bool> g_in_emergency{false};
std::atomic<bool> g_reset_timer_started{false};
// NOLINTNEXTLINE(cert-err58-cpp): a point in time is a number, it does not throw
std::atomic<std::chrono::steady_clock::time_point> g_reset_timer_start{};

std::uint32_t ToNumber(const YAML::Node& text, int base) {
  return static_cast<std::uint32_t>(std::stoul(text.as<std::string>(), nullptr, base));
}

using TextMap = std::unordered_map<std::uint8_t, std::string>;

void LoadTexts(const YAML::Node& entries, TextMap& texts) {
  for (const YAML::Node& entry : entries) {
    const auto code = static_cast<std::uint8_t>(ToNumber(entry["code"], 16));
    texts[code] = entry["msg"].as<std::string>();
  }
}

std::string TextOf(const TextMap& texts, std::uint8_t code) {
  const auto known = texts.find(code);
  return known != texts.end() ? known->second : kUnknownText;
}

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

// No thread to be had is a failed recovery like any other: it must not end a process whose wheels
// may be turning.
bool Recovered(DriverCan& can) {
  try {
    return can.CanRecover();
  } catch (const std::system_error&) {
    return false;
  }
}

template <typename Map>
bool AnyValue(const Map& map, bool (*holds)(std::uint16_t)) {
  return std::any_of(map.begin(), map.end(),
                     [&](const auto& entry) { return holds(entry.second); });
}

}  // namespace

KincoDriver::KincoDriver(const char* can_name, unsigned long pulses_per_revolution)
    : DriverCommon(can_name),
      pulses_per_revolution_(pulses_per_revolution),
      interface_name_(can_name != nullptr ? can_name : "") {}

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
                             kFaultResetAndEnable)) {
      CORVEL_LOG_INFO("node:{} clear motor error success", node);
      return true;
    }
    CORVEL_LOG_ERROR("node:{} clear motor err failed. Sdo write err", node);
  }
  CORVEL_LOG_ERROR("node:{} clear err failed", node);
  return false;
}

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
  if (!ReadData(frame) || frame.can_id <= cia301::kTpdo1 ||
      frame.can_id > cia301::kTpdo1 + kLastDecodedNode) {
    return false;
  }
  node = static_cast<std::uint8_t>(frame.can_id - cia301::kTpdo1);
  const std::uint32_t position = little_endian::Load32(frame.data);
  counts = static_cast<int>(position);
  rpm = motion::Rpm(position, g_previous_position[node - 1].exchange(position),
                    static_cast<double>(pulses_per_revolution_), pdo_period_);
  return true;
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
    case kStatusReady:
      CORVEL_LOG_INFO("node: {} is ready", node);
      break;
    case kStatusEmergency:
      CORVEL_LOG_WARN("node: {} is emergency stop", node);
      break;
    default:
      CORVEL_LOG_ERROR("node: {} is not ready", node);
  }
  return true;
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
  // Before yaml-cpp, whose buffer leaks when the stream throws.
  std::error_code no_such_file;
  if (std::filesystem::is_directory(path, no_such_file)) {
    CORVEL_LOG_ERROR("Failed to load YAML file: {}, error: {}", path, "is a directory");
    return false;
  }
  // Numbers that are none throw std::invalid_argument or std::out_of_range to the caller:
  // deliberate, a table with a wrong code is a mistake to be mended, a missing file is a condition
  // to live with.
  try {
    const YAML::Node root = YAML::LoadFile(path);
    if (!root.IsDefined()) {
      CORVEL_LOG_ERROR("Failed to load YAML file: {}", path);
      return false;
    }
    if (const YAML::Node entries = root["err_code"]) {
      for (const YAML::Node& entry : entries) {
        const auto code = static_cast<std::uint16_t>(ToNumber(entry["code"], 16));
        const std::uint32_t event = ToNumber(entry["err_code"], 10);
        error_codes_[code] = {event, entry["msg"].as<std::string>()};
      }
      CORVEL_LOG_INFO("Loaded {} error codes", error_codes_.size());
    }
    if (const YAML::Node entries = root["driver_status"]) {
      LoadTexts(entries, driver_status_texts_);
      CORVEL_LOG_INFO("Loaded {} status codes", driver_status_texts_.size());
    }
    if (const YAML::Node entries = root["motor_status"]) {
      LoadTexts(entries, motor_status_texts_);
      CORVEL_LOG_INFO("Loaded {} high status codes", motor_status_texts_.size());
    }
    if (const YAML::Node wait = root["emergency_reset_wait"]) {
      emergency_reset_wait_ms_ = wait.as<int>();
      CORVEL_LOG_INFO("emergency_reset_wait: {}ms", emergency_reset_wait_ms_.load());
    }
    return true;
  } catch (const YAML::Exception& exception) {
    CORVEL_LOG_ERROR("Failed to load YAML file: {}, error: {}", path, exception.what());
  } catch (const std::ios_base::failure& exception) {  // opened, but cannot be read
    CORVEL_LOG_ERROR("Failed to load YAML file: {}, error: {}", path, exception.what());
  }
  return false;
}

ErrorCodeInfo KincoDriver::GetErrorCodeInfo(std::uint16_t code) const {
  const auto known = error_codes_.find(code);
  return known != error_codes_.end() ? known->second : ErrorCodeInfo{0, kUnknownText};
}

ErrorCodeInfo KincoDriver::GetDriverStatusCodeInfo(std::uint8_t code) const {
  return {code, TextOf(driver_status_texts_, code)};
}

ErrorCodeInfo KincoDriver::GetMotorStatusCodeInfo(std::uint8_t code) const {
  return {code, TextOf(motor_status_texts_, code)};
}

// --- Status tracking ---------------------------------------------------------------------------

void KincoDriver::ParseHeartBeatFrame(std::uint32_t can_id, const std::uint8_t* data,
                                      std::uint8_t len) {
  if (len == 0) {
    return;
  }
  const auto node = static_cast<std::uint8_t>(can_id & kNodeMask);
  if (!IsManagedNode(node)) {
    return;
  }
  const std::lock_guard<std::mutex> lock(status_mutex_);
  heartbeat_state_[node] = data[0];
}

void KincoDriver::ParseTpdo3Frame(std::uint32_t can_id, const std::uint8_t* data,
                                  std::uint8_t len) {
  const auto node = static_cast<std::uint8_t>(can_id & kNodeMask);
  if (!IsManagedNode(node)) {
    return;
  }
  if (len < kStatusPdoSize) {
    CORVEL_LOG_WARN("Invalid TPDO3 frame size: {}, can_id: 0x{:03X}, node: {}", len,
                    can_id & cia301::kBaseIdMask, node);
    return;
  }
  const std::uint16_t error_code = little_endian::Load16(data);
  const std::uint16_t statusword = little_endian::Load16(data + 2);
  const std::uint16_t inputs = little_endian::Load16(data + 4);
  {
    const std::lock_guard<std::mutex> lock(status_mutex_);
    error_code_[node] = error_code;
    status_low_[node] = statusword & 0xFF;
    status_high_[node] = static_cast<std::uint16_t>(statusword >> 8);
    inputs_[node] = inputs;
  }
  if (error_code != 0) {
    CORVEL_LOG_DEBUG("Kinco driver error code: 0x{:04X}, node: {}", error_code, node);
  }
}

bool KincoDriver::IsEmergencyStatus(std::uint16_t status) {
  return (status & ~kStatusIgnoredBit) == kStatusEmergency;
}

DriverStatus KincoDriver::GetDriverStatus(std::uint8_t node) {
  const std::lock_guard<std::mutex> lock(status_mutex_);
  const auto heartbeat = heartbeat_state_.find(node);
  if (heartbeat != heartbeat_state_.end() && heartbeat->second == cia301::kBootUp) {
    return DriverStatus::BootUp;
  }
  const auto status_low = status_low_.find(node);
  const auto inputs = inputs_.find(node);
  const auto error_code = error_code_.find(node);
  if (status_low == status_low_.end() || inputs == inputs_.end() ||
      error_code == error_code_.end()) {
    return DriverStatus::Unknown;
  }
  if (error_code->second != 0) {
    return DriverStatus::Fault;
  }
  if (inputs->second != 0 || IsEmergencyStatus(status_low->second)) {
    return DriverStatus::EmergencyStop;
  }
  return status_low->second == kStatusReady ? DriverStatus::Ready : DriverStatus::Fault;
}

std::string KincoDriver::GetDriverStatusDetails(std::uint8_t node) const {
  const std::lock_guard<std::mutex> lock(status_mutex_);
  const auto value = [node](const StatusMap& map) {
    const auto reported = map.find(node);
    return reported != map.end() ? reported->second : kNotReported;
  };
  // Ends with a blank: deliberate, hosts append to it.
  return fmt::format(
      "heartbeat=0x{:04X} status_6041=0x{:04X} motor_status=0x{:04X} error_603F=0x{:04X} "
      "input_2010_0A=0x{:04X} ",
      value(heartbeat_state_), value(status_low_), value(status_high_), value(error_code_),
      value(inputs_));
}

ErrorCodeInfo KincoDriver::GetErrorCode(std::uint8_t node) const {
  const std::lock_guard<std::mutex> lock(status_mutex_);
  const auto error_code = error_code_.find(node);
  if (error_code == error_code_.end() || error_code->second == 0) {
    return {0, kUnknownText};
  }
  ErrorCodeInfo info = GetErrorCodeInfo(error_code->second);
  CORVEL_LOG_INFO("DriverErr. node:{} code:{} msg:{} event:{}", node, error_code->second, info.msg,
                  info.code);
  return info;
}

// --- Supervision -------------------------------------------------------------------------------

void KincoDriver::StartErrorParsingLoop() {
  if (loop_running_) {
    CORVEL_LOG_WARN("Error parsing loop already running");
    return;
  }
  loop_can_ = std::make_unique<DriverCan>(interface_name_.c_str());
  const std::uint32_t filters[] = {cia301::kTpdo4, kFunctionMask, cia301::kHeartbeat,
                                   kFunctionMask};
  loop_can_->CanFiltersConfig(filters, sizeof(filters));
  loop_can_->ClearReadQueue();
  loop_running_ = true;

  // A lambda, so that its log lines name "operator()" as their function.
  const BlockedSignals inherited_by_the_thread;
  loop_thread_ = std::thread([this] {
    CORVEL_LOG_INFO("Error parsing loop started");
    bool recovered = true;  // what got no thread reports no error, and hears nothing either
    while (loop_running_) {
      if (!recovered || loop_can_->GetCanError() != 0) {
        CORVEL_LOG_WARN("Error parsing CAN socket error, attempting recovery");
        recovered = Recovered(*loop_can_);
        if (!recovered) {
          CORVEL_LOG_ERROR("Error parsing CAN socket recovery failed");
          PauseWhileRunning(kRecoveryPause);
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

void KincoDriver::DispatchStatusFrame(std::uint32_t can_id, const std::uint8_t* data,
                                      std::uint8_t len) {
  switch (can_id & kFunctionMask) {
    case cia301::kHeartbeat:
      ParseHeartBeatFrame(can_id, data, len);
      break;
    case cia301::kTpdo4:
      ParseTpdo3Frame(can_id, data, len);
      break;
    default:
      break;
  }
}

// In slices, so that stopping need not wait for the end of the pause.
void KincoDriver::PauseWhileRunning(std::chrono::milliseconds pause) const {
  const auto end = std::chrono::steady_clock::now() + pause;
  while (loop_running_ && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(kLoopPeriod);
  }
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
  StatusMap status_low;
  StatusMap inputs;
  {
    const std::lock_guard<std::mutex> lock(status_mutex_);
    status_low = status_low_;
    inputs = inputs_;
  }
  const bool emergency_status = AnyValue(status_low, &IsEmergencyStatus);
  const bool input_active = AnyValue(inputs, [](std::uint16_t value) { return value != 0; });

  if (!emergency_status && !input_active) {
    if (g_in_emergency) {
      // The reset timer stays as it is: deliberate, the next emergency then resets at once.
      CORVEL_LOG_INFO("EmergencyStop Exited");
    }
    emergency_active_ = false;
    g_in_emergency = false;
    return;
  }
  if (!g_in_emergency) {
    CORVEL_LOG_ERROR("EmergencyStop Enter");
    g_in_emergency = true;
  }
  emergency_active_ = true;
  if (input_active) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (!g_reset_timer_started) {
    g_reset_timer_started = true;
    g_reset_timer_start = now;
    CORVEL_LOG_INFO("EmergencyStop reset after {}ms", emergency_reset_wait_ms_.load());
    return;
  }
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(now - g_reset_timer_start.load());
  if (emergency_reset_wait_ms_ > elapsed.count()) {
    return;
  }
  g_reset_timer_start = now;
  bool all_reset = true;
  for (const auto& [node, status] : status_low) {
    if (IsEmergencyStatus(status) && !ResetDriverStatus(node, DriverStatus::EmergencyStop)) {
      CORVEL_LOG_ERROR("EmergencyStop reset failed. node: {}", node);
      all_reset = false;
    }
  }
  if (all_reset) {
    g_reset_timer_started = false;
    CORVEL_LOG_INFO("EmergencyStop reset done");
  }
}

bool KincoDriver::ClearDriverError(std::uint8_t node) {
  const std::uint32_t server = cia301::kSdoRequest + node;
  if (!SdoWriteWithFeedback(server, cia301::kDownload2, cia402::kControlword, 0,
                            kFaultResetAndEnable)) {
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

bool KincoDriver::ResetDriverStatus(std::uint8_t node, DriverStatus status) {
  if (status == DriverStatus::EmergencyStop) {
    return ResetEmergencyStatus(node);
  }
  CORVEL_LOG_ERROR("Node {}: Unknown driver status type: {}", node, static_cast<int>(status));
  return false;
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
