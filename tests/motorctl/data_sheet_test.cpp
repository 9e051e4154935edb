// Names and values of objects as the data sheet of a device tells them.
#include "data_sheet.h"

#include <gtest/gtest.h>

#include <string>

#include "decode.h"
#include "eds_text.h"
#include "words.h"

namespace motorctl {
namespace {

std::string Object(const std::string& index, const std::string& name, const std::string& type,
                   const std::string& more = "") {
  return "[" + index + "]\nParameterName=" + name + "\nDataType=" + type + "\nAccessType=rw\n" +
         more;
}

std::string Record(const std::string& index, const std::string& name,
                   const std::vector<std::pair<std::string, std::string>>& subs) {
  std::string text = "[" + index + "]\nParameterName=" + name +
                     "\nObjectType=9\nSubNumber=" + std::to_string(subs.size()) + "\n";
  for (std::size_t i = 0; i < subs.size(); ++i) {
    text += Object(index + "sub" + std::to_string(i), "Part " + std::to_string(i), subs[i].first,
                   subs[i].second.empty() ? "" : "DefaultValue=" + subs[i].second + "\n");
  }
  return text;
}

std::string Sheet(const std::vector<std::string>& indices, const std::string& objects) {
  std::string text =
      "[FileInfo]\nFileName=x.eds\n[DeviceInfo]\nVendorName=Nobody\n[MandatoryObjects]\n";
  text += "SupportedObjects=" + std::to_string(indices.size()) + "\n";
  for (std::size_t i = 0; i < indices.size(); ++i) {
    text += std::to_string(i + 1) + "=0x" + indices[i] + "\n";
  }
  return text + objects;
}

class DataSheetTest : public ::testing::Test {
 protected:
  ~DataSheetTest() override { UseDataSheet(nullptr); }

  void Use(const std::string& text) {
    eds_ = EdsOf(text);
    UseDataSheet(&eds_);
  }

  static std::string Decoded(const std::string& frame, const Make* make = nullptr) {
    return DecodeFrame(*ParseLogLine(frame), make).text;
  }

