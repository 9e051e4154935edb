/// @file
/// Pair of servo drives, one motor per node, commanded by SDO writes.
#pragma once

#include <driver_common.h>

#include <cstdint>

/// Drives two nodes (1 and 2 are read back) that keep their own PDO set-up: velocity goes out as an
/// unconfirmed SDO write, position comes in the second half of TPDO1.
///
/// Usual order: zero into the target velocity of each node (0x2FF0 sub 9, by SdoWriteWithFeedback
/// with command 0x2B), Init, StartNode for each node, then SetSpeed and GetSpeed once per period.
/// Without the zeros a wheel may turn as soon as Init enables it. Every write that is not confirmed
/// prints its text on standard output without a line break.
///
/// Previous positions are kept once for the whole process: read speeds of all AMPSDriver objects
/// from one thread. Lifetime and other thread rules: DriverCommon.
class MOTOR_DRIVER_EXPORT AMPSDriver : public DriverCommon {
 public:
  /// `can_name`: CAN interface, for example "can0".
  explicit AMPSDriver(const char* can_name);

  /// As DriverCommon.
  ~AMPSDriver() override;

  using DriverCommon::GetSpeed;
  using DriverCommon::Init;
  using DriverCommon::SetSpeed;

  /// Nothing on the bus. True.
  bool ActiveNode(std::uint8_t node) override;

  /// Profile velocity mode, enabled (0x6060, 0x6040). Number of failed writes, 0 to 2.
  /// At most 0.2 s.
  std::uint16_t SetSpeedMode(std::uint8_t node) override;

  /// SetSpeedMode, TPDO1's inhibit time (0x1800 sub 3) and the manufacturer object 0x4700.
  /// `period_ms`: 1 to 65535. Number of failed writes, 0 to 4. At most 0.4 s.
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) override;

  /// Velocity in the drive's unit (0x2FF0 sub 9, not confirmed): the drive takes the low 16 bits.
  /// The answer lands in the read queue, unless the filters of Init are in force. Always true, also
  /// when nothing could be sent: look at GetCanError().
  bool SetSpeed(std::uint8_t node, int speed) override;

  /// Takes one queued frame. TPDO1 of node 1 or 2: true with node, speed in rpm and position in
  /// counts. Another frame: true, outputs untouched. Empty queue: false, outputs 0.
  bool GetSpeed(std::uint8_t& node, double& rpm, int& counts) override;

  /// Nothing on the bus. True.
  bool CheckStatus(std::uint8_t node) override;

  /// Nothing on the bus. True.
  bool SaveAllParams(std::uint8_t node) override;

  /// 4096.
  std::uint32_t GetNumberOfPulsesPerRevolution() override;

  /// EnableSpeedModeAndPdoMode of both nodes. Only TPDO1 of the two is heard afterwards, until the
  /// next confirmed SDO transfer. Always true. At most 0.8 s.
  bool Init(std::uint8_t node1, std::uint8_t node2, std::uint16_t period_ms) override;
};
