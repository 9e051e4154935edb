/// @file
/// Kinco servo drive: one motor per node, texts from a YAML file, supervision in the background.
#pragma once

#include <driver_common.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

namespace motor_driver::kinco {
class NodeTable;
}  // namespace motor_driver::kinco

/// Period in milliseconds given last to KincoDriver::Init() of any object; 0 before.
extern MOTOR_DRIVER_EXPORT std::uint16_t g_period;

/// Drives nodes with one motor each in the make's immediate-speed mode, and supervises them.
///
/// Usual order: LoadDriverConfig, AddHeartbeatId for every node, StartErrorParsingLoop, then for
/// each node Init, zero into the target velocity (0x60FF sub 0, by SdoWriteWithFeedback),
/// ActiveNode, EnableSpeedModeAndPdoMode; set_speed_command_enabled(true); then SetSpeed and
/// GetSpeed once per period. Without the zero a wheel may turn as soon as ActiveNode enables it.
///
/// PDOs after EnableSpeedModeAndPdoMode: RPDO1 (0x200 + node) target velocity; TPDO1 (0x180 + node)
/// position, every period; TPDO4 (0x480 + node), which this make counts as its TPDO3, error code,
/// statusword and digital inputs, every 200 ms and on change.
///
/// The error-parsing loop is a thread of this object with a socket of its own: it keeps the status
/// of every node with a registered heartbeat and, when an emergency stop was released, brings the
/// drives back by itself (see CheckEmergencyStop). It never touches the read queue of the host.
///
/// Threads: as DriverCommon. Status operations may be called from any thread at any time; load the
/// configuration before the loop is started. Previous positions and the state of the emergency-stop
/// supervision are kept once for the whole process: one object per process is the intended use.
class MOTOR_DRIVER_EXPORT KincoDriver : public DriverCommon {
 public:
  /// `can_name`: CAN interface, for example "can0". `pulses_per_revolution`: encoder counts per
  /// motor revolution, above 0.
  KincoDriver(const char* can_name, unsigned long pulses_per_revolution);

  /// Stops the loop, then as DriverCommon: at most 100 ms more than StopErrorParsingLoop().
  ~KincoDriver() override;

  using DriverCommon::GetSpeed;
  using DriverCommon::Init;
  using DriverCommon::SetSpeed;

  /// Enables the node (0x6040), reads its error code (0x603F) and, if there is one, resets the
  /// fault, trying ten times. True when there is no error or the reset was confirmed. At most
  /// 1.2 s.
  bool ActiveNode(std::uint8_t node) override;

  /// Nothing on the bus: this make is not to be reset over NMT. True.
  bool ResetNode(std::uint8_t node) override;

  /// Nothing on the bus: nodes are started one by one, by Init.
  void StartAllNode() override;

  /// Immediate-speed mode (0x6060 = -3) and enable sequence (0x6040). Number of failed writes, 0 to
  /// 4. At most 0.4 s.
  std::uint16_t SetSpeedMode(std::uint8_t node) override;

