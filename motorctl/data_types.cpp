#include "data_types.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

#include "string_values.h"
#include "words.h"

namespace motorctl {
namespace {

enum class Kind { kUnsigned, kSigned, kReal, kText, kUnicode, kOctets };

struct TypeRow {
  DataType type;
  const char* name;
  unsigned size;
  Kind kind;
};

// clang-format off
constexpr TypeRow kTypes[] = {
    {DataType::kBoolean,        "BOOLEAN",         1, Kind::kUnsigned},
    {DataType::kInteger8,       "INTEGER8",        1, Kind::kSigned},
    {DataType::kInteger16,      "INTEGER16",       2, Kind::kSigned},
    {DataType::kInteger24,      "INTEGER24",       3, Kind::kSigned},
    {DataType::kInteger32,      "INTEGER32",       4, Kind::kSigned},
    {DataType::kInteger40,      "INTEGER40",       5, Kind::kSigned},
    {DataType::kInteger48,      "INTEGER48",       6, Kind::kSigned},
    {DataType::kInteger56,      "INTEGER56",       7, Kind::kSigned},
    {DataType::kInteger64,      "INTEGER64",       8, Kind::kSigned},
    {DataType::kUnsigned8,      "UNSIGNED8",       1, Kind::kUnsigned},
    {DataType::kUnsigned16,     "UNSIGNED16",      2, Kind::kUnsigned},
    {DataType::kUnsigned24,     "UNSIGNED24",      3, Kind::kUnsigned},
    {DataType::kUnsigned32,     "UNSIGNED32",      4, Kind::kUnsigned},
    {DataType::kUnsigned40,     "UNSIGNED40",      5, Kind::kUnsigned},
    {DataType::kUnsigned48,     "UNSIGNED48",      6, Kind::kUnsigned},
    {DataType::kUnsigned56,     "UNSIGNED56",      7, Kind::kUnsigned},
    {DataType::kUnsigned64,     "UNSIGNED64",      8, Kind::kUnsigned},
    {DataType::kReal32,         "REAL32",          4, Kind::kReal},
    {DataType::kReal64,         "REAL64",          8, Kind::kReal},
    {DataType::kVisibleString,  "VISIBLE_STRING",  0, Kind::kText},
    {DataType::kUnicodeString,  "UNICODE_STRING",  0, Kind::kUnicode},
    {DataType::kOctetString,    "OCTET_STRING",    0, Kind::kOctets},
    {DataType::kTimeOfDay,      "TIME_OF_DAY",     6, Kind::kOctets},
    {DataType::kTimeDifference, "TIME_DIFFERENCE", 6, Kind::kOctets},
    {DataType::kDomain,         "DOMAIN",          0, Kind::kOctets},
};
// clang-format on

const TypeRow& RowOf(DataType type) {
  return *std::find_if(std::begin(kTypes), std::end(kTypes),
                       [type](const TypeRow& row) { return row.type == type; });
}

std::string Quoted(std::string_view text) { return '"' + std::string(text) + '"'; }

bool BeginsHex(std::string_view text) {
  return text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

// All of the text, or nothing.
template <typename Number, typename... Base>
bool ParseAll(std::string_view text, Number& number, std::errc& error, Base... base) {
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), number, base...);
  error = code;
  return end == text.data() + text.size() && code != std::errc::invalid_argument;
}

Bytes BytesOf(std::uint64_t bits, unsigned size) {
  Bytes bytes(size);
  for (unsigned i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(bits >> (8 * i));
  return bytes;
}

std::uint64_t BitsOf(const Bytes& bytes) {
  std::uint64_t bits = 0;
  for (std::size_t i = std::min<std::size_t>(bytes.size(), 8); i > 0; --i) {
    bits = bits << 8 | bytes[i - 1];
  }
  return bits;
}

// --- Numbers -------------------------------------------------------------------------------------

std::uint64_t Greatest(const TypeRow& row) {
  if (row.type == DataType::kBoolean) return 1;
  return ~std::uint64_t{0} >> (64 - 8 * row.size);
}

std::uint64_t ParseInteger(const TypeRow& row, std::string_view text, Octal octal) {
  std::string_view digits = text;
  const bool negative = !digits.empty() && digits[0] == '-';
  if (negative || (!digits.empty() && digits[0] == '+')) digits.remove_prefix(1);
  const bool hex = BeginsHex(digits);
  const bool eight = octal == Octal::kLeadingZero && !hex && digits.size() > 1 && digits[0] == '0';
  std::uint64_t magnitude = 0;
  std::errc error{};
  if (digits.empty() || digits[0] == '-' ||
      !ParseAll(hex ? digits.substr(2) : digits, magnitude, error,
                hex     ? 16
                : eight ? 8
                        : 10)) {
    throw ValueError(Quoted(text) + " is not a number");
  }
  // Hexadecimal digits without a sign are the bits of the type, whether it is signed or not.
  const std::uint64_t greatest = Greatest(row);
  const bool is_signed = row.kind == Kind::kSigned;
  std::uint64_t most = greatest;
  if (is_signed && (!hex || negative || digits.size() != text.size())) {
    most = greatest / 2 + (negative ? 1 : 0);
  } else if (negative) {
    most = 0;
  }
  if (error == std::errc::result_out_of_range || magnitude > most) {
    const std::string lowest = is_signed ? "-" + std::to_string(greatest / 2 + 1) : "0";
    const std::string highest = std::to_string(is_signed ? greatest / 2 : greatest);
    throw ValueError(std::string(text) + " is not between " + lowest + " and " + highest);
  }
  return negative ? std::uint64_t{0} - magnitude : magnitude;
}

template <typename Real, typename Bits>
Bits RealBits(Real real) {
  Bits bits = 0;
  std::memcpy(&bits, &real, sizeof bits);
  return bits;
}

template <typename Real, typename Bits>
Real RealOf(Bits bits) {
  Real real = 0;
  std::memcpy(&real, &bits, sizeof real);
  return real;
}

template <typename Real, typename Bits>
std::uint64_t ParseReal(std::string_view text) {
  std::errc error{};
  if (BeginsHex(text)) {
    Bits bits = 0;
    if (!ParseAll(text.substr(2), bits, error, 16)) {
      throw ValueError(Quoted(text) + " is not a number");
    }
    if (error == std::errc::result_out_of_range) {
      throw ValueError(std::string(text) + " has more than " + std::to_string(8 * sizeof bits) +
                       " bits");
    }
    return bits;
  }
  const std::string_view digits = text.substr(!text.empty() && text[0] == '+' ? 1 : 0);
  Real real = 0;
  if (!ParseAll(digits, real, error) || std::isnan(real)) {
    throw ValueError(Quoted(text) + " is not a number");
  }
  if (error == std::errc::result_out_of_range) {
    throw ValueError(std::string(text) + " is out of the range of the type");
  }
  return RealBits<Real, Bits>(real);
}

// The shortest digits that are this number and no other; bits, where it is none.
template <typename Real, typename Bits>
std::string RealText(std::uint64_t raw) {
  const Real real = RealOf<Real>(static_cast<Bits>(raw));
  if (std::isnan(real)) return Hex(raw, 2 * sizeof(Bits));
  char text[64];
  const auto [end, error] = std::to_chars(std::begin(text), std::end(text), real);
  return {text, end};
}

}  // namespace

std::optional<DataType> FindDataType(std::uint64_t code) {
  for (const TypeRow& row : kTypes) {
    if (static_cast<std::uint64_t>(row.type) == code) return row.type;
  }
  return std::nullopt;
}

const char* TypeName(DataType type) { return RowOf(type).name; }

unsigned SizeOf(DataType type) { return RowOf(type).size; }

bool IsInteger(DataType type) { return RowOf(type).kind == Kind::kUnsigned || IsSigned(type); }

bool IsSigned(DataType type) { return RowOf(type).kind == Kind::kSigned; }

bool IsNumber(DataType type) { return IsInteger(type) || RowOf(type).kind == Kind::kReal; }

Bytes ParseValue(DataType type, std::string_view text, Octal octal) {
  const TypeRow& row = RowOf(type);
  switch (row.kind) {
    case Kind::kUnsigned:
    case Kind::kSigned:
      return BytesOf(ParseInteger(row, text, octal), row.size);
    case Kind::kReal:
      return BytesOf(row.size == 4 ? ParseReal<float, std::uint32_t>(text)
                                   : ParseReal<double, std::uint64_t>(text),
                     row.size);
    case Kind::kText:
      return ParseText(text, kByteUnits);
    case Kind::kUnicode:
      return ParseText(text, kUnicodeUnits);
    case Kind::kOctets:
      break;
  }
  Bytes bytes = ParseOctets(text);
  if (row.size != 0 && bytes.size() != row.size) {
    throw ValueError(std::string(row.name) + " has " + std::to_string(row.size) + " bytes, not " +
                     std::to_string(bytes.size()));
  }
  return bytes;
}

std::string ValueText(DataType type, const Bytes& bytes) {
  const TypeRow& row = RowOf(type);
  const bool of_size = row.size == 0 ? row.kind != Kind::kUnicode || bytes.size() % 2 == 0
                                     : bytes.size() == row.size;
  if (!of_size) return ShowOctets(bytes);
  switch (row.kind) {
    case Kind::kUnsigned:
      return std::to_string(BitsOf(bytes));
    case Kind::kSigned:
      return std::to_string(IntegerOf(type, bytes));
    case Kind::kReal:
      return row.size == 4 ? RealText<float, std::uint32_t>(BitsOf(bytes))
                           : RealText<double, std::uint64_t>(BitsOf(bytes));
    case Kind::kText:
      return ShowText(bytes, kByteUnits);
    case Kind::kUnicode:
      return ShowText(bytes, kUnicodeUnits);
    case Kind::kOctets:
      break;
  }
  return ShowOctets(bytes);
}

std::int64_t IntegerOf(DataType type, const Bytes& bytes) {
  const std::uint64_t bits = BitsOf(bytes);
  if (RowOf(type).kind != Kind::kSigned || bytes.empty() || bytes.size() > 8) {
    return static_cast<std::int64_t>(bits);
  }
  const std::uint64_t sign = std::uint64_t{1} << (8 * bytes.size() - 1);
  return static_cast<std::int64_t>((bits ^ sign) - sign);
}

int CompareValues(DataType type, const Bytes& left, const Bytes& right) {
  const auto compare = [](auto a, auto b) { return a < b ? -1 : a > b ? 1 : 0; };
  switch (RowOf(type).kind) {
    case Kind::kSigned:
      return compare(IntegerOf(type, left), IntegerOf(type, right));
    case Kind::kReal:
      if (RowOf(type).size == 8) {
        return compare(RealOf<double>(BitsOf(left)), RealOf<double>(BitsOf(right)));
      }
      return compare(RealOf<float>(static_cast<std::uint32_t>(BitsOf(left))),
                     RealOf<float>(static_cast<std::uint32_t>(BitsOf(right))));
    default:
      return compare(BitsOf(left), BitsOf(right));
  }
}

}  // namespace motorctl
