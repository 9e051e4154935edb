#include "dcf.h"

#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "ini_file.h"
#include "words.h"

namespace motorctl {
namespace {

// Of a line of ini_file.h.
constexpr std::size_t kLongestValue = 480;

using Where = std::pair<unsigned long, unsigned long>;

std::string Trimmed(const std::string& line) {
  const std::size_t begin = line.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1);
}

// "[1018sub1]": the name in lower case; empty for another line.
std::string SectionOf(const std::string& line) {
  const std::string text = Trimmed(line);
  const std::size_t end = text.find(']');
  if (text.empty() || text[0] != '[' || end == std::string::npos) return "";
  return LowerCase(Trimmed(text.substr(1, end - 1)));
}

std::string KeyOf(const std::string& line) {
  return LowerCase(Trimmed(line.substr(0, line.find('='))));
}

bool IsHex(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::string SectionName(const ConfigObject& object, bool of_sub) {
  char name[24];
  std::snprintf(name, sizeof name, of_sub ? "%04xsub%x" : "%04x", unsigned{object.index},
                unsigned{object.sub});
  return name;
}

class DcfWriter {
 public:
  DcfWriter(const Eds& eds, const Config& config) : eds_(eds), config_(config) {
    for (const ConfigObject& object : config.objects) {
      // A number of an index without sub-indices stands in the section of the index.
      if (object.sub == 0) sections_[SectionName(object, false)] = &object;
      sections_[SectionName(object, true)] = &object;
    }
  }

  std::string Write(std::istream& eds) {
    std::string out;
    bool dropped = false;
    bool marked = false;
    for (std::string line; std::getline(eds, line);) {
      const std::string section = SectionOf(line);
      if (!section.empty()) dropped = IsReplaced(section);
      const std::string key = KeyOf(line);
      if (dropped || key == "parametervalue" || key == "lasteds") continue;
      if (marked && section.empty() && key == "objflags") continue;
      out += Trimmed(line) + '\n';
      if (section == "fileinfo")
        out += "LastEDS=" + eds_.file.substr(eds_.file.rfind('/') + 1) + '\n';
      const auto found = sections_.find(section);
      if (!section.empty()) marked = found != sections_.end() && found->second->is_volatile;
      if (marked && !section.empty()) AddMark(out, *found->second);
      if (found != sections_.end()) AddValue(out, *found->second);
    }
    AddCompact(out);
    out += "\n[DeviceComissioning]\nNodeID=" + std::to_string(config_.node) + '\n';
    if (config_.identity.serial) {
      out += "LSS_SerialNumber=" + Hex(*config_.identity.serial, 8) + '\n';
    }
    return out;
  }

 private:
  // [1018Value], and the section of the node, in either spelling.
  static bool IsReplaced(const std::string& section) {
    return section == "devicecomissioning" || section == "devicecommissioning" ||
           (section.size() == 9 && section.substr(4) == "value" && IsHex(section.substr(0, 4)));
  }

  static std::string Value(const ConfigObject& object) {
    const auto fail = [&object](const std::string& text) {
      throw FileError(Place(object.index, object.sub) + ": " + text);
    };
    const unsigned size = SizeOf(*object.type);
    if (size != 0 && object.bytes.size() != size) {
      fail("has " + std::to_string(object.bytes.size()) + " bytes in the drive, but the EDS says " +
           TypeName(*object.type));
    }
    std::string value = ConfigValueText(object);
    if (value.size() > kLongestValue) fail("is too long for a DCF");
    return value;
  }

  void AddMark(std::string& out, const ConfigObject& object) const {
    const EdsObject* const of_eds = eds_.Find(object.index, object.sub);
    const std::uint32_t flags = of_eds == nullptr ? 0 : of_eds->flags;
    out += "ObjFlags=" + Hex(flags | kRefusesDownload, 1) + '\n';
  }

  void AddValue(std::string& out, const ConfigObject& object) {
    written_.insert({object.index, object.sub});
    const std::string value = Value(object);
    if (!value.empty()) out += "ParameterValue=" + value + '\n';
  }

  // What has no section of its own is in a compact one.
  void AddCompact(std::string& out) const {
    std::map<std::uint16_t, std::vector<const ConfigObject*>> compact;
    for (const ConfigObject& object : config_.objects) {
      const bool written = written_.count({object.index, object.sub}) != 0;
      if (object.sub == 0 || written || object.is_volatile) continue;
      if (!Value(object).empty()) compact[object.index].push_back(&object);
    }
    for (const auto& [index, objects] : compact) {
      out += "\n[" + Hex(index, 4).substr(2) +
             "Value]\nNrOfEntries=" + std::to_string(objects.size()) + '\n';
      for (const ConfigObject* object : objects) {
        out += std::to_string(object->sub) + '=' + Value(*object) + '\n';
      }
    }
  }

  const Eds& eds_;
  const Config& config_;
  std::map<std::string, const ConfigObject*> sections_;
  std::set<Where> written_;
};

bool IsIni(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  char first = 0;
  try {
    while (stream.get(first) && (first == ' ' || first == '\n' || first == '\r' || first == '\t')) {
    }
  } catch (const std::ios_base::failure&) {
    return false;  // a directory
  }
  return first == '[' || first == ';';
}

Config ConfigOf(const Eds& dcf) {
  Config config;
  config.source = dcf.file;
  config.eds = dcf.file;
  config.identity.vendor = dcf.vendor_number;
  config.identity.product = dcf.product_number;
  config.identity.revision = dcf.revision_number;
  config.node = dcf.node_id.value_or(0);
  for (const EdsObject& of_dcf : dcf.objects) {
    if (!of_dcf.parameter_value) continue;
    if (of_dcf.parameter_value->adds_node_id && config.node == 0) {
      throw FileError(dcf.file + ": has $NODEID, but no NodeID in [DeviceComissioning]");
    }
    ConfigObject object;
    object.index = of_dcf.index;
    object.sub = of_dcf.sub;
    object.type = of_dcf.type;
    object.access = of_dcf.access;
    object.name = of_dcf.name;
    object.is_volatile = (of_dcf.flags & kRefusesDownload) != 0;
    object.bytes = of_dcf.parameter_value->Of(config.node);
    config.objects.push_back(object);
  }
  if (config.objects.empty()) {
    throw FileError(dcf.file + ": has no ParameterValue: an EDS, and no DCF");
  }
  return config;
}

}  // namespace

std::string WriteDcf(const Eds& eds, const Config& config) {
  std::ifstream text(eds.file, std::ios::binary);
  if (!text) throw FileError(eds.file + ": cannot be read");
  return DcfWriter(eds, config).Write(text);
}

Config LoadConfigOrDcf(const std::string& file) {
  return IsIni(file) ? ConfigOf(LoadEds(file)) : LoadConfig(file);
}

}  // namespace motorctl
