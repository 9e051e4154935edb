// Every mistake in an EDS file is named by line, section and key.
#include <gtest/gtest.h>

#include "eds_text.h"

namespace motorctl {
namespace {

std::string Refusal(const std::string& text) {
  try {
    EdsOf(text);
  } catch (const FileError& error) {
    return error.what();
  }
  return "none";
}

struct Row {
  const char* from;
  const char* to;
  const char* refusal;
};

TEST(EdsRefusalsTest, WhatIsNoSuchFile) {
  EXPECT_EQ(Refusal("\n"), "x.eds: no section [FileInfo]");
  EXPECT_EQ(Refusal("hello\n"), "x.eds:1: neither [SECTION] nor KEY=VALUE");
  EXPECT_EQ(Refusal("a=1\n"), "x.eds:1: a: stands before the first [SECTION]");
  EXPECT_EQ(Refusal("[a\nb=1\n"), "x.eds:1: neither [SECTION] nor KEY=VALUE");
  EXPECT_EQ(Refusal("[a]\nb=1\n\n[c]\nd\n"), "x.eds:5: neither [SECTION] nor KEY=VALUE");
  EXPECT_EQ(Refusal("[a]\nx\nb=1\nb=2\n"), "x.eds:2: neither [SECTION] nor KEY=VALUE")
      << "the first of two";
  EXPECT_EQ(Refusal("[a]\nb=" + std::string(509, 'x') + "\n"),
            "x.eds:2: a line of more than 510 characters, or a zero byte");
  EXPECT_EQ(Refusal(std::string("[a]\nb=1\0\n", 9)),
            "x.eds:2: a line of more than 510 characters, or a zero byte");
}

const Row kForm[] = {
    {"[FileInfo]\nFileName=small.eds", "", "x.eds: no section [FileInfo]"},
    {"[DeviceInfo]", "[Device]", "x.eds: no section [DeviceInfo]"},
    {"[MandatoryObjects]", "[Mandatory]", "x.eds: no section [MandatoryObjects]"},
    {"ObjectType=0x7\n", "", "none"},
    {"[1018sub1]", "[1018sub0]", "x.eds:30: [1018sub0] stands in line 25, too"},
    {"[1018sub1]", "[1018SUB00]", "x.eds:30: [1018SUB00] stands in line 25, too"},
    {"[DeviceInfo]", "[FILEINFO]", "x.eds:4: [FILEINFO] stands in line 1, too"},
    {"PDOMapping=0\n[1018]", "accesstype=ro\n[1018]",
     "x.eds:20: [1000] accesstype: stands in line 18, too"},
    {"VendorNumber=0x00FFFF01", "VendorNumber=mine",
     "x.eds:6: [DeviceInfo] VendorNumber: \"mine\" is not a number"},
    {"ProductNumber=7", "ProductNumber=$NODEID",
     "x.eds:8: [DeviceInfo] ProductNumber: not for $NODEID"},
};

const Row kLists[] = {
    {"SupportedObjects=2\n1=0x1000", "1=0x1000",
     "x.eds:10: [MandatoryObjects] SupportedObjects: missing"},
    {"SupportedObjects=2\n1=0x1000", "SupportedObjects=3\n1=0x1000",
     "x.eds:11: [MandatoryObjects] SupportedObjects: 3, but there are 2 entries"},
    {"SupportedObjects=2\n1=0x1000", "SupportedObjects=1\n1=0x1000",
     "x.eds:13: [MandatoryObjects] 2: is not a number of 1 to 1"},
    {"2=0x1014", "3=0x1014", "x.eds:37: [OptionalObjects] 3: is not a number of 1 to 2"},
    {"2=0x1014", "99999999999999999999=0x1014",
     "x.eds:37: [OptionalObjects] 99999999999999999999: is not a number of 1 to 2"},
    {"2=0x1014", "2=", "x.eds:34: [OptionalObjects] 2: missing"},
    {"2=0x1014", "2=0x10140", "x.eds:37: [OptionalObjects] 2: 0x10140 is not between 0 and 65535"},
    {"2=0x1014", "2=0x1015", "x.eds:37: [OptionalObjects] 2: no section [1015]"},
    {"2=0x1014", "2=0x1018", "x.eds:37: [OptionalObjects] 2: 0x1018 is listed in line 13, too"},
    {"[1018]", "[1019]", "x.eds:13: [MandatoryObjects] 2: no section [1018]"},
    {"[1018sub1]", "[1018sub11111111111111111111]",
     "x.eds:24: [1018] SubNumber: 2, but there are 1 sections of it"},
    {"[1018sub1]", "[2018sub1]", "x.eds:24: [1018] SubNumber: 2, but there are 1 sections of it"},
};

const Row kObjects[] = {
    {"ParameterName=Device type\n", "", "x.eds:14: [1000] ParameterName: missing"},
    {"ParameterName=Vendor-ID", "ParameterName=", "x.eds:30: [1018sub1] ParameterName: missing"},
    {"ObjectType=0x7", "ObjectType=6",
     "x.eds:16: [1000] ObjectType: 6 is not one of 2 (DOMAIN), 7 (VAR), 8 (ARRAY), 9 (RECORD)"},
    {"ObjectType=0x7", "ObjectType=VAR", "x.eds:16: [1000] ObjectType: \"VAR\" is not a number"},
    {"DataType=0x0007\nAccessType=const", "AccessType=const", "x.eds:14: [1000] DataType: missing"},
    {"DataType=0x0007\nAccessType=const", "DataType=0x0099\nAccessType=const",
     "x.eds:17: [1000] DataType: 0x0099 is not a type of a value"},
    {"AccessType=const\n", "", "x.eds:14: [1000] AccessType: missing"},
    {"AccessType=const\n", "AccessType=r\n",
     "x.eds:18: [1000] AccessType: r is not one of ro, wo, rw, rwr, rww, const"},
    {"PDOMapping=0", "PDOMapping=2", "x.eds:20: [1000] PDOMapping: 2 is not between 0 and 1"},
    {"SubNumber=2", "SubNumber=3", "x.eds:24: [1018] SubNumber: 3, but there are 2 sections of it"},
    {"SubNumber=2", "SubNumber=1", "x.eds:24: [1018] SubNumber: 1, but there are 2 sections of it"},
    {"SubNumber=2", "SubNumber=256", "x.eds:24: [1018] SubNumber: 256 is not between 0 and 255"},
    {"SubNumber=2\n", "", "x.eds:21: [1018] SubNumber: missing"},
    {"ObjectType=0x9", "ObjectType=0x7", "x.eds:25: [1018sub0] is of an index without sub-indices"},
    {"CompactSubObj=3", "CompactSubObj=255", "x.eds:41: [1003] CompactSubObj: 255 is above 254"},
    {"ObjectType=0x8", "ObjectType=0x7",
     "x.eds:41: [1003] CompactSubObj: only for ObjectType 8 (ARRAY) and 9 (RECORD)"},
    {"[1003Name]", "[1003sub1]",
     "x.eds:44: [1003sub1] has its place in CompactSubObj of its index"},
    {"NrOfEntries=1\n", "", "x.eds:44: [1003Name] NrOfEntries: missing"},
    {"NrOfEntries=1", "NrOfEntries=2",
     "x.eds:45: [1003Name] NrOfEntries: 2, but there are 1 entries"},
    {"2=Second", "4=Fourth", "x.eds:46: [1003Name] 4: is not a number of 1 to 3"},
    {"[1003Name]\nNrOfEntries=1\n2=Second", "[1003Value]\nNrOfEntries=1\n2=x",
     "x.eds:46: [1003Value] 2: \"x\" is not a number"},
};

const Row kValues[] = {
    {"DefaultValue=1\n", "DefaultValue=256\n",
     "x.eds:29: [1018sub0] DefaultValue: 256 is not between 0 and 255"},
    {"DefaultValue=1\n", "DefaultValue=one\n",
     "x.eds:29: [1018sub0] DefaultValue: \"one\" is not a number"},
    {"DefaultValue=1\n", "DefaultValue=08\n",
     "x.eds:29: [1018sub0] DefaultValue: \"08\" is not a number"},
    {"DefaultValue=1\n", "ParameterValue=-1\n",
     "x.eds:29: [1018sub0] ParameterValue: -1 is not between 0 and 255"},
    {"DefaultValue=1\n", "DefaultValue=$NODEID+0x81\n",
     "x.eds:29: [1018sub0] DefaultValue: $NODEID+0x81 is too large for UNSIGNED8 with node-ID 127"},
    {"DefaultValue=1\n", "DefaultValue=$NODEID-1\n",
     "x.eds:29: [1018sub0] DefaultValue: \"$NODEID-1\" is not a number"},
    {"DefaultValue=1\n", "DefaultValue=$NODEID+\n",
     "x.eds:29: [1018sub0] DefaultValue: \"\" is not a number"},
    {"DefaultValue=1\n", "DefaultValue=$NODEID+$NODEID\n",
     "x.eds:29: [1018sub0] DefaultValue: \"$nodeid\" is not a number"},
    {"LowLimit=0x80", "LowLimit=0x800",
     "x.eds:52: [1014] LowLimit: 0x800 is above HighLimit, 0x7FF"},
    {"HighLimit=0x7FF", "HighLimit=x", "x.eds:53: [1014] HighLimit: \"x\" is not a number"},
    {"DefaultValue=wheel", "DefaultValue=wh\tl",
     "x.eds:61: [2000] DefaultValue: a character that is not printable ASCII; write it as \\xNN"},
    {"PDOMapping=0\n", "[DeviceComissioning]\nNodeID=128\n",
     "x.eds:21: [DeviceComissioning] NodeID: 128 is not in 1 to 127"},
};

template <std::size_t kRows>
void ExpectRefusals(const Row (&rows)[kRows]) {
  for (const Row& row : rows) {
    EXPECT_EQ(Refusal(Changed(row.from, row.to)), row.refusal) << row.to;
  }
}

TEST(EdsRefusalsTest, MistakesOfFormAreNamed) { ExpectRefusals(kForm); }
TEST(EdsRefusalsTest, MistakesOfTheListsAreNamed) { ExpectRefusals(kLists); }
TEST(EdsRefusalsTest, MistakesOfObjectsAreNamed) { ExpectRefusals(kObjects); }
TEST(EdsRefusalsTest, MistakesOfValuesAreNamed) { ExpectRefusals(kValues); }

}  // namespace
}  // namespace motorctl
