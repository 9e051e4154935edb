// Codes and numbers of CiA 301, CiA 402 and of the makes, in words. Nothing here needs a bus.
//
// `make`: nullptr when it is not known; then only what the standards define is named.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "wheels/makes.h"

namespace motorctl {

using motor_driver::Make;

// "0x" and at least `digits` hexadecimal digits.
std::string Hex(std::uint64_t value, int digits);

// SDO abort codes. Find: nullptr when CiA 301 has no such code. Text: "unknown abort code" then.
const char* FindAbortCode(std::uint32_t code);
std::string AbortCodeText(std::uint32_t code);

// Error codes of object 0x603F and of emergency messages. Find: nullptr when the code is not in the
// tables. Text: then the group that the code belongs to, "unknown error code" without one. Is:
// false for those.
const char* FindErrorCode(std::uint16_t code);
std::string ErrorCodeText(std::uint16_t code);
bool IsErrorCode(std::uint16_t code);

// Error register (object 0x1001, byte 2 of an emergency message): the names of the bits set.
std::string ErrorRegisterText(std::uint8_t bits);

// State of the drive that a statusword shows, nullptr when it is not one of the eight of CiA 402.
const char* FindState(std::uint16_t statusword);
// State, then the bits set besides: "Operation enabled; voltage enabled, remote".
std::string StatuswordText(std::uint16_t statusword, const Make* make = nullptr);
// Command, then the bits set besides: "Enable operation; halt".
std::string ControlwordText(std::uint16_t controlword);
std::string ModeText(std::int8_t mode, const Make* make = nullptr);

std::string NmtStateText(std::uint8_t state);
std::string NmtCommandText(std::uint8_t command);

// "Statusword", "RPDO1 communication: COB-ID"; empty for an object that is not known. This and the
// values below are those of the data sheet (data_sheet.h), where it has the object.
std::string ObjectName(std::uint16_t index, std::uint8_t sub, const Make* make = nullptr);

// Text of a node for people: what cannot be shown is written as \xNN, zeros at its end are left out.
std::string Printable(const std::uint8_t* data, std::size_t size);

// Whether the object is known to hold a text.
bool IsText(std::uint16_t index, std::uint8_t sub, const Make* make = nullptr);

// What an object holds.
struct Value {
  std::int64_t number = 0;  // with the sign that the object has
  std::string text;         // the number, and what it means
};

// How numbers of an object are to be read.
enum class Format {
  kUnsigned,
  kHex,
  kSigned,
  kVelocity,
  kMilliseconds,
  kErrorCode,
  kErrorRegister,
  kControlword,
  kStatusword,
  kMode,
  kMappedObject,
  kText,
};

// `raw` has `bytes` bytes, 1 to 4.
Value FormatValue(Format format, std::uint32_t raw, unsigned bytes, const Make* make = nullptr);
Value ObjectValue(std::uint16_t index, std::uint8_t sub, std::uint32_t raw, unsigned bytes,
                  const Make* make = nullptr);

}  // namespace motorctl
