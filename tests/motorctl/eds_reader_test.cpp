// What is read of EDS and DCF files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <regex>

#include "dcf.h"
#include "eds_text.h"

namespace motorctl {
namespace {

std::string DefaultOf(const Eds& eds, std::uint16_t index, std::uint8_t sub, int node) {
  const EdsObject* const object = eds.Find(index, sub);
  if (object == nullptr || !object->default_value) return "none";
  return ValueText(object->type, object->default_value->Of(node));
}

TEST(EdsReaderTest, ObjectsStandInOrderWithNameTypeAndAccess) {
  const Eds eds = EdsOf(kEds);
  std::string shown;
  for (const EdsObject& object : eds.objects) {
    char line[200];
    std::snprintf(line, sizeof line, "%04X:%02X %d %s, %s, %s\n", object.index, object.sub,
                  static_cast<int>(object.kind), object.name.c_str(), TypeName(object.type),
                  object.access.c_str());
    shown += line;
  }
  EXPECT_EQ(shown, R"(1000:00 7 Device type, UNSIGNED32, const
1003:00 8 Error history: number of entries, UNSIGNED8, ro
1003:01 8 Error history 1, UNSIGNED32, ro
1003:02 8 Error history: Second, UNSIGNED32, ro
1003:03 8 Error history 3, UNSIGNED32, ro
1014:00 7 COB-ID EMCY, UNSIGNED32, rw
1018:00 9 Identity: Highest sub-index, UNSIGNED8, const
1018:01 9 Identity: Vendor-ID, UNSIGNED32, ro
2000:00 7 Name, VISIBLE_STRING, rw
)");
  EXPECT_EQ(eds.file, "x.eds");
  EXPECT_EQ(eds.vendor_name, "Nobody");
  EXPECT_EQ(eds.vendor_number, 0x00FFFF01U);
  EXPECT_EQ(eds.product_name, "Small");
  EXPECT_EQ(eds.product_number, 7U);
  EXPECT_EQ(eds.revision_number, 0x10000U);
  EXPECT_EQ(eds.node_id, std::nullopt);
  EXPECT_EQ(eds.Find(0x1018, 2), nullptr);
  EXPECT_EQ(eds.Find(0x1001, 0), nullptr);
  EXPECT_EQ(eds.Find(0xFFFF, 255), nullptr);
}

TEST(EdsReaderTest, DefaultValuesMayDependOnTheNode) {
  const Eds eds = EdsOf(kEds);
  EXPECT_EQ(DefaultOf(eds, 0x1000, 0, 5), "131474");
  EXPECT_EQ(DefaultOf(eds, 0x1003, 0, 5), "3");
  EXPECT_EQ(DefaultOf(eds, 0x1014, 0, 5), "133");
  EXPECT_EQ(DefaultOf(eds, 0x1018, 1, 5), "none");
  EXPECT_EQ(DefaultOf(eds, 0x2000, 0, 5), "wheel");
  for (const char* text : {"0x180+$NODEID", "384 + $nodeid", "$NodeID+0600", "$NODEID + 0x180"}) {
    EXPECT_EQ(DefaultOf(EdsOf(Changed("$NODEID+0x80", text)), 0x1014, 0, 127), "511") << text;
  }
  EXPECT_EQ(DefaultOf(EdsOf(Changed("$NODEID+0x80", "$NODEID")), 0x1014, 0, 9), "9");
  EXPECT_EQ(DefaultOf(EdsOf(Changed("$NODEID+0x80", "$NODEID+0x1FF")), 0x1014, 0, 2), "513");
  EXPECT_EQ(DefaultOf(EdsOf(Changed("$NODEID+0x80", "0x80")), 0x1014, 0, 9), "128");
  EXPECT_EQ(DefaultOf(EdsOf(Changed("DefaultValue=wheel", "DefaultValue=$NODEID")), 0x2000, 0, 9),
            "$NODEID")
      << "text is text";
}

TEST(EdsReaderTest, NumbersAreHexadecimalOctalOrDecimal) {
  for (const char* number : {"0x10", "0X10", "020", "16"}) {
    EXPECT_EQ(DefaultOf(EdsOf(Changed("0x00020192", number)), 0x1000, 0, 1), "16") << number;
  }
}

TEST(EdsReaderTest, TheFormOfTheFileIsFree) {
  const std::string expected = EdsOf(kEds).objects.back().name;
  std::string text = std::regex_replace(kEds, std::regex("\n"), "\r\n");
  EXPECT_EQ(EdsOf(text).objects.size(), 9U) << "CRLF";
  EXPECT_EQ(EdsOf(text).objects.back().name, expected);
  EXPECT_EQ(EdsOf("\xEF\xBB\xBF" + kEds).objects.size(), 9U) << "byte order mark";
  EXPECT_EQ(EdsOf(kEds.substr(0, kEds.size() - 1)).objects.size(), 9U) << "no last line break";
  text = std::regex_replace(kEds, std::regex("ParameterName"), "PARAMETERNAME");
  text = std::regex_replace(text, std::regex("1018sub"), "1018SUB");
  text = std::regex_replace(text, std::regex("DeviceInfo"), "deviceinfo");
  EXPECT_EQ(EdsOf(text).objects.size(), 9U) << "upper and lower case";
  text = std::regex_replace(kEds, std::regex("="), " = ");
  EXPECT_EQ(EdsOf(text).objects.back().name, expected) << "blanks";
  // Sections in another order: the first ones last.
  const std::size_t middle = kEds.find("[1018]");
  EXPECT_EQ(EdsOf(kEds.substr(middle) + kEds.substr(0, middle)).objects.size(), 9U);
  // A semicolon is a comment at the beginning of a line only.
  EXPECT_EQ(EdsOf(Changed("Name\nDataType=0x0009", "Gain ;x\nDataType=0x0009")).objects.back().name,
            "Gain ;x");
  // As long as CiA 306 allows, and longer.
  const std::string name(400, 'n');
  EXPECT_EQ(EdsOf(Changed("=Name\n", "=" + name + "\n")).objects.back().name, name);
  EXPECT_EQ(EdsOf(Changed("=Name\n", "=Dr\xFC\x1B[1m\n")).objects.back().name, "Dr\\xFC\\x1B[1m")
      << "nothing that a terminal obeys";
}

TEST(EdsReaderTest, DataTypesOfTheDeviceAndOtherSectionsAreSkipped) {
  std::string text =
      Changed("SupportedObjects=1\n1=0x2000", "SupportedObjects=2\n1=0x0040\n2=0x2000");
  text += "[0040]\nParameterName=A structure\nObjectType=6\nSubNumber=1\n[0040sub0]\nDataType=99\n";
  text +=
      "[025F]\nObjectType=5\n[DummyUsage]\nDummy0001=0\n[Comments]\nLines=0\n[2000ObjectLinks]\nx="
      "1\n";
  EXPECT_EQ(EdsOf(text).objects.size(), 9U);
}

TEST(EdsReaderTest, ADcfHoldsWhatIsConfigured) {
  std::string text = Changed("DefaultValue=wheel", "DefaultValue=wheel\nParameterValue=left");
  text += "[DeviceComissioning]\nNodeID=0x0C\n[1003Value]\nNrOfEntries=1\n3=0x11\n";
  const Eds eds = EdsOf(text);
  EXPECT_EQ(eds.node_id, 12);
  EXPECT_EQ(ValueText(DataType::kVisibleString, eds.Find(0x2000, 0)->parameter_value->bytes),
            "left");
  EXPECT_EQ(eds.Find(0x1003, 2)->parameter_value.has_value(), false);
  EXPECT_EQ(eds.Find(0x1003, 3)->parameter_value->bytes, (Bytes{0x11, 0, 0, 0}));
}

TEST(EdsReaderTest, AccessAndMappingTellWhatCanBeDone) {
  const auto entry = [](const std::string& access) {
    return EdsOf(Changed("AccessType=rw\nDefaultValue=wheel\nPDOMapping=0",
                         "AccessType=" + access + "\nPDOMapping=1"))
        .objects.back();
  };
  for (const char* access : {"rw", "rwr", "rww", "RW"}) {
    EXPECT_TRUE(entry(access).readable() && entry(access).writable()) << access;
  }
  for (const char* access : {"ro", "const"}) {
    EXPECT_TRUE(entry(access).readable() && !entry(access).writable()) << access;
  }
  EXPECT_TRUE(!entry("wo").readable() && entry("wo").writable());
  EXPECT_TRUE(entry("rw").mappable);
  EXPECT_FALSE(EdsOf(kEds).objects.back().mappable);
  const EdsObject domain =
      EdsOf(Changed("DataType=0x0009\nAccessType=rw\nDefaultValue=wheel", "ObjectType=2"))
          .objects.back();
  EXPECT_EQ(domain.type, DataType::kDomain);
  EXPECT_EQ(domain.kind, ObjectKind::kDomain);
  EXPECT_TRUE(domain.readable() && domain.writable());
}

TEST(EdsReaderTest, LimitsAreChecked) {
  const Eds eds = EdsOf(kEds);
  const EdsObject& object = *eds.Find(0x1014, 0);
  const auto against = [&object](const char* number) {
    return AgainstLimits(object, ParseValue(object.type, number), 1);
  };
  EXPECT_EQ(against("0x7F"), "127 is below the low limit 128");
  EXPECT_EQ(against("0x80"), "");
  EXPECT_EQ(against("0x7FF"), "");
  EXPECT_EQ(against("0x800"), "2048 is above the high limit 2047");
  EXPECT_EQ(AgainstLimits(*eds.Find(0x1018, 1), {9, 0, 0, 0}, 1), "") << "no limits";
  const Eds relative = EdsOf(Changed("LowLimit=0x80", "LowLimit=$NODEID+0x80"));
  EXPECT_EQ(AgainstLimits(*relative.Find(0x1014, 0), {0x80, 0, 0, 0}, 3),
            "128 is below the low limit 131");
  const Eds negative = EdsOf(Changed(
      "DataType=0x0007\nAccessType=rw\nDefaultValue=$NODEID+0x80\nLowLimit=0x80\nHighLimit=0x7FF",
      "DataType=0x0003\nAccessType=rw\nLowLimit=-5\nHighLimit=0xFFFE"));
  EXPECT_EQ(AgainstLimits(*negative.Find(0x1014, 0), ParseValue(DataType::kInteger16, "-1"), 1),
            "-1 is above the high limit -2");
}

TEST(EdsReaderTest, LeavesOutWhatIsInNoList) {
  EXPECT_EQ(EdsOf(kEds).note, "");
  const Eds one =
      EdsOf(Changed("SupportedObjects=2\n1=0x1003\n2=0x1014", "SupportedObjects=1\n1=0x1003"));
  EXPECT_EQ(one.note, "x.eds:46: [1014] is in no list of objects, and is left out");
  EXPECT_EQ(one.objects.size(), 8U);
  EXPECT_EQ(one.Find(0x1014, 0), nullptr);
  EXPECT_NE(one.Find(0x2000, 0), nullptr);
  const Eds two = EdsOf(Changed("[1018]\n", "[2018sub1]\nParameterName=x\n[2019]\nx=y\n[1018]\n"));
  EXPECT_EQ(
      two.note,
      "x.eds:21: [2018sub1] is in no list of objects, nor are 1 other sections; they are left "
      "out");
  EXPECT_EQ(two.objects.size(), 9U);
}

ConfigObject Held(std::uint16_t index, std::uint8_t sub, const Bytes& bytes, bool is_volatile) {
  ConfigObject object;
  object.index = index;
  object.sub = sub;
  object.type = DataType::kUnsigned32;
  object.bytes = bytes;
  object.is_volatile = is_volatile;
  return object;
}

TEST(EdsReaderTest, ADcfTellsWhatChangesByItself) {
  const std::string file = ::testing::TempDir() + "/marked.eds";
  std::ofstream(file) << Changed("HighLimit=0x7FF", "HighLimit=0x7FF\nObjFlags=2");
  Config config;
  config.node = 3;
  config.objects = {Held(0x1000, 0, {1, 0, 0, 0}, false), Held(0x1003, 1, {2, 0, 0, 0}, true),
                    Held(0x1003, 2, {3, 0, 0, 0}, false), Held(0x1014, 0, {0x83, 0, 0, 0}, true)};
  const std::string dcf = WriteDcf(LoadEds(file), config);
  EXPECT_NE(dcf.find("[1014]\nObjFlags=0x3\nParameterValue=0x00000083\n"), std::string::npos)
      << dcf;
  EXPECT_EQ(dcf.find("ObjFlags=2"), std::string::npos) << dcf;
  EXPECT_EQ(dcf.find("ObjFlags"), dcf.rfind("ObjFlags")) << dcf;
  std::ofstream(file) << dcf;
  const Config read = LoadConfigOrDcf(file);
  ASSERT_EQ(read.objects.size(), 3U);
  EXPECT_FALSE(read.Find(0x1000, 0)->is_volatile);
  EXPECT_EQ(read.Find(0x1003, 2)->bytes, (Bytes{3, 0, 0, 0}));
  EXPECT_TRUE(read.Find(0x1014, 0)->is_volatile);
  EXPECT_EQ(read.Find(0x1014, 0)->bytes, (Bytes{0x83, 0, 0, 0}));
}

TEST(EdsReaderTest, FilesAreOpened) {
  const std::string file = ::testing::TempDir() + "/small.eds";
  std::ofstream(file) << kEds;
  EXPECT_EQ(LoadEds(file).objects.size(), 9U);
  const auto failure = [](const std::string& name) -> std::string {
    try {
      LoadEds(name);
    } catch (const FileError& error) {
      return error.what();
    }
    return "none";
  };
  {
    std::ofstream huge(file, std::ios::app);
    const std::string line = ";" + std::string(500, 'x') + "\n";
    for (std::size_t i = 0; i <= (std::size_t{4} << 20) / line.size(); ++i) huge << line;
  }
  EXPECT_EQ(failure(file), file + ": longer than 4 MiB");
  EXPECT_EQ(failure("/absent.eds"), "/absent.eds: No such file or directory");
  EXPECT_EQ(failure("/"), "/: Is a directory");
  EXPECT_EQ(failure("/dev/null"), "/dev/null: no section [FileInfo]");
  EXPECT_EQ(failure("/dev/zero"),
            "/dev/zero:1: a line of more than 510 characters, or a zero byte");
}

}  // namespace
}  // namespace motorctl