  /// SetSpeedMode, the PDO set-up (0x1400, 0x1600, 0x1800, 0x1803, 0x1A00, 0x1A03) and a heartbeat
  /// every 2000 ms (0x1017). `period_ms`: 1 to 255. Number of failed writes, 0 to 24. At most
  /// 2.4 s.
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) override;

  /// Target velocity in rpm (RPDO1), converted to the drive's unit of counts per revolution x 512 /
  /// 1875 per rpm and saturated to 32 bits. Sends 0 until set_speed_command_enabled(true).
  bool SetSpeed(std::uint8_t node, int speed) override;

  /// Takes one queued frame. True when it is TPDO1 of node 1 to 4: that node, its speed in rpm and
  /// its position in counts. Otherwise false and all outputs 0: the queue is empty, the frame was
  /// of another kind (it is dropped), or another thread is in an SDO transfer (nothing is taken).
  bool GetSpeed(std::uint8_t& node, double& rpm, int& counts) override;

  /// Reads the statusword (0x6041) and logs what it says. True when it could be read, whatever the
  /// state. At most 100 ms.
  bool CheckStatus(std::uint8_t node) override;

  /// Fault reset and enable (0x6040 = 0x86, 0x0F), confirmed. At most 200 ms.
  bool ClearDriverError(std::uint8_t node) override;

  /// Leads the node out of `status`: EmergencyStop by ResetEmergencyStatus(); any other is an
  /// error, logged, and false.
  bool ResetDriverStatus(std::uint8_t node, DriverStatus status) override;

  /// Whether TPDO1's event timer (0x1800 sub 5) equals g_period. At most 100 ms.
  bool CheckReportPeriod(std::uint8_t node) override;

  /// Nothing on the bus. True.
  bool SaveAllParams(std::uint8_t node) override;

  /// As given to the constructor, low 32 bits.
  std::uint32_t GetNumberOfPulsesPerRevolution() override;

  /// NMT start of the node; stores the period in g_period. True.
  bool Init(std::uint8_t node, std::uint16_t period_ms) override;

  /// The node's present error with the text of the configuration file; code is the event number.
  /// Code 0 and "unknown" without an error, or for an error the file does not know. Each call with
  /// an error present writes one INFO line.
  ErrorCodeInfo GetErrorCode(std::uint8_t node) const override;

  /// Loads the texts and the emergency reset wait from a YAML file (see
  /// share/motor_driver/kinco.yaml) on top of what was loaded before. False, with an ERROR line,
  /// when the file cannot be read or has the wrong shape; entries before the faulty one stay.
  /// Throws std::invalid_argument or std::out_of_range when a "code" or "err_code" is not a number.
  /// Reads a file: may block on it. Takes no lock: not while another thread looks up texts.
  bool LoadDriverConfig(const std::string& path) override;

  /// The node's state as the loop saw it last; Unknown until it sent its status PDO.
  DriverStatus GetDriverStatus(std::uint8_t node) override;

  /// The raw values behind it in one line; FFFF for what was not received yet.
  std::string GetDriverStatusDetails(std::uint8_t node) const override;

  /// LoadDriverConfig without its own two log lines.
  bool LoadConfig(const std::string& path);

  /// Event number and text of an error code (0x603F); 0 and "unknown" where the file has none.
  ErrorCodeInfo GetErrorCodeInfo(std::uint16_t code) const;
  /// The code and its text, low byte of the statusword; "unknown" where the file has none.
  ErrorCodeInfo GetDriverStatusCodeInfo(std::uint8_t code) const;
  /// The same, high byte of the statusword.
  ErrorCodeInfo GetMotorStatusCodeInfo(std::uint8_t code) const;

  /// Stores a heartbeat of a node with a registered heartbeat. The loop's own.
  void ParseHeartBeatFrame(std::uint32_t can_id, const std::uint8_t* data, std::uint8_t len);
  /// Stores a status PDO of a node with a registered heartbeat; one of fewer than 6 bytes is only
  /// logged (WARN). The loop's own.
  void ParseTpdo3Frame(std::uint32_t can_id, const std::uint8_t* data, std::uint8_t len);

  /// Whether a statusword's low byte shows the emergency stop: 0x50 or 0x70.
  static bool IsEmergencyStatus(std::uint16_t status);

  /// Starts the error-parsing loop on a socket of its own; a second call while it runs only warns.
  /// A socket that fails is rebuilt by the loop: once a second while the interface is away, in
  /// every pass of the loop (and with five log lines each time) while it is there but down. Not
  /// from two threads at once, nor beside StopErrorParsingLoop(). Throws std::system_error when no
  /// thread can be started; StopErrorParsingLoop() then, before another attempt.
  void StartErrorParsingLoop();

  /// Ends the loop and closes its socket; nothing to do when it does not run. At most 100 ms,
  /// 200 ms while the loop rebuilds its socket; on a bus that takes no frame, up to 60 ms more for
  /// each node that is just being reset.
  void StopErrorParsingLoop();

  /// One pass of the emergency-stop supervision, run by the loop every 5 ms, not by the host: once
  /// every emergency input is released while a statusword still shows the stop, waits
  /// emergency_reset_wait and resets every node concerned, again after each further wait until it
  /// could be sent.
  void CheckEmergencyStop();

  /// Leads a node out of the emergency stop: controlwords 0, 6, 0xF (0x6040), not confirmed. False
  /// when one could not be sent.
  bool ResetEmergencyStatus(std::uint8_t node);

 private:
  using TextMap = std::unordered_map<std::uint8_t, std::string>;

  MOTOR_DRIVER_LOCAL void DispatchStatusFrame(std::uint32_t can_id, const std::uint8_t* data,
                                              std::uint8_t len);

  const unsigned long pulses_per_revolution_;
  const std::string interface_name_;

  std::unordered_map<std::uint16_t, ErrorCodeInfo> error_codes_;
  TextMap driver_status_texts_;
  TextMap motor_status_texts_;
  std::atomic<std::int32_t> emergency_reset_wait_ms_{1000};

  mutable std::mutex status_mutex_;  // *nodes_
  const std::unique_ptr<motor_driver::kinco::NodeTable> nodes_;

  std::unique_ptr<DriverCan> loop_can_;
  std::atomic<bool> loop_running_{false};
  std::thread loop_thread_;
  // As the last pass of the supervision left it. Nobody reads it: deliberate, for a debugger.
  std::atomic<bool> emergency_active_{false};
};
