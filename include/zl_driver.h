/// @file
/// Dual-channel servo drive: one CANopen node carries two motors.
#pragma once

#include <driver_common.h>

#include <cstdint>

/// Drives nodes with two motors each, addressed as sub-index 1 and 2 of the CiA 402 objects, in
/// profile velocity mode.
///
/// Usual order: ResetNode, the time to boot, zero into both target velocities (0x60FF sub 1 and 2,
/// by SdoWriteWithFeedback), ActiveNode, EnableSpeedModeAndPdoMode, StartNode, then SetSpeed and
/// GetSpeed once per period. Without the zeros a wheel may turn as soon as it is enabled. Every
/// write that is not confirmed prints one line on standard output.
///
/// PDOs after EnableSpeedModeAndPdoMode: RPDO1 (0x200 + node) two target velocities; TPDO1
/// (0x180 + node) two positions, every period; TPDO4 (0x480 + node) error code and statusword.
///
/// Previous positions are kept once for the whole process: read speeds of all ZlDriver objects from
/// one thread. Lifetime and other thread rules: DriverCommon.
class MOTOR_DRIVER_EXPORT ZlDriver : public DriverCommon {
 public:
  /// `can_name`: CAN interface, for example "can0".
  explicit ZlDriver(const char* can_name);

  /// As DriverCommon.
  ~ZlDriver() override;

  using DriverCommon::GetSpeed;
  using DriverCommon::SetSpeed;

  /// Reads the error code (0x603F) without confirmation and, if there is one, prints it on standard
  /// error and sends a fault reset (0x6040). Always true, whatever the node answered; an answer
  /// that takes longer than 5 ms is not seen. About 5 ms, with an error to clear at most 105 ms.
  /// While it runs only SDO answers of the node are heard.
  bool ActiveNode(std::uint8_t node) override;

  /// Profile velocity mode, no ramps (0x6083, 0x6084), enabled (0x6040). Number of failed writes, 0
  /// to 9. At most 0.9 s. The motors hold whatever target velocity (0x60FF) the drive has stored:
  /// write zero there first.
  std::uint16_t SetSpeedMode(std::uint8_t node) override;

  /// Current limits of both motors (manufacturer objects 0x2012, 0x2014, 0x2015, 0x2016). Number of
  /// failed writes, 0 to 8. At most 0.8 s.
  std::uint16_t SetMotorCurrent(std::uint8_t node);

  /// SetMotorCurrent, SetSpeedMode, the PDO set-up (0x1400, 0x1600, 0x1800 to 0x1803, 0x1A00,
  /// 0x1A03) and a heartbeat every 2000 ms (0x1017). `period_ms`: 1 to 32767; the drive's event
  /// timer counts half milliseconds and does not hold more. Number of failed writes, 0 to 41. At
  /// most 4.1 s.
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) override;

  /// Target velocities of both motors (RPDO1), in the drive's unit, passed through unchanged.
  bool SetSpeed(std::uint8_t node, int speed1, int speed2) override;

  /// Takes one queued frame. True when it is TPDO1 of node 1 (0x181): speeds in rpm and positions
  /// in counts of both motors. False and outputs untouched when the queue is empty or holds another
  /// frame first, which is dropped. `node` is never written.
  bool GetSpeed(std::uint8_t& node, double& rpm1, int& counts1, double& rpm2,
                int& counts2) override;

  /// Whether the node sends TPDO1: looks at one frame every ten periods, ten times at most. With a
  /// period of 10 ms it takes 0.1 to 1 s. While it runs nothing else is heard.
  bool CheckStatus(std::uint8_t node) override;

  /// Stores the parameters in the drive (0x2010). True when the drive confirmed it. At most 100 ms.
  bool SaveAllParams(std::uint8_t node) override;

  /// 4096.
  std::uint32_t GetNumberOfPulsesPerRevolution() override;
};
