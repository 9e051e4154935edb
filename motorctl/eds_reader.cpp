// From the sections of a file to the objects of a device.
#include <algorithm>
#include <map>
#include <utility>

#include "candump/log_words.h"
#include "eds_section.h"
#include "words.h"

namespace motorctl {
namespace {

// Below it stand data types, which describe no object of a device.
constexpr std::uint32_t kFirstObject = 0x1000;
constexpr int kWholeObject = -1;
constexpr unsigned kHighestCompactSub = 0xFE;

using Place = std::pair<std::uint32_t, int>;  // index, sub-index or kWholeObject

std::optional<std::uint32_t> ParseHex(const std::string& digits) {
  std::uint32_t value = 0;
  if (!candump::ParseNumber(digits, 16, value)) return std::nullopt;
  return value;
}

// "1018" and "1018sub4", in lower case. Nothing for other sections, "1003name" among them.
std::optional<Place> FindPlace(const std::string& section) {
  constexpr std::size_t kDigits = 4;
  const auto index = ParseHex(section.substr(0, kDigits));
  if (!index || section.size() < kDigits) return std::nullopt;
  if (section.size() == kDigits) return Place{*index, kWholeObject};
  const std::string mark = "sub";
  if (section.compare(kDigits, mark.size(), mark) != 0) return std::nullopt;
  const std::string digits = section.substr(kDigits + mark.size());
  const auto sub = ParseHex(digits);
  if (!sub || digits.size() > 2) return std::nullopt;
  return Place{*index, static_cast<int>(*sub)};
}

class EdsReader {
 public:
  explicit EdsReader(const IniFile& ini) : ini_(ini) {}

  Eds Read() {
    eds_.file = ini_.name;
    RequireSection("FileInfo");
    ReadDevice();
    SortSections();
    ReadList("MandatoryObjects", true);
    ReadList("OptionalObjects", false);
    ReadList("ManufacturerObjects", false);
    int left_out = 0;
    for (const auto& [place, section] : places_) {
      if (place.second == kWholeObject && listed_.count(place.first) != 0) {
        ReadObject(place.first, EdsSection(ini_, *section));
      } else if (listed_.count(place.first) == 0 && ++left_out == 1) {
        eds_.note = ini_.name + ":" + std::to_string(section->line) + ": [" + section->name +
                    "] is in no list of objects";
      }
    }
    if (left_out == 1) eds_.note += ", and is left out";
    if (left_out > 1) {
      eds_.note +=
          ", nor are " + std::to_string(left_out - 1) + " other sections; they are left out";
    }
    return std::move(eds_);
  }

 private:
  EdsSection RequireSection(const std::string& name) const {
    const IniSection* const section = ini_.Find(name);
    if (section == nullptr) throw FileError(ini_.name + ": no section [" + name + "]");
    return {ini_, *section};
  }

  void ReadDevice() {
    const EdsSection device = RequireSection("DeviceInfo");
    eds_.vendor_name = device.Text("VendorName");
    eds_.vendor_number = device.Number("VendorNumber", DataType::kUnsigned32);
    eds_.product_name = device.Text("ProductName");
    eds_.product_number = device.Number("ProductNumber", DataType::kUnsigned32);
    eds_.revision_number = device.Number("RevisionNumber", DataType::kUnsigned32);
    // Its name is misspelt in CiA 306.
    const IniSection* const commissioning = ini_.Find("DeviceComissioning");
    if (commissioning == nullptr) return;
    const EdsSection section(ini_, *commissioning);
    const std::uint32_t node_id = section.RequireNumber("NodeID", DataType::kUnsigned8);
    if (node_id < 1 || node_id > 127) {
      section.Fail(*section.Find("NodeID"), std::to_string(node_id) + " is not in 1 to 127");
    }
    eds_.node_id = static_cast<int>(node_id);
  }

