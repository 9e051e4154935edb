// What a data sheet says to a value that is read or written.
#include "sheet_values.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "eds_text.h"

namespace motorctl {
namespace {

TEST(SheetValuesTest, JsonHasNumbersWhereItCanHoldThem) {
  const auto json = [](DataType type, const char* text) {
    return ValueJson(type, ParseValue(type, text)).dump();
  };
  EXPECT_EQ(json(DataType::kInteger16, "-2"), "-2");
  EXPECT_EQ(json(DataType::kUnsigned64, "18446744073709551615"), "18446744073709551615");
  EXPECT_EQ(json(DataType::kBoolean, "1"), "1");
  EXPECT_EQ(json(DataType::kReal32, "0.1"), "0.1");
  EXPECT_EQ(json(DataType::kReal64, "-2.5e-7"), "-2.5e-07");
  EXPECT_EQ(json(DataType::kReal32, "inf"), "\"inf\"");
  EXPECT_EQ(json(DataType::kReal32, "0x7FC00000"), "\"0x7FC00000\"");
  EXPECT_EQ(json(DataType::kVisibleString, "12"), "\"12\"");
  EXPECT_EQ(json(DataType::kOctetString, "12"), "\"12\"");
  EXPECT_EQ(ValueJson(DataType::kUnsigned32, {1, 2}).dump(), "\"01 02\"");
}

TEST(SheetValuesTest, WhatIsAgainstWritingIsSaid) {
  const Eds eds = EdsOf(kEds);
  const EdsObject& limited = *eds.Find(0x1014, 0);
  EXPECT_EQ(AgainstWriting(limited, {0x80, 0, 0, 0}, 1, "x.eds"), "");
  EXPECT_EQ(AgainstWriting(limited, {0, 8, 0, 0}, 1, "x.eds"),
            "2048 is above the high limit 2047 in x.eds");
  EXPECT_EQ(AgainstWriting(limited, {0x80, 0}, 1, "x.eds"),
            "size 2, but UNSIGNED32 of size 4 in x.eds");
  EXPECT_EQ(AgainstWriting(*eds.Find(0x1000, 0), {0, 0, 0, 0}, 1, "x.eds"),
            "read-only (const) in x.eds");
  EXPECT_EQ(AgainstWriting(*eds.Find(0x1018, 1), {0, 0, 0, 0}, 1, "x.eds"),
            "read-only (ro) in x.eds");
  EXPECT_EQ(AgainstWriting(*eds.Find(0x2000, 0), {'a', 'b', 'c'}, 1, "x.eds"), "");
}

}  // namespace
}  // namespace motorctl
