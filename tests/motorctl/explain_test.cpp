// Codes in words: every reading that makes sense, labelled, and nothing that does not.
#include "explain.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace motorctl {
namespace {

using Texts = std::vector<std::string>;

Texts Readings(const std::string& code, const std::string& make = {}) {
  Texts texts;
  const auto readings = Explain(code, motor_driver::FindMake(make));
  EXPECT_TRUE(readings.has_value()) << code;
  if (!readings) return texts;
  for (const Meaning& reading : *readings) texts.push_back(reading.text);
  return texts;
}

TEST(ExplainTest, GivesEveryReadingOfSixteenBits) {
  const Texts both = {
      "error code 0x3210: DC link over voltage",
      "statusword 0x3210: Not ready to switch on; voltage enabled, remote, speed is "
      "zero, slippage too high"};
  EXPECT_EQ(Readings("0x3210"), both);
  EXPECT_EQ(Readings("0X3210"), both);
  EXPECT_EQ(Readings("12816"), both);
  EXPECT_EQ(
      Readings("0x0637"),
      (Texts{"statusword 0x0637: Operation enabled; voltage enabled, remote, target reached"}));
  EXPECT_EQ(Readings("0xFF01"), (Texts{"error code 0xFF01: Manufacturer-specific error"}));
  EXPECT_EQ(Readings("0x50", "kinco"),
            (Texts{"error code 0x0050: No error",
                   "statusword 0x0050: Switch on disabled (emergency stop); voltage enabled"}));
}

// A library log prints error codes without 0x.
TEST(ExplainTest, ReadsDigitsAsDecimalAndHexadecimal) {
  EXPECT_EQ(Readings("8611"),
            (Texts{"error code 0x21A3: unlisted code of the group Current, device input side",
                   "statusword 0x21A3: Switched on; warning, manufacturer bit 8, slippage too high",
                   "error code 0x8611: Following error"}));
  EXPECT_EQ(Readings("ff42"), (Texts{"error code 0xFF42: Manufacturer-specific error"}));
  EXPECT_EQ(Readings("8"), (Texts{"error code 0x0008: No error", "statusword 0x0008: Fault"}));
}

TEST(ExplainTest, ExplainsAbortCodes) {
  const Texts invalid = {"abort code 0x06090030: Invalid value"};
  EXPECT_EQ(Readings("0x06090030"), invalid);
  EXPECT_EQ(Readings("0x6090030"), invalid);
  EXPECT_EQ(Readings("06090030"), invalid);
  EXPECT_EQ(Readings("101253168"), invalid);
}

TEST(ExplainTest, ExplainsFramesAndLinesOfCandump) {
  EXPECT_EQ(Readings("581#8040600030000906"),
            (Texts{"SDO node 1: abort 0x6040:00 Controlword: 0x06090030 Invalid value"}));
  EXPECT_EQ(Readings("581#8040600006090030"),
            (Texts{"SDO node 1: abort 0x6040:00 Controlword: 0x30000906 unknown abort code; its "
                   "bytes reversed are 0x06090030 Invalid value"}));
  EXPECT_EQ(Readings("081#1032050000000000"),
            (Texts{"emergency of node 1: 0x3210 DC link over voltage; error register 0x05 generic, "
                   "voltage"}));
  EXPECT_EQ(Readings("(1690000000.123456) can0 705#05"),
            (Texts{"heartbeat of node 5: operational"}));
  EXPECT_EQ(Readings("  can0  705   [1]  7F"), (Texts{"heartbeat of node 5: pre-operational"}));
  EXPECT_EQ(Readings("481#102318000100", "kinco"),
            (Texts{"TPDO4 of node 1: error code = 0x2310 Continuous over current | statusword = "
                   "0x0018 Fault; voltage enabled | digital inputs = 0x0001"}));
}

TEST(ExplainTest, ExplainsPayloadsByWhatTheyCanBe) {
  EXPECT_EQ(Readings("1032010000000000"),
            (Texts{"emergency message: 0x3210 DC link over voltage; error register 0x01 generic"}));
  EXPECT_EQ(Readings("8040600030000906"),
            (Texts{"SDO response: abort 0x6040:00 Controlword: 0x06090030 Invalid value"}));
  EXPECT_EQ(Readings("4B41600037020000"),
            (Texts{"SDO request: read 0x6041:00 Statusword",
                   "SDO response: value 0x6041:00 Statusword = 0x0237 Operation enabled; voltage "
                   "enabled, remote"}));
}

TEST(ExplainTest, KnowsWhatItDoesNotKnow) {
  for (const char* code : {"0xABCD", "0x12345678", "0x99999999", "4294967296", "0x123456789",
                           "FFFFFFFFFFFFFFFF", "17F#00", "7FF#"}) {
    EXPECT_EQ(Readings(code), Texts()) << code;
  }
}

TEST(ExplainTest, RefusesWhatIsNoCode) {
  for (const char* code :
       {"", "0x", "hello", "-1", "+1", " 1", "1 ", "0x12g4", "581#1", "581#xy", "1#00", "800#00",
        "581#000102030405060708", "10000000000000000", "12 34"}) {
    EXPECT_FALSE(Explain(code, nullptr).has_value()) << code;
  }
}

TEST(ExplainTest, HandsOutFieldsForPrograms) {
  const auto readings = Explain("0x3210", nullptr);
  ASSERT_TRUE(readings && readings->size() == 2);
  EXPECT_EQ((*readings)[0].kind, "error_code");
  EXPECT_EQ((*readings)[0].fields.Json().dump(),
            R"({"value":12816,"hex":"0x3210","meaning":"DC link over voltage"})");
  EXPECT_EQ((*readings)[1].kind, "statusword");
  const auto frame = Explain("581#8040600030000906", nullptr);
  ASSERT_TRUE(frame && frame->size() == 1);
  EXPECT_EQ((*frame)[0].kind, "sdo_response");
  EXPECT_EQ((*frame)[0].fields.Json().dump(),
            R"({"node":1,"command":"abort","index":24640,"sub":0,"object":"Controlword",)"
            R"("abort_code":101253168,"abort_text":"Invalid value"})");
}

}  // namespace
}  // namespace motorctl