  void SortSections() {
    for (const auto& [name, section] : ini_.sections) {
      const auto place = FindPlace(name);
      if (!place || place->first < kFirstObject) continue;
      const auto [at, is_new] = places_.try_emplace(*place, &section);
      if (is_new) continue;
      const auto& [first, second] = std::minmax(at->second->line, section.line);
      const IniSection& later = section.line == second ? section : *at->second;
      EdsSection(ini_, later).Fail("stands in line " + std::to_string(first) + ", too");
    }
  }

  void ReadList(const std::string& name, bool required) {
    if (!required && ini_.Find(name) == nullptr) return;
    const EdsSection list = RequireSection(name);
    const std::uint32_t count = list.RequireNumber("SupportedObjects", DataType::kUnsigned16);
    for (const IniKey* const entry : list.Entries("SupportedObjects", count)) {
      const std::uint32_t index = list.RequireNumber(entry->name, DataType::kUnsigned16);
      const std::string shown = Hex(index, 4);
      if (index < kFirstObject) continue;
      if (places_.count({index, kWholeObject}) == 0) {
        list.Fail(*entry, "no section [" + shown.substr(2) + "]");
      }
      const auto [at, is_new] = listed_.try_emplace(index, entry->line);
      if (!is_new) {
        list.Fail(*entry, shown + " is listed in line " + std::to_string(at->second) + ", too");
      }
    }
  }

  static ObjectKind KindOf(const EdsSection& section) {
    const auto type = section.Number("ObjectType", DataType::kUnsigned8);
    if (!type) return ObjectKind::kVariable;
    for (const ObjectKind kind :
         {ObjectKind::kDomain, ObjectKind::kVariable, ObjectKind::kArray, ObjectKind::kRecord}) {
      if (*type == static_cast<std::uint32_t>(kind)) return kind;
    }
    section.Fail(*section.Find("ObjectType"), section.Text("ObjectType") +
                                                  " is not one of 2 (DOMAIN), 7 (VAR), 8 (ARRAY), "
                                                  "9 (RECORD)");
  }

  void ReadObject(std::uint32_t index, const EdsSection& section) {
    EdsObject object;
    object.index = static_cast<std::uint16_t>(index);
    object.kind = KindOf(section);
    object.name = section.Require("ParameterName").value;
    const std::uint32_t compact = section.Number("CompactSubObj", DataType::kUnsigned8).value_or(0);
    const bool has_subs = object.kind == ObjectKind::kArray || object.kind == ObjectKind::kRecord;
    if (compact != 0 && !has_subs) {
      section.Fail(*section.Find("CompactSubObj"), "only for ObjectType 8 (ARRAY) and 9 (RECORD)");
    }
    ReadSubIndices(object, section, compact);
    if (compact != 0) {
      ReadCompact(object, section, compact);
    } else if (!has_subs) {
      ReadEntry(object, section);
    }
  }

  void ReadSubIndices(const EdsObject& object, const EdsSection& section, std::uint32_t compact) {
    const bool counts =
        compact == 0 && (object.kind == ObjectKind::kArray || object.kind == ObjectKind::kRecord);
    const std::uint32_t expected =
        counts ? section.RequireNumber("SubNumber", DataType::kUnsigned8) : 0;
    std::uint32_t found = 0;
    for (auto at = places_.upper_bound({object.index, kWholeObject});
         at != places_.end() && at->first.first == object.index; ++at, ++found) {
      const EdsSection sub_section(ini_, *at->second);
      if (!counts) {
        sub_section.Fail(compact != 0 ? "has its place in CompactSubObj of its index"
                                      : "is of an index without sub-indices");
      }
      EdsObject sub = object;
      sub.sub = static_cast<std::uint8_t>(at->first.second);
      sub.name += ": " + sub_section.Require("ParameterName").value;
      ReadEntry(sub, sub_section);
    }
    if (found != expected) {
      section.Fail(*section.Find("SubNumber"), std::to_string(expected) + ", but there are " +
                                                   std::to_string(found) + " sections of it");
    }
  }

  // Type, access and values of `object`, which is complete then.
  void ReadEntry(EdsObject& object, const EdsSection& section) {
    ReadTypeAndAccess(object, section);
    object.default_value = section.Value("DefaultValue", object.type);
    object.parameter_value = section.Value("ParameterValue", object.type);
    eds_.objects.push_back(object);
  }

