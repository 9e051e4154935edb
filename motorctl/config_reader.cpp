// The file of a configuration, from YAML. Every key is checked, whoever wrote it.
#include <yaml-cpp/depthguard.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <charconv>
#include <map>

#include "config_file.h"
#include "ini_file.h"
#include "printable.h"
#include "string_values.h"
#include "wheels/yaml_documents.h"

namespace motorctl {
namespace {

constexpr const char* kFormat = "motorctl config 1";
constexpr std::size_t kLongestShown = 60;

std::string Short(const std::string& text) {
  const std::string shown = Printable(text);
  return shown.size() <= kLongestShown ? shown : shown.substr(0, kLongestShown) + "...";
}

std::string InQuotes(const std::string& text) { return '"' + Short(text) + '"'; }

class Mapping {
 public:
  // `prefix` is put before every key: "objects[0]."
  Mapping(const std::string& file, const YAML::Node& node, std::string prefix)
      : file_(file), prefix_(std::move(prefix)), line_(node.Mark().line + 1) {
    if (node.IsNull()) return;
    if (!node.IsMap()) {
      FailAt(line_, prefix_.empty() ? "file" : prefix_.substr(0, prefix_.size() - 1),
             "is not a list of keys with values");
    }
    for (const auto& entry : node) {
      const std::string key = entry.first.IsScalar() ? entry.first.Scalar() : "?";
      const int line = entry.first.Mark().line + 1;
      if (!entries_.emplace(key, Entry{line, entry.second}).second) {
        FailAt(line, prefix_ + Short(key), "stands twice");
      }
    }
  }

  int line() const { return line_; }

  const YAML::Node* Take(const char* key) {
    const auto entry = entries_.find(key);
    if (entry == entries_.end()) return nullptr;
    taken_ = entry->second;
    entries_.erase(entry);
    at_ = key;
    return &taken_.value;
  }

  std::optional<std::string> Text(const char* key) {
    const YAML::Node* const value = Take(key);
    if (value == nullptr) return std::nullopt;
    if (!value->IsScalar()) Fail("is not a single value");
    return value->Scalar();
  }

  std::string RequireText(const char* key) {
    auto text = Text(key);
    if (!text) FailAt(line_, prefix_ + key, "missing");
    return *std::move(text);
  }

  // Decimal, or hexadecimal with "0x".
  std::optional<std::uint32_t> Number(const char* key, std::uint32_t highest) {
    const auto text = Text(key);
    if (!text) return std::nullopt;
    const bool hex = text->compare(0, 2, "0x") == 0;
    const char* const end = text->data() + text->size();
    std::uint32_t number = 0;
    const auto [stop, error] =
        std::from_chars(text->data() + (hex ? 2 : 0), end, number, hex ? 16 : 10);
    if (stop != end || error == std::errc::invalid_argument) {
      Fail(InQuotes(*text) + " is not a whole number");
    }
    if (error != std::errc() || number > highest) {
      Fail(Short(*text) + " is above " + std::to_string(highest));
    }
    return number;
  }

  std::uint32_t RequireNumber(const char* key, std::uint32_t highest) {
    const auto number = Number(key, highest);
    if (!number) FailAt(line_, prefix_ + key, "missing");
    return *number;
  }

  bool Flag(const char* key) {
    const auto text = Text(key);
    if (text && *text != "true" && *text != "false") {
      Fail(InQuotes(*text) + " is neither true nor false");
    }
    return text == "true";
  }

  // What is left was not asked for.
  void End(const char* known) const {
    for (const auto& [key, entry] : entries_) {
      FailAt(entry.line, prefix_ + Short(key), std::string("unknown key, there are ") + known);
    }
  }

  // Of the key that was taken last.
  [[noreturn]] void Fail(const std::string& what) const {
    FailAt(taken_.line, prefix_ + at_, what);
  }
  [[noreturn]] void FailAt(int line, const std::string& key, const std::string& what) const {
    throw FileError(file_ + ":" + std::to_string(line) + ": " + key + ": " + what);
  }

 private:
  struct Entry {
    int line = 0;
    YAML::Node value;
  };

