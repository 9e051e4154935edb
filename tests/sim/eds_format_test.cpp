// The data sheets of the simulated drives, held against the rules of CiA 306.
#include <algorithm>
#include <cstdlib>
#include <regex>
#include <set>

#include "tests/sim/eds_sections.h"

namespace sim {
namespace {

using Names = std::vector<std::string>;

bool Matches(const std::string& text, const char* pattern) {
  static std::map<std::string, std::regex> compiled;
  return std::regex_match(text, compiled.try_emplace(pattern, pattern).first->second);
}

unsigned long Hex(const std::string& text) { return std::strtoul(text.c_str(), nullptr, 16); }

// Bytes of the types that a sheet may name; 0: any length.
const std::map<std::string, int> kTypes = {
    {"0x0001", 1}, {"0x0002", 1}, {"0x0003", 2}, {"0x0004", 4}, {"0x0005", 1},
    {"0x0006", 2}, {"0x0007", 4}, {"0x0008", 4}, {"0x0009", 0}, {"0x000F", 0}};

class EdsFormatTest : public EveryMakesSheet {
 protected:
  void ExpectEntry(const Section& entry) {
    SCOPED_TRACE(entry.name);
    Names expected = {"ParameterName", "ObjectType", "DataType"};
    if (entry.Has("LowLimit")) expected.insert(expected.end(), {"LowLimit", "HighLimit"});
    expected.insert(expected.end(), {"AccessType", "DefaultValue", "PDOMapping"});
    EXPECT_EQ(entry.Names(), expected);
    ExpectName(entry["ParameterName"]);
    EXPECT_EQ(entry["ObjectType"], "0x7");
    ASSERT_EQ(kTypes.count(entry["DataType"]), 1U) << entry["DataType"];
    EXPECT_TRUE(Matches(entry["AccessType"], "ro|wo|rw|rwr|rww|const"));
    EXPECT_TRUE(Matches(entry["PDOMapping"], "0|1"));
    const int size = kTypes.at(entry["DataType"]);
    for (const char* key : {"DefaultValue", "LowLimit", "HighLimit"}) {
      if (entry.Has(key)) ExpectNumber(entry[key], size);
    }
    if (!entry.Has("LowLimit")) return;
    EXPECT_LE(std::strtoll(entry["LowLimit"].c_str(), nullptr, 0),
              std::strtoll(entry["HighLimit"].c_str(), nullptr, 0));
  }

  static void ExpectName(const std::string& name) {
    EXPECT_TRUE(Matches(name, "[ -~]{1,241}")) << name;
  }

