/// @file
/// Single-motor servo drive that is activated by a frame of its own.
#pragma once

#include <driver_common.h>

#include <cstdint>

/// Drives nodes with one motor each in profile velocity mode. Nodes 1 and 2 are read back.
///
/// Usual order: ActiveNode, which wakes the node, AddHeartbeatId, zero into the target velocity
/// (0x60FF sub 0, by SdoWriteWithFeedback), EnableSpeedModeAndPdoMode, StartNode, then SetSpeed and
/// GetSpeed once per period. Without the zero a wheel may turn as soon as it is enabled. A node
/// that sleeps answers nothing before ActiveNode. Every write that is not confirmed prints its text
/// on standard output without a line break.
///
/// PDOs after EnableSpeedModeAndPdoMode: RPDO1 (0x200 + node) target velocity; TPDO1 (0x180 + node)
/// position, every period.
///
/// ActiveNode and CheckStatus leave their receive filters in force: call ClearCanFilterRules(), or
/// any confirmed SDO transfer, before other frames are expected.
///
/// Previous positions are kept once for the whole process: read speeds of all TtDriver objects from
/// one thread. Lifetime and other thread rules: DriverCommon.
class MOTOR_DRIVER_EXPORT TtDriver : public DriverCommon {
 public:
  /// `can_name`: CAN interface, for example "can0".
  explicit TtDriver(const char* can_name);

  /// As DriverCommon.
  ~TtDriver() override;

  using DriverCommon::GetSpeed;
  using DriverCommon::SetSpeed;

  /// True at once when the node answers a read of its controlword (0x6040). Otherwise sends the
  /// activation frame and looks for two signs of life: boot-up messages (0x700 + node) and empty
  /// emergency messages (0x080 + node); true when it saw two. 2 to 2.2 s. Unless the node answered
  /// at once, only those two identifiers are heard afterwards, whatever the result. Call it before
  /// AddHeartbeatId(0x700 + node): a registered boot-up message never gets here.
  bool ActiveNode(std::uint8_t node) override;

  /// Profile velocity mode, fault reset, enabled (0x6060, 0x6040). Number of failed writes, 0 to 5.
  /// At most 0.5 s.
  std::uint16_t SetSpeedMode(std::uint8_t node) override;

  /// A heartbeat every 2000 ms (0x1017), SetSpeedMode and the PDO set-up (0x1400, 0x1600, 0x1800 to
  /// 0x1803, 0x1A00). `period_ms`: 1 to 65535. Number of failed writes, 0 to 21. At most 2.1 s.
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) override;

  /// Target velocity (RPDO1), in the drive's unit, passed through unchanged.
  bool SetSpeed(std::uint8_t node, int speed) override;

  /// Takes one queued frame. TPDO1 of node 1 or 2: true with node, speed in rpm and position in
  /// counts. Another frame: true, outputs untouched. Empty queue: false, outputs 0.
  bool GetSpeed(std::uint8_t& node, double& rpm, int& counts) override;

  /// Whether the node sends TPDO1: looks at one frame every ten periods, ten times at most. With a
  /// period of 10 ms it takes 0.1 to 1 s. Only TPDO1 of the node is heard afterwards.
  bool CheckStatus(std::uint8_t node) override;

  /// Stores the parameters in the drive (0x1010 sub 1 = "save"). True when the drive confirmed it.
  /// At most 100 ms.
  bool SaveAllParams(std::uint8_t node) override;

  /// 32768.
  std::uint32_t GetNumberOfPulsesPerRevolution() override;
};