  const std::string& file_;
  std::string prefix_;
  int line_;
  std::map<std::string, Entry> entries_;
  Entry taken_;
  std::string at_;
};

std::optional<DataType> TypeNamed(const std::string& name) {
  constexpr std::uint64_t kHighest = 0x1B;
  for (std::uint64_t code = 1; code <= kHighest; ++code) {
    const auto type = FindDataType(code);
    if (type && name == TypeName(*type)) return type;
  }
  return std::nullopt;
}

Bytes ReadValue(const ConfigObject& object, std::size_t size, const std::string& text) {
  constexpr std::size_t kLongestNumber = 8;
  if (object.type) return ParseValue(*object.type, text);
  Bytes bytes = ParseOctets(text);
  // A number is written with its highest byte first.
  if (size <= kLongestNumber && text.compare(0, 2, "0x") == 0) {
    std::reverse(bytes.begin(), bytes.end());
  }
  return bytes;
}

ConfigObject ReadObject(Mapping mapping) {
  ConfigObject object;
  object.line = mapping.line();
  object.index = static_cast<std::uint16_t>(mapping.RequireNumber("index", 0xFFFF));
  if (object.index < kFirstConfigIndex) mapping.Fail("is below 0x1000");
  object.sub = static_cast<std::uint8_t>(mapping.RequireNumber("sub", 0xFF));
  if (const auto type = mapping.Text("type")) {
    object.type = TypeNamed(*type);
    if (!object.type) mapping.Fail(InQuotes(*type) + " is not a type of CiA 301");
  }
  object.access = mapping.Text("access").value_or("");
  if (!object.access.empty()) {
    bool known = false;
    for (const char* access : {"ro", "wo", "rw", "rwr", "rww", "const"}) {
      known = known || object.access == access;
    }
    if (!known) {
      mapping.Fail(InQuotes(object.access) + " is not one of ro, wo, rw, rwr, rww, const");
    }
  }
  object.is_volatile = mapping.Flag("volatile");
  object.name = Printable(mapping.Text("name").value_or(""));
  const std::uint32_t size = mapping.RequireNumber("size", 1U << 20);
  const std::string value = mapping.RequireText("value");
  try {
    object.bytes = ReadValue(object, size, value);
  } catch (const ValueError& error) {
    mapping.Fail(Short(error.what()));
  }
  if (object.bytes.size() != size) {
    mapping.Fail("has " + std::to_string(object.bytes.size()) + " bytes, but size is " +
                 std::to_string(size));
  }
  mapping.End("index, sub, type, size, access, volatile, value and name");
  return object;
}

void ReadObjects(Mapping& mapping, const std::string& file, Config& config) {
  const YAML::Node* const taken = mapping.Take("objects");
  if (taken == nullptr) mapping.FailAt(mapping.line(), "objects", "missing");
  const YAML::Node list = *taken;
  if (!list.IsSequence() || list.size() == 0) mapping.Fail("is not a list of objects");
  std::size_t number = 0;
  for (const YAML::Node& node : list) {
    const std::string prefix = "objects[" + std::to_string(number++) + "]";
    const ConfigObject object = ReadObject(Mapping(file, node, prefix + "."));
    if (!config.objects.empty()) {
      const ConfigObject& last = config.objects.back();
      const auto place = std::make_pair(object.index, object.sub);
      const auto last_place = std::make_pair(last.index, last.sub);
      const std::string where = Place(object.index, object.sub);
      if (place == last_place) mapping.FailAt(object.line, prefix, where + " stands twice");
      if (place < last_place) {
        mapping.FailAt(object.line, prefix,
                       where + " stands after " + Place(last.index, last.sub) +
                           ": objects are in the order of their indices");
      }
    }
    config.objects.push_back(object);
  }
}

Config ReadRoot(const YAML::Node& root, const std::string& file) {
  Mapping mapping(file, root, "");
  const auto format = mapping.Text("format");
  if (!format) mapping.FailAt(mapping.line(), "format", "missing: no file of motorctl config save");
  if (*format != kFormat) {
    mapping.Fail(InQuotes(*format) + " is not \"" + kFormat + '"');
  }
  Config config;
  config.source = file;
  config.tool = Printable(mapping.Text("tool").value_or(""));
  config.time = Printable(mapping.Text("time").value_or(""));
  config.node = static_cast<int>(mapping.RequireNumber("node", 127));
  if (config.node == 0) mapping.Fail("is not a node-ID");
  config.eds = Printable(mapping.Text("eds").value_or(""));
  config.partial = mapping.Flag("partial");
  constexpr std::uint32_t kHighest = 0xFFFFFFFF;
  if (const YAML::Node* const node = mapping.Take("identity")) {
    Mapping identity(file, *node, "identity.");
    config.identity.vendor = identity.Number("vendor", kHighest);
    config.identity.product = identity.Number("product", kHighest);
    config.identity.revision = identity.Number("revision", kHighest);
    config.identity.serial = identity.Number("serial", kHighest);
    identity.End("vendor, product, revision and serial");
  }
  if (const YAML::Node* const node = mapping.Take("device")) {
    Mapping device(file, *node, "device.");
    config.device = Printable(device.Text("name").value_or(""));
    config.hardware = Printable(device.Text("hardware").value_or(""));
    config.software = Printable(device.Text("software").value_or(""));
    device.End("name, hardware and software");
  }
  ReadObjects(mapping, file, config);
  mapping.End("format, tool, time, node, eds, partial, identity, device and objects");
  return config;
}

}  // namespace

Config ReadConfig(const std::string& text, const std::string& name) {
  const auto fail = [&name](const YAML::Mark& mark, const std::string& what) {
    const std::string line = mark.is_null() ? "" : ":" + std::to_string(mark.line + 1);
    throw FileError(name + line + ": " + what);
  };
  try {
    if (motor_driver::HoldsSeveralDocuments(text))
      throw FileError(name + ": holds several documents, not one");
    const YAML::Node root = YAML::Load(text);
    if (root.IsNull()) throw FileError(name + ": is empty");
    return ReadRoot(root, name);
  } catch (const YAML::DeepRecursion& error) {
    fail(error.mark, "is nested too deep");
  } catch (const YAML::Exception& error) {
    fail(error.mark, "is not YAML: " + Short(error.msg));
  }
  return {};
}

}  // namespace motorctl