 private:
  Eds eds_;
};

TEST_F(DataSheetTest, NamesOfTheSheetComeFirst) {
  EXPECT_EQ(ObjectName(0x1014, 0), "COB-ID of emergency messages");
  EXPECT_EQ(ObjectName(0x2000, 0), "");
  Use(kEds);
  EXPECT_EQ(ObjectName(0x1014, 0), "COB-ID EMCY");
  EXPECT_EQ(ObjectName(0x2000, 0), "Name");
  EXPECT_EQ(ObjectName(0x1018, 1, motor_driver::FindMake("zl")), "Identity: Vendor-ID");
  EXPECT_EQ(ObjectName(0x6041, 0), "Statusword") << "what the sheet does not have";
  EXPECT_EQ(Decoded("601#4014100000000000"), "SDO node 1: read 0x1014:00 COB-ID EMCY");
  UseDataSheet(nullptr);
  EXPECT_EQ(ObjectName(0x1014, 0), "COB-ID of emergency messages");
  EXPECT_EQ(ObjectName(0x2000, 0), "");
}

TEST_F(DataSheetTest, ValuesHaveTheTypeOfTheSheet) {
  Use(Sheet({"2001", "2002", "2003", "2004", "2005", "2006", "6041", "6081", "6502"},
            Object("2001", "A", "0x0003") + Object("2002", "B", "0x0008") +
                Object("2003", "C", "0x0009") + Object("2004", "D", "0x0001") +
                Object("2005", "E", "0x0006") + Object("2006", "F", "0x000A") +
                Object("6041", "State", "0x0006") + Object("6081", "Speed", "0x0004") +
                Object("6502", "Modes", "0x0007")));
  EXPECT_EQ(ObjectValue(0x2001, 0, 0xFFFE, 2).text, "-2");
  EXPECT_EQ(ObjectValue(0x2001, 0, 0xFFFE, 2).number, -2);
  EXPECT_EQ(ObjectValue(0x2002, 0, 0x3FC00000, 4).text, "1.5");
  EXPECT_EQ(ObjectValue(0x2003, 0, 0x6261, 2).text, "\"ab\"");
  EXPECT_EQ(ObjectValue(0x2004, 0, 1, 1).text, "0x01 (1)");
  EXPECT_EQ(ObjectValue(0x2005, 0, 0xFFFE, 2).text, "0xFFFE (65534)");
  EXPECT_EQ(ObjectValue(0x2006, 0, 0xABCD, 2).text, "CD AB");
  EXPECT_EQ(ObjectValue(0x6041, 0, 0x0037, 2).text, "0x0037 Operation enabled; voltage enabled")
      << "what is known of its meaning stays";
  EXPECT_EQ(ObjectValue(0x6081, 0, 0xFFFFFFFE, 4).text, "-2");
  EXPECT_EQ(ObjectValue(0x6502, 0, 0x10, 4).text, "0x00000010");
  EXPECT_EQ(ObjectValue(0x2001, 0, 0xFE, 1).text, "0xFE (254)") << "not of its size";
  EXPECT_EQ(Decoded("581#4B012000FEFF0000"), "SDO node 1: value 0x2001:00 A = -2");
}

// TPDO1 with three values, TPDO2 of another identifier, TPDO3 with bits, TPDO4 that is off.
const std::string kPdos =
    Sheet({"1800", "1801", "1802", "1803", "1A00", "1A01", "1A02", "1A03", "1400", "1600", "2001",
           "2002"},
          Record("1800", "T1", {{"5", "1"}, {"7", "$NODEID+0x180"}}) +
              Record("1801", "T2", {{"5", "1"}, {"7", "0x40000281"}}) +
              Record("1802", "T3", {{"5", "1"}, {"7", "$NODEID+0x380"}}) +
              Record("1803", "T4", {{"5", "1"}, {"7", "0x80000481"}}) +
              Record("1400", "R1", {{"5", "1"}, {"7", "$NODEID+0x200"}}) +
              Record("1A00", "M1",
                     {{"5", "3"}, {"7", "0x20010010"}, {"7", "0x20020020"}, {"7", "0x60410010"}}) +
              Record("1A01", "M2", {{"5", "1"}, {"7", "0x20030040"}}) +
              Record("1A02", "M3", {{"5", "1"}, {"7", "0x20030001"}}) +
              Record("1A03", "M4", {{"5", "1"}, {"7", "0x20010010"}}) +
              Record("1600", "W1", {{"5", "1"}, {"7", "0x20010010"}}) +
              Object("2001", "Current of it", "3") + Object("2002", "Ratio", "8"));

TEST_F(DataSheetTest, PdosAreTakenApartAsItMapsThem) {
  EXPECT_EQ(Decoded("183#FEFF0000C03F3700"), "TPDO1 of node 3: FE FF 00 00 C0 3F 37 00");
  Use(kPdos);
  EXPECT_EQ(Decoded("183#FEFF0000C03F3700"),
            "TPDO1 of node 3: Current of it = -2 | Ratio = 1.5 | 0x6041:00 = 0x0037 Operation "
            "enabled; voltage enabled");
  EXPECT_EQ(
      DecodeFrame(*ParseLogLine("183#FEFF0000C03F3700"), nullptr).fields.text(),
      R"("node":3,"pdo":"TPDO1","values":{"Current_of_it":-2,"Ratio":1069547520,"0x6041:00":55})");
  EXPECT_EQ(Decoded("203#0100"), "RPDO1 of node 3: Current of it = 1");
  EXPECT_EQ(Decoded("281#0102030405060708"),
            "TPDO2 of node 1: 0x2003:00 = 01 02 03 04 05 06 07 08");
  EXPECT_EQ(Decoded("282#0102"), "TPDO2 of node 2: 01 02") << "not on this identifier";
  EXPECT_EQ(Decoded("381#01"), "TPDO3 of node 1: 01") << "bits";
  EXPECT_EQ(Decoded("481#0100"), "TPDO4 of node 1: 01 00") << "off";
  EXPECT_EQ(Decoded("183#FEFF0000"),
            "TPDO1 of node 3: Current of it = -2 | too short for the data sheet: FE FF 00 00");
  EXPECT_EQ(Decoded("201#E2FFFFFFC4FFFFFF", motor_driver::FindMake("zl")),
            "RPDO1 of node 1: target velocity 1 = -30 | target velocity 2 = -60")
      << "a make that is told maps them anew";
}

TEST_F(DataSheetTest, ADcfTellsTheMappingThatWasConfigured) {
  std::string text = kPdos;
  const std::string mapped = "DefaultValue=0x20010010\n";
  text.replace(text.find(mapped), mapped.size(), mapped + "ParameterValue=0x20050010\n");
  Use(text);
  EXPECT_EQ(Decoded("183#FEFF0000C03F3700").substr(0, 48),
            "TPDO1 of node 3: 0x2005:00 = 0xFFFE (65534) | Ra");
}

}  // namespace
}  // namespace motorctl
