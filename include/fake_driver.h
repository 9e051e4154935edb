/// @file
/// A drive without a bus: every operation logs what it was asked and succeeds.
#pragma once

#include <driver_common.h>

#include <atomic>
#include <cstdint>

/// Lets a host run its whole control loop without hardware and without CAN: nothing is sent, every
/// operation writes one log line (INFO; speeds DEBUG) and answers with a fixed success, the speed
/// readers with fixed, recognisable numbers. None of its own operations fails or blocks.
///
/// An interface that does not exist is not an obstacle: the object works all the same (its
/// GetCanError() is then not 0). What is inherited unchanged, such as SetHeartbeatPacket(),
/// IsActived() and the SDO client, does go to the bus if there is one. Any thread may call.
class MOTOR_DRIVER_EXPORT FakeDriver : public DriverCommon {
 public:
  /// `can_name`: opened if it exists; no operation of this class sends on it.
  explicit FakeDriver(const char* can_name);

  /// As DriverCommon.
  ~FakeDriver() override;

  using DriverCommon::Init;

  /// True.
  bool ActiveNode(std::uint8_t node) override;
  /// True.
  bool ResetNode(std::uint8_t node) override;
  /// Nothing but the log line.
  void StartNode(std::uint8_t node) override;
  /// Nothing but the log line.
  void StartAllNode() override;
  /// 0: no failed write.
  std::uint16_t SetSpeedMode(std::uint8_t node) override;
  /// Stores `period_ms` for GetTpdo0Period. 0: no failed write.
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) override;
  /// Speed in rpm. True.
  bool SetSpeed(std::uint8_t node, int rpm) override;
  /// The same for two motors.
  bool SetSpeed(std::uint8_t node, int rpm_l, int rpm_r) override;
  /// The same for four motors.
  bool SetSpeed(std::uint8_t node, int rpm_l_front, int rpm_r_front, int rpm_l_rear,
                int rpm_r_rear) override;
  /// True; 100 rpm and 1000 counts. `node` is read and written: it cycles through 1 to 4.
  bool GetSpeed(std::uint8_t& node, double& rpm, int& encoder) override;
  /// True; 100 and 200 rpm, 1000 and 2000 counts. `node` becomes 3 where it was odd, 1 where it was
  /// even.
  bool GetSpeed(std::uint8_t& node, double& rpm_l, int& encoder_l, double& rpm_r,
                int& encoder_r) override;
  /// True; 100 to 400 rpm, 1000 to 4000 counts, in steps of the first. `node` becomes 1.
  bool GetSpeed(std::uint8_t& node, double& rpm_l_front, int& encoder_l_front, double& rpm_r_front,
                int& encoder_r_front, double& rpm_l_rear, int& encoder_l_rear, double& rpm_r_rear,
                int& encoder_r_rear) override;
  /// True.
  bool CheckStatus(std::uint8_t node) override;
  /// True; the one operation that logs nothing.
  bool SaveAllParams(std::uint8_t node) override;
  /// The period in milliseconds given to EnableSpeedModeAndPdoMode, 0 before.
  std::uint16_t GetTpdo0Period(std::uint8_t node) override;
  /// 131072.
  std::uint32_t GetNumberOfPulsesPerRevolution() override;
  /// True.
  bool Init(std::uint8_t node1, std::uint8_t node2, std::uint16_t period_ms) override;

  /// 0: success.
  std::uint16_t WriteParam(std::uint8_t node, std::uint16_t fn_addr, std::uint8_t size_code,
                           std::uint32_t value);
  /// 0: success; `value` is left untouched.
  std::uint16_t ReadParam(std::uint8_t node, std::uint16_t fn_addr, std::uint32_t* value);

 private:
  std::atomic<std::uint16_t> period_ms_{0};
};
