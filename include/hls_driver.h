/// @file
/// Servo drive with generic parameter access to up to 16 axes.
#pragma once

#include <driver_common.h>

#include <cstdint>

/// Drives nodes with one motor each in profile velocity mode, and reads and writes any parameter of
/// any axis through one SDO channel. The positions of identifiers 0x180 and 0x181 are read back as
/// nodes 0 and 1.
///
/// The direction of rotation is mirrored, in SetSpeed and in GetSpeed alike.
///
/// Usual order, for each node: zero into the target velocity (0x60FF sub 0, by
/// SdoWriteWithFeedback), ActiveNode, EnableSpeedModeAndPdoMode, StartNode; then SetSpeed and
/// GetSpeed once per period. Without the zero a wheel may turn as soon as it is enabled. Init is
/// not enough: it starts node 2 only. Every write that is not confirmed prints one line on standard
/// output.
///
/// PDOs after EnableSpeedModeAndPdoMode, on the drive's default identifiers: RPDO1 (0x200 + node)
/// target velocity in tenths of rpm; TPDO1 position, every period; TPDO4 error code and statusword.
///
/// Previous positions are kept once for the whole process: read speeds of all HlsDriver objects
/// from one thread. Lifetime and other thread rules: DriverCommon.
class MOTOR_DRIVER_EXPORT HlsDriver : public DriverCommon {
 public:
  /// `can_name`: CAN interface, for example "can0".
  explicit HlsDriver(const char* can_name);

  /// As DriverCommon.
  ~HlsDriver() override;

  using DriverCommon::GetSpeed;
  using DriverCommon::Init;
  using DriverCommon::SetSpeed;

  /// Reads the error code (0x603F) up to ten times without confirmation; when there is an error, or
  /// no answer, clears it (0x4603) up to ten times. True when there was no error or the clearing
  /// was confirmed. 0.1 to 2 s, 1.1 s when nobody answers. While it runs only SDO answers of the
  /// node are heard.
  bool ActiveNode(std::uint8_t node) override;

  /// Nothing on the bus: the drive is not reset over NMT. True.
  bool ResetNode(std::uint8_t node) override;

  /// Nothing on the bus.
  void StartAllNode() override;

  /// Profile velocity mode, no ramps (0x6083, 0x6084), enabled (0x6040). Number of failed writes, 0
  /// to 6. At most 0.6 s.
  std::uint16_t SetSpeedMode(std::uint8_t node) override;

  /// SetSpeedMode, the PDO set-up (0x1600, 0x1800, 0x1803, 0x1A00, 0x1A03) and a heartbeat every
  /// 2000 ms (0x1017). `period_ms`: 1 to 255; only its low byte is sent. Number of failed writes, 0
  /// to 22. At most 2.2 s.
  std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) override;

  /// Target velocity in rpm (RPDO1), sent as -10 times its value, with 32-bit wrap-around.
  bool SetSpeed(std::uint8_t node, int speed) override;

  /// Takes one queued frame. Identifiers 0x180 and 0x181: node 0 and 1, speed in rpm, position in
  /// counts. Another frame: the sign of `rpm` is turned, the rest untouched. True in all these
  /// cases. Empty queue: false, outputs 0.
  bool GetSpeed(std::uint8_t& node, double& rpm, int& counts) override;

  /// Reads the statusword (0x6041); true when it is exactly 0x37. At most 100 ms.
  bool CheckStatus(std::uint8_t node) override;

  /// Nothing on the bus. True.
  bool SaveAllParams(std::uint8_t node) override;

  /// 131072.
  std::uint32_t GetNumberOfPulsesPerRevolution() override;

  /// StartNode(2), whatever the arguments. True.
  bool Init(std::uint8_t node, std::uint8_t second, std::uint16_t period_ms) override;

  /// Writes a parameter of an axis: `node` (its low four bits) is the axis, `address` the
  /// parameter, `command` the width (0x2F, 0x2B, 0x23: 1, 2, 4 bytes). The request goes to SDO
  /// channel 0 (0x600), object (node & 0xF) * 0x1000 + address. 0 when confirmed; otherwise 1 and
  /// one line on standard output. At most 100 ms.
  std::uint16_t WriteParam(std::uint8_t node, std::uint16_t address, std::uint8_t command,
                           std::uint32_t value);

  /// Reads one, addressed the same way. 0 when read; otherwise 1 and one line on standard output,
  /// and `value`, which must not be null, is 0 or an abort code. At most 100 ms.
  std::uint16_t ReadParam(std::uint8_t node, std::uint16_t address, std::uint32_t* value);

  /// Writes current (0x2002) and maximum current (0x242A) of an axis, in the drive's units, as
  /// WriteParam does. Number of failed writes, 0 to 2. At most 0.2 s.
  std::uint16_t SetMotorCurrent(std::uint8_t node, std::uint32_t current,
                                std::uint32_t max_current);

  /// Writes the PID gains (0x2300, 0x2301, 0x2302) of an axis, in the drive's units, as WriteParam
  /// does. Number of failed writes, 0 to 3. At most 0.3 s.
  std::uint16_t SetPIDParam(std::uint8_t node, std::uint32_t p, std::uint32_t i, std::uint32_t d);
  /// Reads them, as ReadParam does. Number of failed reads, 0 to 3. At most 0.3 s.
  std::uint16_t GetPIDParam(std::uint8_t node, std::uint32_t* p, std::uint32_t* i,
                            std::uint32_t* d);
};
