#include "sim/object_dictionary.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace sim {
namespace {

class ObjectDictionaryTest : public testing::Test {
 protected:
  ObjectDictionaryTest() {
    dictionary_.Add(0x2000, 0, 1, Access::kConst, 3);
    dictionary_.Add(0x2000, 1, 2, Access::kReadWrite, 0x1234).Range(10, 0x2000);
    dictionary_.Add(0x2000, 2, 4, Access::kWriteOnly);
    dictionary_.Add(0x2000, 3, 1, Access::kReadOnly, 7);
  }
  ObjectDictionary dictionary_;
};

TEST_F(ObjectDictionaryTest, UploadsTheValueWithItsSize) {
  const auto uploaded = dictionary_.Upload(0x2000, 1);
  EXPECT_EQ(uploaded.error, AbortCode::kNone);
  EXPECT_EQ(uploaded.bytes, (Bytes{0x34, 0x12}));
}

TEST_F(ObjectDictionaryTest, KeepsWhatWasDownloaded) {
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 2, 0x0FFF), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Upload(0x2000, 1).bytes, (Bytes{0xFF, 0x0F}));
}

TEST_F(ObjectDictionaryTest, TellsAnAbsentIndexFromAnAbsentSubIndex) {
  EXPECT_EQ(dictionary_.Upload(0x2001, 0).error, AbortCode::kNoObject);
  EXPECT_EQ(dictionary_.Upload(0x1FFF, 0).error, AbortCode::kNoObject);
  EXPECT_EQ(dictionary_.Upload(0x2000, 4).error, AbortCode::kNoSubIndex);
  EXPECT_EQ(dictionary_.Download(0x2001, 0, 1, 0), AbortCode::kNoObject);
  EXPECT_EQ(dictionary_.Download(0x2000, 4, 1, 0), AbortCode::kNoSubIndex);
}

TEST_F(ObjectDictionaryTest, RefusesTheWrongDirection) {
  EXPECT_EQ(dictionary_.Upload(0x2000, 2).error, AbortCode::kWriteOnly);
  EXPECT_EQ(dictionary_.Download(0x2000, 3, 1, 0), AbortCode::kReadOnly);
  EXPECT_EQ(dictionary_.Download(0x2000, 0, 1, 0), AbortCode::kReadOnly);
}

TEST_F(ObjectDictionaryTest, RefusesAnotherSizeUnlessNoneIsIndicated) {
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 4, 100), AbortCode::kLengthTooHigh);
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 1, 100), AbortCode::kLengthTooLow);
  EXPECT_EQ(dictionary_.Get(0x2000, 1), 0x1234U);
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 0, 0xABCD0064), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Get(0x2000, 1), 0x64U);
}

TEST_F(ObjectDictionaryTest, ExtendsAShortValueWhereTheObjectTakesOne) {
  dictionary_.Add(0x2100, 0, 2, Access::kReadWrite).AcceptShort();
  EXPECT_EQ(dictionary_.Download(0x2100, 0, 1, 0x12C), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Get(0x2100, 0), 0x2CU);
  EXPECT_EQ(dictionary_.Download(0x2100, 0, 2, 0x12C), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Get(0x2100, 0), 0x12CU);
  EXPECT_EQ(dictionary_.Download(0x2100, 0, 4, 1), AbortCode::kLengthTooHigh);
}

TEST_F(ObjectDictionaryTest, ResetsToAPowerOnValueThatWasGivenLater) {
  dictionary_.SetPowerOnValue(0x2000, 1, 100);
  EXPECT_EQ(dictionary_.Get(0x2000, 1), 100U);
  dictionary_.Set(0x2000, 1, 200);
  dictionary_.Reset(0x2000, 0x2000);
  EXPECT_EQ(dictionary_.Get(0x2000, 1), 100U);
  EXPECT_THROW(dictionary_.SetPowerOnValue(0x2000, 9, 0), std::out_of_range);
}

TEST_F(ObjectDictionaryTest, KeepsTheLimitsOfARange) {
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 2, 9), AbortCode::kValueTooLow);
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 2, 10), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 2, 0x2000), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Download(0x2000, 1, 2, 0x2001), AbortCode::kValueTooHigh);
  EXPECT_EQ(dictionary_.Get(0x2000, 1), 0x2000U);
}

TEST_F(ObjectDictionaryTest, DoesNotStoreWhatAHookRefuses) {
  dictionary_.Add(0x2100, 0, 1, Access::kReadWrite, 1).OnWrite([](std::uint32_t value) {
    return value == 2 ? AbortCode::kDeviceState : AbortCode::kNone;
  });
  EXPECT_EQ(dictionary_.Download(0x2100, 0, 1, 2), AbortCode::kDeviceState);
  EXPECT_EQ(dictionary_.Get(0x2100, 0), 1U);
  EXPECT_EQ(dictionary_.Download(0x2100, 0, 1, 3), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Get(0x2100, 0), 3U);
}

TEST_F(ObjectDictionaryTest, CutsWhatAHookReadsToTheSize) {
  dictionary_.Add(0x2100, 0, 1, Access::kReadOnly).OnRead([] { return 0xFFFFFFFDU; });
  EXPECT_EQ(dictionary_.Upload(0x2100, 0).bytes, Bytes{0xFD});
}

TEST_F(ObjectDictionaryTest, KeepsAStringUpToItsLength) {
  dictionary_.AddString(0x2300, 0, Access::kReadWrite, "first", 8);
  EXPECT_EQ(dictionary_.Upload(0x2300, 0).bytes, (Bytes{'f', 'i', 'r', 's', 't'}));
  EXPECT_EQ(dictionary_.Download(0x2300, 0, Bytes(8, 'x')), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Text(0x2300, 0), "xxxxxxxx");
  EXPECT_EQ(dictionary_.Download(0x2300, 0, Bytes(9, 'y')), AbortCode::kLengthTooHigh);
  EXPECT_EQ(dictionary_.Download(0x2300, 0, Bytes()), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Text(0x2300, 0), "");
  EXPECT_EQ(dictionary_.Download(0x2300, 0, 0, 0x64636261), AbortCode::kNone);
  EXPECT_EQ(dictionary_.Text(0x2300, 0), "abcd") << "no size was indicated";
  EXPECT_EQ(dictionary_.MayDownload(0x2300, 0, 9), AbortCode::kLengthTooHigh);
  EXPECT_EQ(dictionary_.MayDownload(0x2300, 0, std::nullopt), AbortCode::kNone);
  dictionary_.Reset(0x2300, 0x2300);
  EXPECT_EQ(dictionary_.Text(0x2300, 0), "first");
}

TEST_F(ObjectDictionaryTest, ResetsOnlyTheGivenIndices) {
  dictionary_.Add(0x3000, 0, 1, Access::kReadWrite, 5);
  dictionary_.Set(0x2000, 1, 20);
  dictionary_.Set(0x3000, 0, 6);
  dictionary_.Reset(0x2000, 0x2FFF);
  EXPECT_EQ(dictionary_.Get(0x2000, 1), 0x1234U);
  EXPECT_EQ(dictionary_.Get(0x3000, 0), 6U);
}

TEST_F(ObjectDictionaryTest, ThrowsOnAnEntryDefinedTwiceAndOnAnAbsentOne) {
  EXPECT_THROW(dictionary_.Add(0x2000, 1, 1, Access::kReadOnly), std::logic_error);
  EXPECT_THROW(dictionary_.Get(0x2000, 9), std::out_of_range);
  EXPECT_THROW(dictionary_.Set(0x2000, 9, 0), std::out_of_range);
}

}  // namespace
}  // namespace sim
