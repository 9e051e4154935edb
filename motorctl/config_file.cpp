#include "config_file.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iterator>
#include <system_error>

#include "ini_file.h"
#include "object_search.h"
#include "printable.h"
#include "string_values.h"
#include "words.h"

namespace motorctl {
namespace {

constexpr std::size_t kLongestNumber = 8;
constexpr std::uint16_t kFirstOfAMaker = 0x2000;

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : Printable(text)) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c == '\t' ? ' ' : c;
  }
  return quoted + '"';
}

void AddLine(std::string& out, const std::string& key, const std::string& value) {
  out.append(key).append(": ").append(value) += '\n';
}

void AddText(std::string& out, const std::string& key, const std::string& text) {
  if (!text.empty()) AddLine(out, key, Quoted(text));
}

void AddNumber(std::string& out, const std::string& key,
               const std::optional<std::uint32_t>& number) {
  if (number) AddLine(out, key, Hex(*number, 8));
}

void AddObject(std::string& out, const ConfigObject& object) {
  const auto type = FittingType(object, object.bytes);
  const std::string value = ConfigValueText(object);
  const bool plain = type ? IsNumber(*type) : object.bytes.size() <= kLongestNumber;
  out += "  - {index: " + Hex(object.index, 4) + ", sub: " + std::to_string(object.sub);
  if (type) out.append(", type: ").append(TypeName(*type));
  out += ", size: " + std::to_string(object.bytes.size());
  if (!object.access.empty()) out += ", access: " + object.access;
  if (object.is_volatile) out += ", volatile: true";
  out += ", value: " + (plain && !object.bytes.empty() ? value : Quoted(value));
  if (!object.name.empty()) out += ", name: " + Quoted(object.name);
  out += "}\n";
}

}  // namespace

const ConfigObject* Config::Find(std::uint16_t index, std::uint8_t sub) const {
  return FindObject(objects, index, sub);
}

std::string Place(std::uint16_t index, std::uint8_t sub) {
  return Hex(index, 4) + ":" + Hex(sub, 2).substr(2);
}

std::string Shown(const ConfigObject& object) {
  return Place(object.index, object.sub) + (object.name.empty() ? "" : " (" + object.name + ")");
}

std::optional<DataType> FittingType(const ConfigObject& object, const Bytes& bytes) {
  if (!object.type) return std::nullopt;
  const unsigned size = SizeOf(*object.type);
  const bool in_pairs = *object.type != DataType::kUnicodeString || bytes.size() % 2 == 0;
  return (size == 0 && in_pairs) || size == bytes.size() ? object.type : std::nullopt;
}

std::string ConfigValueText(const ConfigObject& object, const Bytes& bytes) {
  const auto type = FittingType(object, bytes);
  const bool is_identifier = type == DataType::kUnsigned32 && object.index < kFirstOfAMaker;
  if (type && !is_identifier) return ValueText(*type, bytes);
  if (bytes.empty() || bytes.size() > kLongestNumber) return ShowOctets(bytes);
  std::uint64_t number = 0;
  for (std::size_t i = bytes.size(); i > 0; --i) number = number << 8 | bytes[i - 1];
  return Hex(number, static_cast<int>(2 * bytes.size()));
}

std::string ConfigValueText(const ConfigObject& object) {
  return ConfigValueText(object, object.bytes);
}

std::string WriteConfig(const Config& config) {
  std::string out = "format: motorctl config 1\n";
  AddText(out, "tool", config.tool);
  AddText(out, "time", config.time);
  AddLine(out, "node", std::to_string(config.node));
  AddText(out, "eds", config.eds);
  if (config.partial) AddLine(out, "partial", "true");
  out += "identity:\n";
  AddNumber(out, "  vendor", config.identity.vendor);
  AddNumber(out, "  product", config.identity.product);
  AddNumber(out, "  revision", config.identity.revision);
  AddNumber(out, "  serial", config.identity.serial);
  out += "device:\n";
  AddText(out, "  name", config.device);
  AddText(out, "  hardware", config.hardware);
  AddText(out, "  software", config.software);
  out += "objects:\n";
  for (const ConfigObject& object : config.objects) AddObject(out, object);
  return out;
}

Config LoadConfig(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw FileError(file + ": " + std::generic_category().message(errno));
  std::string text(kLongestFile + 1, '\0');
  try {
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
  } catch (const std::ios_base::failure&) {
    stream.setstate(std::ios::badbit);  // a directory
  }
  text.resize(static_cast<std::size_t>(stream.gcount()));
  if (stream.bad()) throw FileError(file + ": cannot be read");
  if (text.size() > kLongestFile) throw FileError(file + kTooLong);
  return ReadConfig(text, file);
}

}  // namespace motorctl
