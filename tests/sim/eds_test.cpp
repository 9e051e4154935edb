// The data sheets of the simulated drives, held against the drives.
#include "sim/eds.h"

#include <cstdio>
#include <fstream>

#include "sim/node.h"
#include "tests/sim/eds_sections.h"
#include "tests/sim/shell.h"

namespace sim {
namespace {

constexpr std::uint8_t kNode = 5;

class EdsTest : public EveryMakesSheet {
 protected:
  EdsTest() : node_(FindMake(GetParam()), Options(), [](const Frame&) {}) { node_.PowerOn(); }

  static Node::Options Options() {
    Node::Options options;
    options.node_id = kNode;
    return options;
  }

  // As section of the file, and as bytes of the value.
  const Section& EntryOf(std::uint16_t index, std::uint8_t sub) {
    char name[16];
    std::snprintf(name, sizeof name, "%04X", unsigned{index});
    if (by_name_[name]["ObjectType"] != "0x7") {
      std::snprintf(name, sizeof name, "%04Xsub%X", unsigned{index}, unsigned{sub});
    }
    return by_name_[name];
  }

  static Bytes BytesOf(const Section& entry) {
    const std::string value = entry["DefaultValue"];
    if (entry["DataType"] == "0x0009") return {value.begin(), value.end()};
    const std::string mark = "$NODEID";
    const bool relative = value.compare(0, mark.size(), mark) == 0;
    const std::string addend = relative ? value.substr(mark.size()) : value;
    const auto number = static_cast<std::uint64_t>(std::strtoll(addend.c_str(), nullptr, 0)) +
                        (relative ? kNode : 0);
    const std::map<std::string, unsigned> sizes = {{"0x0002", 1}, {"0x0003", 2}, {"0x0004", 4},
                                                   {"0x0005", 1}, {"0x0006", 2}, {"0x0007", 4}};
    Bytes bytes;
    for (unsigned i = 0; i < sizes.at(entry["DataType"]); ++i) {
      bytes.push_back(static_cast<std::uint8_t>(number >> (8 * i)));
    }
    return bytes;
  }

  Node node_;
};

TEST_P(EdsTest, TellsWhatTheDictionaryHolds) {
  std::size_t entries = 0;
  for (const Section& section : sections_) entries += section.Has("AccessType") ? 1 : 0;
  EXPECT_EQ(entries, node_.dictionary().objects().size());
  const std::map<Access, std::string> accesses = {{Access::kReadOnly, "ro"},
                                                  {Access::kWriteOnly, "wo"},
                                                  {Access::kReadWrite, "rw"},
                                                  {Access::kConst, "const"}};
  for (const auto& [place, object] : node_.dictionary().objects()) {
    const Section& entry = EntryOf(place.first, place.second);
    SCOPED_TRACE(entry.name);
    EXPECT_EQ(entry["AccessType"], accesses.at(object.access()));
    EXPECT_EQ(entry["PDOMapping"], object.mappable() ? "1" : "0");
    EXPECT_EQ(entry["DataType"] == "0x0009", object.is_string());
    const auto uploaded = node_.dictionary().Upload(place.first, place.second);
    if (uploaded.error == AbortCode::kNone) {
      EXPECT_EQ(BytesOf(entry), uploaded.bytes) << entry["DefaultValue"];
    } else {
      EXPECT_EQ(uploaded.error, AbortCode::kNoData);
      EXPECT_EQ(entry["DefaultValue"], "");
    }
  }
}

TEST_P(EdsTest, LimitsAreThoseThatAreKept) {
  for (const auto& [place, object] : node_.dictionary().objects()) {
    const Section& entry = EntryOf(place.first, place.second);
    SCOPED_TRACE(entry.name);
    EXPECT_EQ(entry.Has("HighLimit"), object.has_range());
    if (!object.has_range()) continue;
    const auto above = static_cast<std::uint32_t>(std::stoul(entry["HighLimit"], nullptr, 0)) + 1;
    EXPECT_EQ(node_.dictionary().Download(place.first, place.second, object.size(), above),
              AbortCode::kValueTooHigh);
    EXPECT_EQ(node_.dictionary().Download(place.first, place.second, object.size(), above - 1),
              AbortCode::kNone);
  }
}

TEST_P(EdsTest, NamesAreThere) {
  EXPECT_EQ(by_name_["1017"]["ParameterName"], "Producer heartbeat time");
  EXPECT_EQ(by_name_["1801"]["ParameterName"], "TPDO2 communication");
  EXPECT_EQ(by_name_["1801sub5"]["ParameterName"], "Event timer");
  EXPECT_EQ(by_name_["1603sub8"]["ParameterName"], "Mapped object 8");
  EXPECT_EQ(by_name_["1018sub4"]["DefaultValue"], "$NODEID");
  EXPECT_EQ(by_name_["1801sub1"]["DefaultValue"], "$NODEID+0x00000280");
}

TEST_P(EdsTest, TheProgramPrintsItAndTheFileThatIsInstalledIsTheSame) {
  const std::string make = GetParam();
  const auto result = Shell("$SIM --eds --make " + make);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, text_);
  std::ifstream file(DATA_SHEETS "/" + make + ".eds", std::ios::binary);
  std::ostringstream installed;
  installed << file.rdbuf();
  // Not EXPECT_EQ, which would print both.
  EXPECT_TRUE(installed.str() == text_)
      << "motor-drive-sim --make " << make << " --eds > packaging/eds/" << make << ".eds";
}

INSTANTIATE_TEST_SUITE_P(Makes, EdsTest, ::testing::ValuesIn(NamesOfMakes()), NameOfMake);

TEST(EdsOfAMakeTest, AnObjectWithoutANameIsNotLeftOut) {
  Make make = FindMake("tt");
  make.add_objects = [](ObjectDictionary& dictionary, std::vector<Axis>&) {
    dictionary.Add(0x5000, 0, 2, Access::kReadWrite);
  };
  try {
    DataSheet(make);
    ADD_FAILURE() << "written";
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "object 0x5000 of make 'tt' has no name");
  }
  make.object_texts = {{0x5000, ObjectText::kWhole, "New", DataType::kUnsigned32}};
  try {
    DataSheet(make);
    ADD_FAILURE() << "written";
  } catch (const std::logic_error& error) {
    EXPECT_STREQ(error.what(), "object 0x5000:0 of make 'tt' is of another type");
  }
}

TEST(EdsOfAMakeTest, NumbersHaveTheirSign) {
  Make make = FindMake("tt");
  make.add_objects = [](ObjectDictionary& dictionary, std::vector<Axis>&) {
    dictionary.Add(0x5000, 0, 2, Access::kReadWrite, 0xFFFE);
    dictionary.Add(0x5001, 0, 2, Access::kReadWrite, 0xFFFE).Range(0xFFF0, 0xFFFF);
  };
  make.object_texts = {{0x5000, ObjectText::kWhole, "Signed", DataType::kInteger16},
                       {0x5001, ObjectText::kWhole, "Unsigned", DataType::kUnsigned16}};
  auto sections = ByName(SectionsOf(DataSheet(make)));
  EXPECT_EQ(sections["5000"]["DefaultValue"], "-2");
  EXPECT_EQ(sections["5001"]["DefaultValue"], "0xFFFE");
  EXPECT_EQ(sections["5001"]["LowLimit"], "0xFFF0");
  EXPECT_EQ(sections["5001"]["HighLimit"], "0xFFFF");
}

}  // namespace
}  // namespace sim
