#include "sdo_value.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <map>

#include "context.h"
#include "decode.h"
#include "words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kLongestNumber = 4;

struct Type {
  unsigned size;  // bytes; 0: as many as there are
  bool is_signed;
};

const std::map<std::string, Type>& Types() {
  static const std::map<std::string, Type> types = {
      {"u8", {1, false}},  {"i8", {1, true}},  {"u16", {2, false}}, {"i16", {2, true}},
      {"u32", {4, false}}, {"i32", {4, true}}, {"hex", {0, false}}, {"str", {0, false}},
  };
  return types;
}

Bytes LittleEndianBytes(unsigned long long number, std::size_t size) {
  Bytes bytes;
  for (std::size_t i = 0; i < size; ++i) {
    bytes.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
  }
  return bytes;
}

Bytes ParseHex(const std::string& text) {
  std::string digits;
  for (const char letter : text) {
    if (letter != ' ') digits += letter;
  }
  const bool in_bytes = digits.size() != text.size();
  if (digits.compare(0, 2, "0x") == 0 || digits.compare(0, 2, "0X") == 0) digits.erase(0, 2);
  if (digits.empty() || digits.size() % 2 != 0) {
    throw CLI::ValidationError("VALUE", "hex takes two digits for each byte: they tell the size");
  }
  const std::size_t size = digits.size() / 2;
  if (!in_bytes && size <= kLongestNumber) {
    return LittleEndianBytes(
        static_cast<unsigned long long>(ParseNumber("0x" + digits, "VALUE", 0, 0xFFFFFFFFLL)),
        size);
  }
  Bytes bytes;
  for (std::size_t i = 0; i < size; ++i) {
    bytes.push_back(
        static_cast<std::uint8_t>(ParseNumber("0x" + digits.substr(2 * i, 2), "VALUE", 0, 0xFF)));
  }
  return bytes;
}

long long SignedNumber(std::uint32_t value, const Type& type) {
  const unsigned bits = 8 * type.size;
  const std::uint32_t cut = value & (0xFFFFFFFFU >> (32 - bits));
  const bool negative = type.is_signed && (cut >> (bits - 1)) != 0;
  return negative ? static_cast<long long>(cut) - (1LL << bits) : static_cast<long long>(cut);
}

}  // namespace

bool IsValueType(const std::string& name) { return Types().count(name) != 0; }

unsigned SizeOfType(const std::string& type) { return Types().at(type).size; }

long long ParseNumber(const std::string& text, const char* what, long long lowest,
                      long long highest) {
  const std::size_t digits = text.find_first_not_of("+-");
  const bool hexadecimal = digits != std::string::npos && (text.compare(digits, 2, "0x") == 0 ||
                                                           text.compare(digits, 2, "0X") == 0);
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(text.c_str(), &end, hexadecimal ? 16 : 10);
  if (text.empty() || *end != '\0' || digits > 1 || std::isspace(text[0]) != 0) {
    throw CLI::ValidationError(what, "\"" + text + "\" is not a number");
  }
  if (errno == ERANGE || number < lowest || number > highest) {
    throw CLI::ValidationError(what, text + " is not between " + std::to_string(lowest) + " and " +
                                         std::to_string(highest));
  }
  return number;
}

Bytes EncodeValue(const std::string& type, const std::string& text) {
  if (type == "str") return {text.begin(), text.end()};
  if (type == "hex") return ParseHex(text);
  const Type& number = Types().at(type);
  const unsigned bits = 8 * number.size;
  const long long lowest = number.is_signed ? -(1LL << (bits - 1)) : 0;
  const long long highest = number.is_signed ? (1LL << (bits - 1)) - 1 : (1LL << bits) - 1;
  return LittleEndianBytes(
      static_cast<unsigned long long>(ParseNumber(text, "VALUE", lowest, highest)), number.size);
}

DecodedValue DecodeValue(const std::string& type, const Bytes& bytes) {
  if (type == "str") {
    const std::string text = Printable(bytes.data(), bytes.size());
    return {text, text};
  }
  const bool is_number = !bytes.empty() && bytes.size() <= kLongestNumber;
  const unsigned size = SizeOfType(type);
  if (!is_number && size != 0) {
    throw CommandFailed("the node answers with " + std::to_string(bytes.size()) + " bytes, " +
                        type + " has " + std::to_string(size) + ": read it as hex or str");
  }
  if (!is_number) {
    const std::string text = BytesText(bytes.data(), static_cast<unsigned>(bytes.size()));
    return {text, text};
  }
  const std::uint32_t raw = LittleEndian(bytes.data(), static_cast<unsigned>(bytes.size()));
  if (size == 0) return {raw, Hex(raw, static_cast<int>(2 * bytes.size()))};
  const long long number = SignedNumber(raw, Types().at(type));
  return {number, std::to_string(number)};
}

}  // namespace motorctl