  static void ReadTypeAndAccess(EdsObject& object, const EdsSection& section) {
    const bool is_domain = KindOf(section) == ObjectKind::kDomain;
    if (is_domain && section.Find("DataType") == nullptr) {
      object.type = DataType::kDomain;
    } else {
      const std::uint32_t code = section.RequireNumber("DataType", DataType::kUnsigned16);
      const auto type = FindDataType(code);
      if (!type)
        section.Fail(*section.Find("DataType"), Hex(code, 4) + " is not a type of a value");
      object.type = *type;
    }
    object.access = LowerCase(is_domain && section.Find("AccessType") == nullptr
                                  ? "rw"
                                  : section.Require("AccessType").value);
    constexpr const char* kAccesses[] = {"ro", "wo", "rw", "rwr", "rww", "const"};
    if (std::find(std::begin(kAccesses), std::end(kAccesses), object.access) ==
        std::end(kAccesses)) {
      section.Fail(*section.Find("AccessType"),
                   section.Text("AccessType") + " is not one of ro, wo, rw, rwr, rww, const");
    }
    object.flags = section.Number("ObjFlags", DataType::kUnsigned32).value_or(0);
    object.mappable = section.Number("PDOMapping", DataType::kBoolean).value_or(0) != 0;
    if (!IsNumber(object.type)) return;
    object.low_limit = section.Value("LowLimit", object.type);
    object.high_limit = section.Value("HighLimit", object.type);
    if (object.low_limit && object.high_limit &&
        CompareValues(object.type, object.low_limit->Of(1), object.high_limit->Of(1)) > 0) {
      section.Fail(*section.Find("LowLimit"),
                   section.Text("LowLimit") + " is above HighLimit, " + section.Text("HighLimit"));
    }
  }

  // Sub-indices 1 to `count`, all alike, in one section, and sub-index 0, which is their number.
  void ReadCompact(EdsObject object, const EdsSection& section, std::uint32_t count) {
    if (count > kHighestCompactSub) {
      section.Fail(*section.Find("CompactSubObj"), std::to_string(count) + " is above 254");
    }
    EdsObject number = object;
    number.name += ": number of entries";
    number.access = "ro";
    number.default_value = EdsValue{{static_cast<std::uint8_t>(count)}};
    eds_.objects.push_back(number);

    ReadTypeAndAccess(object, section);
    object.default_value = section.Value("DefaultValue", object.type);
    const std::size_t first = eds_.objects.size();
    for (std::uint32_t sub = 1; sub <= count; ++sub) {
      eds_.objects.push_back(object);
      eds_.objects.back().sub = static_cast<std::uint8_t>(sub);
      eds_.objects.back().name += " " + std::to_string(sub);
    }
    ForEntries(section, "Name", count, [&](const EdsSection&, const IniKey& key, std::size_t sub) {
      eds_.objects[first + sub - 1].name = object.name + ": " + key.value;
    });
    ForEntries(section, "Value", count,
               [&](const EdsSection& of, const IniKey& key, std::size_t sub) {
                 eds_.objects[first + sub - 1].parameter_value = of.ParseValueOf(key, object.type);
               });
  }

  // Of the section that is named as `object` is, with a word behind it.
  template <typename Take>
  void ForEntries(const EdsSection& object, const char* word, std::uint32_t count,
                  Take take) const {
    const IniSection* const ini = ini_.Find(object.ini().name + word);
    if (ini == nullptr) return;
    const EdsSection section(ini_, *ini);
    for (const IniKey* const key : section.Entries("NrOfEntries", count)) {
      take(section, *key, EntryNumber(*key));
    }
  }

  const IniFile& ini_;
  Eds eds_;
  std::map<Place, const IniSection*> places_;
  std::map<std::uint32_t, int> listed_;  // by index, with the line
};

}  // namespace

Eds ReadEds(std::FILE* file, const std::string& name) {
  const IniFile ini = ReadIniFile(file, name);
  return EdsReader(ini).Read();
}

}  // namespace motorctl
