// Values of objects as they are typed and printed by motorctl sdo.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "sdo_client.h"

namespace motorctl {

// u8 i8 u16 i16 u32 i32 hex str
bool IsValueType(const std::string& name);
constexpr const char* kValueTypes = "u8 i8 u16 i16 u32 i32 hex str";

// Decimal, or hexadecimal with 0x. `what` names the argument. Throws CLI::ValidationError.
long long ParseNumber(const std::string& text, const char* what, long long lowest,
                      long long highest);

// hex: the digits tell the size, as they do in a drive's manual: 0x0F is one byte, 0x000F two. Up to
// eight digits are a number; more, or digits with blanks between the bytes, are bytes in the order
// of the wire. Throws CLI::ValidationError.
Bytes EncodeValue(const std::string& type, const std::string& text);

// What was read; hex of more than four bytes as EncodeValue takes it. Throws CommandFailed where it
// does not fit into a number.
// NOLINTNEXTLINE(bugprone-exception-escape): moving a JSON value does not throw
struct DecodedValue {
  nlohmann::ordered_json json;
  std::string text;
};
DecodedValue DecodeValue(const std::string& type, const Bytes& bytes);

// Bytes of a number of this type; 0: as many as there are.
unsigned SizeOfType(const std::string& type);

}  // namespace motorctl
