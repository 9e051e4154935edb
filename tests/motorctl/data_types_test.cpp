// Values of every data type, from text to bytes and back.
#include "data_types.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace motorctl {
namespace {

struct Row {
  DataType type;
  const char* text;
  Bytes bytes;
};

// Each is what ValueText shows, too.
const std::vector<Row> kValues = {
    {DataType::kBoolean, "1", {1}},
    {DataType::kInteger8, "-128", {0x80}},
    {DataType::kInteger16, "-2", {0xFE, 0xFF}},
    {DataType::kInteger24, "-8388608", {0, 0, 0x80}},
    {DataType::kInteger32, "-30", {0xE2, 0xFF, 0xFF, 0xFF}},
    {DataType::kInteger40, "549755813887", {0xFF, 0xFF, 0xFF, 0xFF, 0x7F}},
    {DataType::kInteger48, "-1", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
    {DataType::kInteger56, "258", {2, 1, 0, 0, 0, 0, 0}},
    {DataType::kInteger64, "-9223372036854775808", {0, 0, 0, 0, 0, 0, 0, 0x80}},
    {DataType::kUnsigned8, "255", {0xFF}},
    {DataType::kUnsigned16, "1500", {0xDC, 0x05}},
    {DataType::kUnsigned24, "16777215", {0xFF, 0xFF, 0xFF}},
    {DataType::kUnsigned32, "305419896", {0x78, 0x56, 0x34, 0x12}},
    {DataType::kUnsigned40, "4294967296", {0, 0, 0, 0, 1}},
    {DataType::kUnsigned48, "1", {1, 0, 0, 0, 0, 0}},
    {DataType::kUnsigned56, "72057594037927935", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
    {DataType::kUnsigned64,
     "18446744073709551615",
     {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
    {DataType::kReal32, "-0.1", {0xCD, 0xCC, 0xCC, 0xBD}},
    {DataType::kReal32, "0x7FC00001", {0x01, 0x00, 0xC0, 0x7F}},
    {DataType::kReal32, "inf", {0x00, 0x00, 0x80, 0x7F}},
    {DataType::kReal64, "0.1", {0x9A, 0x99, 0x99, 0x99, 0x99, 0x99, 0xB9, 0x3F}},
    {DataType::kVisibleString, "drive 1.2", {'d', 'r', 'i', 'v', 'e', ' ', '1', '.', '2'}},
    {DataType::kVisibleString, "\\x20a\\xE4\\x00\\x20", {' ', 'a', 0xE4, 0, ' '}},
    {DataType::kVisibleString,
     "\\x5Cx41 C:\\dir\\",
     {'\\', 'x', '4', '1', ' ', 'C', ':', '\\', 'd', 'i', 'r', '\\'}},
    {DataType::kVisibleString, "", {}},
    {DataType::kUnicodeString, "a\\u20AC\\uD83D", {'a', 0, 0xAC, 0x20, 0x3D, 0xD8}},
    {DataType::kUnicodeString, "\\u005Cu", {'\\', 0, 'u', 0}},
    {DataType::kOctetString, "00 FF 2A", {0x00, 0xFF, 0x2A}},
    {DataType::kDomain, "01 02 03 04 05", {1, 2, 3, 4, 5}},
    {DataType::kTimeOfDay, "01 02 03 04 05 06", {1, 2, 3, 4, 5, 6}},
};

TEST(DataTypesTest, EveryTypeIsReadAndShown) {
  for (const Row& row : kValues) {
    SCOPED_TRACE(std::string(TypeName(row.type)) + " " + row.text);
    EXPECT_EQ(ParseValue(row.type, row.text), row.bytes);
    EXPECT_EQ(ValueText(row.type, row.bytes), row.text);
    if (SizeOf(row.type) != 0) {
      EXPECT_EQ(row.bytes.size(), SizeOf(row.type));
    }
    EXPECT_EQ(FindDataType(static_cast<unsigned>(row.type)), row.type);
  }
  EXPECT_EQ(FindDataType(0), std::nullopt);
  EXPECT_EQ(FindDataType(0x0E), std::nullopt);
  EXPECT_EQ(FindDataType(0x20), std::nullopt);  // a record
  EXPECT_EQ(FindDataType(0x10001), std::nullopt);
}

TEST(DataTypesTest, NumbersAreWrittenInSeveralWays) {
  EXPECT_EQ(ParseValue(DataType::kUnsigned16, "0x05DC"), (Bytes{0xDC, 0x05}));
  EXPECT_EQ(ParseValue(DataType::kUnsigned16, "0X5dc"), (Bytes{0xDC, 0x05}));
  EXPECT_EQ(ParseValue(DataType::kUnsigned16, "+7"), (Bytes{7, 0}));
  EXPECT_EQ(ParseValue(DataType::kUnsigned16, "010"), (Bytes{10, 0}));
  EXPECT_EQ(ParseValue(DataType::kUnsigned16, "010", Octal::kLeadingZero), (Bytes{8, 0}));
  EXPECT_EQ(ParseValue(DataType::kUnsigned16, "0", Octal::kLeadingZero), (Bytes{0, 0}));
  EXPECT_EQ(ParseValue(DataType::kInteger16, "-0x10"), (Bytes{0xF0, 0xFF}));
  EXPECT_EQ(ParseValue(DataType::kInteger16, "0xFFFE"), (Bytes{0xFE, 0xFF})) << "bits of the type";
  EXPECT_EQ(ParseValue(DataType::kReal32, "+1.5e0"), (Bytes{0, 0, 0xC0, 0x3F}));
  EXPECT_EQ(ParseValue(DataType::kReal32, "0x3FC00000"), (Bytes{0, 0, 0xC0, 0x3F}));
  EXPECT_EQ(ParseValue(DataType::kOctetString, "0x00ff2a"), (Bytes{0x00, 0xFF, 0x2A}));
}

TEST(DataTypesTest, WhatIsNoValueOfTheTypeIsNamed) {
  struct Bad {
    DataType type;
    const char* text;
    const char* message;
  };
  const Bad rows[] = {
      {DataType::kBoolean, "2", "2 is not between 0 and 1"},
      {DataType::kUnsigned8, "256", "256 is not between 0 and 255"},
      {DataType::kUnsigned8, "-1", "-1 is not between 0 and 255"},
      {DataType::kUnsigned8, "0x100", "0x100 is not between 0 and 255"},
      {DataType::kUnsigned8, "", "\"\" is not a number"},
      {DataType::kUnsigned8, "-", "\"-\" is not a number"},
      {DataType::kUnsigned8, "--1", "\"--1\" is not a number"},
      {DataType::kUnsigned8, "0x", "\"0x\" is not a number"},
      {DataType::kUnsigned8, "1 ", "\"1 \" is not a number"},
      {DataType::kUnsigned8, "1.5", "\"1.5\" is not a number"},
      {DataType::kInteger8, "128", "128 is not between -128 and 127"},
      {DataType::kInteger8, "-129", "-129 is not between -128 and 127"},
      {DataType::kInteger8, "+0x80", "+0x80 is not between -128 and 127"},
      {DataType::kInteger64, "9223372036854775808",
       "9223372036854775808 is not between -9223372036854775808 and 9223372036854775807"},
      {DataType::kUnsigned64, "18446744073709551616",
       "18446744073709551616 is not between 0 and 18446744073709551615"},
      {DataType::kReal32, "1e39", "1e39 is out of the range of the type"},
      {DataType::kReal32, "nan", "\"nan\" is not a number"},
      {DataType::kReal32, "1,5", "\"1,5\" is not a number"},
      {DataType::kReal32, "0x1FFFFFFFF", "0x1FFFFFFFF has more than 32 bits"},
      {DataType::kVisibleString, "a\tb",
       "a character that is not printable ASCII; write it as \\xNN"},
      {DataType::kUnicodeString, "\xE2\x82\xAC",
       "a character that is not printable ASCII; write it as \\uNNNN"},
      {DataType::kOctetString, "0", "\"0\" is not a row of hexadecimal bytes"},
      {DataType::kDomain, "0G", "\"0G\" is not a row of hexadecimal bytes"},
      {DataType::kTimeOfDay, "01", "TIME_OF_DAY has 6 bytes, not 1"},
  };
  for (const Bad& row : rows) {
    try {
      ParseValue(row.type, row.text);
      ADD_FAILURE() << TypeName(row.type) << " took " << row.text;
    } catch (const ValueError& error) {
      EXPECT_STREQ(error.what(), row.message);
    }
  }
  EXPECT_THROW(ParseValue(DataType::kUnsigned8, "08", Octal::kLeadingZero), ValueError);
}

TEST(DataTypesTest, BytesThatAreNotOfTheSizeAreShownAsTheyAre) {
  EXPECT_EQ(ValueText(DataType::kUnsigned32, {0x01, 0x02}), "01 02");
  EXPECT_EQ(ValueText(DataType::kReal64, {}), "");
  EXPECT_EQ(ValueText(DataType::kUnicodeString, {0x41}), "41");
}

TEST(DataTypesTest, NumbersAreComparedAsTheTypeHasThem) {
  EXPECT_LT(CompareValues(DataType::kInteger16, {0xFF, 0xFF}, {0, 0}), 0);
  EXPECT_GT(CompareValues(DataType::kUnsigned16, {0xFF, 0xFF}, {0, 0}), 0);
  EXPECT_EQ(CompareValues(DataType::kUnsigned16, {7, 0}, {7, 0}), 0);
  EXPECT_LT(CompareValues(DataType::kReal32, ParseValue(DataType::kReal32, "-2"),
                          ParseValue(DataType::kReal32, "1")),
            0);
  EXPECT_GT(CompareValues(DataType::kReal64, ParseValue(DataType::kReal64, "-1"),
                          ParseValue(DataType::kReal64, "-2")),
            0);
  EXPECT_GT(
      CompareValues(DataType::kUnsigned64, ParseValue(DataType::kUnsigned64, "0x8000000000000000"),
                    ParseValue(DataType::kUnsigned64, "1")),
      0);
}

}  // namespace
}  // namespace motorctl