  // Empty, decimal, or hexadecimal with all digits of the type, with or without the node-ID.
  static void ExpectNumber(const std::string& number, int size) {
    if (size == 0 || number.empty()) return;
    static const std::regex form(R"((\$NODEID\+)?0x([0-9A-F]+)|-?[0-9]+|\$NODEID)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(number, match, form)) << number;
    if (match[2].matched) {
      EXPECT_EQ(match[2].length(), 2 * size) << number;
    }
  }

  // The objects of a list, which counts them.
  std::vector<unsigned long> ListOf(const std::string& name) {
    SCOPED_TRACE(name);
    const Section& list = by_name_[name];
    EXPECT_FALSE(list.keys.empty());
    if (list.keys.empty()) return {};
    EXPECT_EQ(list.keys[0].first, "SupportedObjects");
    EXPECT_EQ(list.keys[0].second, std::to_string(list.keys.size() - 1));
    std::vector<unsigned long> indices;
    for (std::size_t i = 1; i < list.keys.size(); ++i) {
      EXPECT_EQ(list.keys[i].first, std::to_string(i));
      EXPECT_TRUE(Matches(list.keys[i].second, "0x[0-9A-F]{4}")) << list.keys[i].second;
      indices.push_back(Hex(list.keys[i].second));
    }
    EXPECT_TRUE(std::is_sorted(indices.begin(), indices.end()));
    return indices;
  }
};

TEST_P(EdsFormatTest, LinesEndAsTheyMust) {
  std::size_t begin = 0;
  while (begin < text_.size()) {
    const std::size_t end = text_.find("\r\n", begin);
    ASSERT_NE(end, std::string::npos) << "the last line";
    const std::string line = text_.substr(begin, end - begin);
    EXPECT_TRUE(Matches(line, "[ -~]{0,253}")) << line;
    begin = end + 2;
  }
}

TEST_P(EdsFormatTest, SectionsComeInOrder) {
  const Names expected = {"FileInfo",         "DeviceInfo",      "DummyUsage",         "Comments",
                          "MandatoryObjects", "OptionalObjects", "ManufacturerObjects"};
  Names found;
  for (const Section& section : sections_) {
    if (!Matches(section.name, "[0-9A-F]{4}(sub[0-9A-F]{1,2})?")) found.push_back(section.name);
  }
  EXPECT_EQ(found, expected);
}

TEST_P(EdsFormatTest, TheFileTellsWhatItIs) {
  const Section& file = by_name_["FileInfo"];
  EXPECT_EQ(file.Names(), (Names{"FileName", "FileVersion", "FileRevision", "EDSVersion",
                                 "Description", "CreationTime", "CreationDate", "CreatedBy",
                                 "ModificationTime", "ModificationDate", "ModifiedBy"}));
  EXPECT_EQ(file["FileName"], GetParam() + ".eds");
  EXPECT_TRUE(Matches(file["FileVersion"], "[0-9]{1,3}"));
  EXPECT_TRUE(Matches(file["FileRevision"], "[0-9]{1,3}"));
  EXPECT_EQ(file["EDSVersion"], "4.0");
  EXPECT_TRUE(Matches(file["Description"], "[ -~]{1,243}"));
  for (const char* time : {"CreationTime", "ModificationTime"}) {
    EXPECT_TRUE(Matches(file[time], "(0[1-9]|1[0-2]):[0-5][0-9](AM|PM)")) << file[time];
  }
  for (const char* date : {"CreationDate", "ModificationDate"}) {
    EXPECT_TRUE(Matches(file[date], "(0[1-9]|1[0-2])-(0[1-9]|[12][0-9]|3[01])-20[0-9]{2}"));
  }
}

TEST_P(EdsFormatTest, TheDeviceIsDescribed) {
  const Section& device = by_name_["DeviceInfo"];
  EXPECT_EQ(device.Names(),
            (Names{"VendorName",        "VendorNumber",   "ProductName",
                   "ProductNumber",     "RevisionNumber", "OrderCode",
                   "BaudRate_10",       "BaudRate_20",    "BaudRate_50",
                   "BaudRate_125",      "BaudRate_250",   "BaudRate_500",
                   "BaudRate_800",      "BaudRate_1000",  "SimpleBootUpMaster",
                   "SimpleBootUpSlave", "Granularity",    "DynamicChannelsSupported",
                   "GroupMessaging",    "NrOfRXPDO",      "NrOfTXPDO",
                   "LSS_Supported"}));
  for (const auto& [key, value] : device.keys) {
    if (Matches(key, "BaudRate_.*|SimpleBootUp.*|GroupMessaging|LSS_Supported")) {
      EXPECT_TRUE(Matches(value, "0|1")) << key;
    }
    if (Matches(key, "VendorNumber|ProductNumber|RevisionNumber")) {
      EXPECT_TRUE(Matches(value, "0x[0-9A-F]{8}")) << key;
    }
  }
  EXPECT_EQ(device["VendorNumber"], by_name_["1018sub1"]["DefaultValue"]);
  EXPECT_EQ(device["ProductNumber"], by_name_["1018sub2"]["DefaultValue"]);
  EXPECT_EQ(device["RevisionNumber"], by_name_["1018sub3"]["DefaultValue"]);
  EXPECT_EQ(device["ProductName"], by_name_["1008"]["DefaultValue"]);
  EXPECT_LE(std::stoi(device["Granularity"]), 64);
  const auto count = [this](const char* pattern) {
    return std::to_string(std::count_if(
        sections_.begin(), sections_.end(),
        [pattern](const Section& section) { return Matches(section.name, pattern); }));
  };
  EXPECT_EQ(device["NrOfRXPDO"], count("14[0-9A-F]{2}"));
  EXPECT_EQ(device["NrOfTXPDO"], count("18[0-9A-F]{2}"));
}

TEST_P(EdsFormatTest, DummiesAndCommentsAreCounted) {
  EXPECT_EQ(by_name_["DummyUsage"].Names(),
            (Names{"Dummy0001", "Dummy0002", "Dummy0003", "Dummy0004", "Dummy0005", "Dummy0006",
                   "Dummy0007"}));
  for (const auto& [key, value] : by_name_["DummyUsage"].keys) {
    EXPECT_TRUE(Matches(value, "0|1")) << key;
  }
  const Section& comments = by_name_["Comments"];
  EXPECT_EQ(comments["Lines"], std::to_string(comments.keys.size() - 1));
  for (std::size_t i = 1; i < comments.keys.size(); ++i) {
    EXPECT_EQ(comments.keys[i].first, "Line" + std::to_string(i));
  }
}

TEST_P(EdsFormatTest, EveryObjectIsInTheListOfItsKind) {
  const auto mandatory = ListOf("MandatoryObjects");
  EXPECT_EQ(mandatory, (std::vector<unsigned long>{0x1000, 0x1001, 0x1018}));
  std::set<unsigned long> listed(mandatory.begin(), mandatory.end());
  for (const unsigned long index : ListOf("OptionalObjects")) {
    EXPECT_TRUE((index > 0x1001 && index < 0x2000) || (index >= 0x6000 && index < 0xA000));
    EXPECT_TRUE(listed.insert(index).second) << std::hex << index;
  }
  for (const unsigned long index : ListOf("ManufacturerObjects")) {
    EXPECT_TRUE(index >= 0x2000 && index < 0x6000) << std::hex << index;
    listed.insert(index);
  }
  std::set<unsigned long> described;
  for (const Section& section : sections_) {
    if (Matches(section.name, "[0-9A-F]{4}")) described.insert(Hex(section.name));
  }
  EXPECT_EQ(described, listed);
}

TEST_P(EdsFormatTest, EveryEntryHasAllItsKeys) {
  for (std::size_t i = 0; i < sections_.size(); ++i) {
    const Section& section = sections_[i];
    if (!Matches(section.name, "[0-9A-F]{4}")) continue;
    if (section["ObjectType"] == "0x7") {
      ExpectEntry(section);
      continue;
    }
    SCOPED_TRACE(section.name);
    EXPECT_EQ(section.Names(), (Names{"ParameterName", "ObjectType", "SubNumber"}));
    ExpectName(section["ParameterName"]);
    EXPECT_TRUE(Matches(section["ObjectType"], "0x8|0x9"));
    // Its sub-indices follow, from 0 on, and are as many as it says.
    const std::size_t first = i + 1;
    while (i + 1 < sections_.size() &&
           sections_[i + 1].name.compare(0, 7, section.name + "sub") == 0) {
      ExpectEntry(sections_[++i]);
    }
    EXPECT_EQ(section["SubNumber"], std::to_string(i + 1 - first));
    ASSERT_EQ(sections_[first].name, section.name + "sub0");
    EXPECT_EQ(sections_[first]["DataType"], "0x0005");
    const std::string highest = sections_[i].name.substr(7);
    // How many errors there are, and how many objects are mapped, changes.
    if (Matches(section.name, "1003|1[6A]..")) continue;
    EXPECT_EQ(Hex(sections_[first]["DefaultValue"]), Hex(highest));
  }
}

INSTANTIATE_TEST_SUITE_P(Makes, EdsFormatTest, ::testing::ValuesIn(NamesOfMakes()), NameOfMake);

}  // namespace
}  // namespace sim
