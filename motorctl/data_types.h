// Values of the data types of CiA 301: their bytes on the bus, and the text of files and people.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace motorctl {

// The codes that EDS files write.
enum class DataType : std::uint16_t {
  kBoolean = 0x01,
  kInteger8 = 0x02,
  kInteger16 = 0x03,
  kInteger32 = 0x04,
  kUnsigned8 = 0x05,
  kUnsigned16 = 0x06,
  kUnsigned32 = 0x07,
  kReal32 = 0x08,
  kVisibleString = 0x09,
  kOctetString = 0x0A,
  kUnicodeString = 0x0B,
  kTimeOfDay = 0x0C,
  kTimeDifference = 0x0D,
  kDomain = 0x0F,
  kInteger24 = 0x10,
  kReal64 = 0x11,
  kInteger40 = 0x12,
  kInteger48 = 0x13,
  kInteger56 = 0x14,
  kInteger64 = 0x15,
  kUnsigned24 = 0x16,
  kUnsigned40 = 0x18,
  kUnsigned48 = 0x19,
  kUnsigned56 = 0x1A,
  kUnsigned64 = 0x1B,
};

// In the order of the wire.
using Bytes = std::vector<std::uint8_t>;

// No value of the type; the text says why.
class ValueError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Empty for a code that is not a type of a value.
std::optional<DataType> FindDataType(std::uint64_t code);

// "UNSIGNED16".
const char* TypeName(DataType type);
// Bytes; 0 where the length is the value's own.
unsigned SizeOf(DataType type);
// BOOLEAN, INTEGERn and UNSIGNEDn.
bool IsInteger(DataType type);
// INTEGERn.
bool IsSigned(DataType type);
// Integers and REALn: what can have limits.
bool IsNumber(DataType type);

// How integers are written: "0x" begins a hexadecimal number, and in files "0" an octal one.
enum class Octal { kNo, kLeadingZero };

// Integers in decimal with a sign, or in hexadecimal as the bits of the type; REALn in decimal or as
// hexadecimal bits; VISIBLE_STRING as it is, with \xNN for a byte that cannot be written;
// UNICODE_STRING in ASCII, with \uNNNN for the rest; all others as hexadecimal bytes. Throws
// ValueError.
Bytes ParseValue(DataType type, std::string_view text, Octal octal = Octal::kNo);

// What ParseValue reads back as the same bytes. Bytes that are not of the type's size are shown as
// hexadecimal bytes.
std::string ValueText(DataType type, const Bytes& bytes);

// A number of any integer type, with its sign; an UNSIGNED64 above the range as its bits.
std::int64_t IntegerOf(DataType type, const Bytes& bytes);

// Below 0, 0 or above 0, as `left` is less than, equal to or greater than `right`; both of a number.
int CompareValues(DataType type, const Bytes& left, const Bytes& right);

}  // namespace motorctl
