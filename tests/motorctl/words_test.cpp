// Tables of words: complete, without contradictions, and equal to what the standards say.
#include "words.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <string>

namespace motorctl {
namespace {

using motor_driver::FindMake;

// As CiA 301 lists them.
const std::set<std::uint32_t> kAbortCodes = {
    0x05030000, 0x05040000, 0x05040001, 0x05040002, 0x05040003, 0x05040004, 0x05040005, 0x06010000,
    0x06010001, 0x06010002, 0x06020000, 0x06040041, 0x06040042, 0x06040043, 0x06040047, 0x06060000,
    0x06070010, 0x06070012, 0x06070013, 0x06090011, 0x06090030, 0x06090031, 0x06090032, 0x06090036,
    0x060A0023, 0x08000000, 0x08000020, 0x08000021, 0x08000022, 0x08000023, 0x08000024};

TEST(WordsTest, KnowsEveryAbortCodeAndNoOther) {
  std::set<std::string> texts;
  for (const std::uint32_t code : kAbortCodes) {
    const char* text = FindAbortCode(code);
    ASSERT_NE(text, nullptr) << Hex(code, 8);
    EXPECT_TRUE(texts.insert(text).second) << "twice: " << text;
    EXPECT_EQ(AbortCodeText(code), text);
  }
  std::size_t found = 0;
  for (std::uint32_t high = 0; high <= 0x1000; ++high) {
    for (std::uint32_t low = 0; low <= 0x100; ++low) {
      if (FindAbortCode(high << 16 | low) != nullptr) ++found;
    }
  }
  EXPECT_EQ(found, kAbortCodes.size());
  EXPECT_EQ(AbortCodeText(0x06090030), "Invalid value");
  EXPECT_EQ(AbortCodeText(0x06010002), "Attempt to write a read-only object");
  EXPECT_EQ(AbortCodeText(0), "unknown abort code");
  EXPECT_EQ(AbortCodeText(0xFFFFFFFF), "unknown abort code");
}

// The texts that the library hands out for a Kinco drive must be those of the tool.
TEST(WordsTest, ErrorCodesAreThoseOfThePackagedConfiguration) {
  std::ifstream file(PACKAGED_CONFIG);
  const std::regex row(R"re(.*\{code: 0x([0-9A-F]{4}), err_code: \d+, msg: "(.*)"\})re");
  std::map<std::uint16_t, std::string> packaged{{0, "No error"}};
  for (std::string line; std::getline(file, line);) {
    std::smatch match;
    if (!std::regex_match(line, match, row)) continue;
    packaged[static_cast<std::uint16_t>(std::stoul(match[1], nullptr, 16))] = match[2];
  }
  ASSERT_GT(packaged.size(), 100U);
  for (unsigned code = 0; code <= 0xFFFF; ++code) {
    const char* text = FindErrorCode(static_cast<std::uint16_t>(code));
    const auto row_of_file = packaged.find(static_cast<std::uint16_t>(code));
    ASSERT_EQ(text != nullptr, row_of_file != packaged.end()) << Hex(code, 4);
    if (text == nullptr) continue;
    ASSERT_EQ(text, row_of_file->second) << Hex(code, 4);
  }
}

TEST(WordsTest, ErrorCodesThatAreNotListedNameTheirGroup) {
  EXPECT_EQ(ErrorCodeText(0x3210), "DC link over voltage");
  EXPECT_EQ(ErrorCodeText(0x3219), "unlisted code of the group DC link over voltage");
  EXPECT_EQ(ErrorCodeText(0x3299), "unlisted code of the group DC link voltage");
  EXPECT_EQ(ErrorCodeText(0x3999), "unlisted code of the group Voltage");
  EXPECT_EQ(ErrorCodeText(0x0042), "No error");
  EXPECT_EQ(ErrorCodeText(0xFF42), "Manufacturer-specific error");
  EXPECT_EQ(ErrorCodeText(0x0142), "unknown error code");
  EXPECT_EQ(ErrorCodeText(0xABCD), "unknown error code");
  EXPECT_TRUE(IsErrorCode(0x3299));
  EXPECT_FALSE(IsErrorCode(0xABCD));
}

// The states as CiA 402 draws them: bits 6 to 0, x is either.
TEST(WordsTest, StatuswordsShowTheEightStates) {
  const std::map<std::string, std::string> states = {
      {"0xx0000", "Not ready to switch on"}, {"1xx0000", "Switch on disabled"},
      {"01x0001", "Ready to switch on"},     {"01x0011", "Switched on"},
      {"01x0111", "Operation enabled"},      {"00x0111", "Quick stop active"},
      {"0xx1111", "Fault reaction active"},  {"0xx1000", "Fault"}};
  std::set<std::string> seen;
  for (unsigned word = 0; word <= 0xFFFF; ++word) {
    const char* expected = nullptr;
    for (const auto& [pattern, state] : states) {
      bool matches = true;
      for (unsigned bit = 0; bit < 7; ++bit) {
        const char wanted = pattern[6 - bit];
        matches = matches && (wanted == 'x' || (wanted == '1') == ((word >> bit & 1U) != 0));
      }
      if (matches) expected = state.c_str();
    }
    const char* const state = FindState(static_cast<std::uint16_t>(word));
    ASSERT_EQ(state != nullptr, expected != nullptr) << Hex(word, 4);
    if (state == nullptr) continue;
    ASSERT_STREQ(state, expected) << Hex(word, 4);
    seen.insert(state);
  }
  EXPECT_EQ(seen.size(), 8U);
}

TEST(WordsTest, StatuswordsNameTheBitsBesidesTheState) {
  EXPECT_EQ(StatuswordText(0x0000), "Not ready to switch on");
  EXPECT_EQ(StatuswordText(0x0637), "Operation enabled; voltage enabled, remote, target reached");
  EXPECT_EQ(StatuswordText(0xFF98),
            "Fault; voltage enabled, warning, manufacturer bit 8, remote, target reached, internal "
            "limit active, speed is zero, slippage too high, manufacturer bit 14, manufacturer bit "
            "15");
  EXPECT_EQ(StatuswordText(0x0001), "no state of CiA 402");
  EXPECT_EQ(StatuswordText(0x0050), "Switch on disabled; voltage enabled");
  EXPECT_EQ(StatuswordText(0x0050, FindMake("kinco")),
            "Switch on disabled (emergency stop); voltage enabled");
  EXPECT_EQ(StatuswordText(0x0270, FindMake("kinco")),
            "Switch on disabled (emergency stop); voltage enabled, remote");
  EXPECT_EQ(StatuswordText(0x0040, FindMake("kinco")), "Switch on disabled");
}

TEST(WordsTest, ControlwordsNameCommandAndBits) {
  const std::map<std::uint16_t, std::string> words = {
      {0x0000, "Disable voltage"},
      {0x0002, "Quick stop"},
      {0x0006, "Shutdown"},
      {0x0007, "Switch on"},
      {0x000F, "Enable operation"},
      {0x0080, "Fault reset"},
      {0x0086, "Fault reset"},
      {0x010F, "Enable operation; halt"},
      {0x003F, "Enable operation; mode bit 4, mode bit 5"},
      {0x8006, "Shutdown; manufacturer bit 15"}};
  for (const auto& [word, text] : words) EXPECT_EQ(ControlwordText(word), text) << Hex(word, 4);
  for (unsigned word = 0; word <= 0xFFFF; ++word) {
    ASSERT_FALSE(ControlwordText(static_cast<std::uint16_t>(word)).empty()) << Hex(word, 4);
  }
}

TEST(WordsTest, NamesModesNmtAndErrorRegister) {
  EXPECT_EQ(ModeText(3), "Profile velocity");
  EXPECT_EQ(ModeText(5), "unknown mode");
  EXPECT_EQ(ModeText(-3), "manufacturer-specific mode");
  EXPECT_EQ(ModeText(-3, FindMake("kinco")), "Immediate speed");
  EXPECT_EQ(NmtStateText(0x00), "boot-up");
  EXPECT_EQ(NmtStateText(0x04), "stopped");
  EXPECT_EQ(NmtStateText(0x05), "operational");
  EXPECT_EQ(NmtStateText(0x7F), "pre-operational");
  EXPECT_EQ(NmtStateText(0x06), "unknown state 0x06");
  EXPECT_EQ(NmtCommandText(0x01), "start");
  EXPECT_EQ(NmtCommandText(0x02), "stop");
  EXPECT_EQ(NmtCommandText(0x80), "enter pre-operational");
  EXPECT_EQ(NmtCommandText(0x81), "reset");
  EXPECT_EQ(NmtCommandText(0x82), "reset communication");
  EXPECT_EQ(NmtCommandText(0x42), "unknown command 0x42");
  EXPECT_EQ(ErrorRegisterText(0x00), "no error");
  EXPECT_EQ(ErrorRegisterText(0x85), "generic, voltage, manufacturer");
}

TEST(WordsTest, NamesObjectsOfTheStandards) {
  EXPECT_EQ(ObjectName(0x6041, 0), "Statusword");
  EXPECT_EQ(ObjectName(0x6041, 1), "");
  EXPECT_EQ(ObjectName(0x1018, 2), "Identity: product code");
  EXPECT_EQ(ObjectName(0x1017, 0), "Producer heartbeat time");
  EXPECT_EQ(ObjectName(0x1400, 1), "RPDO1 communication: COB-ID");
  EXPECT_EQ(ObjectName(0x15FF, 2), "RPDO512 communication: transmission type");
  EXPECT_EQ(ObjectName(0x1600, 0), "RPDO1 mapping: number of objects");
  EXPECT_EQ(ObjectName(0x1803, 5), "TPDO4 communication: event timer");
  EXPECT_EQ(ObjectName(0x1A03, 3), "TPDO4 mapping: object 3");
  EXPECT_EQ(ObjectName(0x1C00, 1), "");
  EXPECT_EQ(ObjectName(0x2012, 1), "");
}

TEST(WordsTest, NamesObjectsOfTheMakes) {
  EXPECT_EQ(ObjectName(0x60FF, 2, FindMake("zl")), "Target velocity of motor 2");
  EXPECT_EQ(ObjectName(0x60FF, 0, FindMake("tt")), "Target velocity");
  EXPECT_EQ(ObjectName(0x2012, 1, FindMake("zl")), "Current limit of motor 1");
  EXPECT_EQ(ObjectName(0x2010, 0, FindMake("zl")), "Save all parameters");
  EXPECT_EQ(ObjectName(0x2010, 0x0A, FindMake("kinco")), "Digital inputs");
  EXPECT_EQ(ObjectName(0x2010, 0x0A, FindMake("zl")), "");
  EXPECT_EQ(ObjectName(0x2FF0, 9, FindMake("amps")), "Velocity command");
  EXPECT_EQ(ObjectName(0x4603, 0, FindMake("hls")), "Clear fault");
  // Parameter 0x2300 of axis 3, 0x242A of axis 1, 0x2002 of axis 0.
  EXPECT_EQ(ObjectName(0x5300, 0, FindMake("hls")), "Axis 3 P gain");
  EXPECT_EQ(ObjectName(0x342A, 0, FindMake("hls")), "Axis 1 maximum current");
  EXPECT_EQ(ObjectName(0x2002, 0, FindMake("hls")), "Axis 0 current");
}

TEST(WordsTest, FormatsValuesWithTheSignOfTheObject) {
  EXPECT_EQ(ObjectValue(0x60FF, 0, 0xFFFFFFC4, 4).number, -60);
  EXPECT_EQ(ObjectValue(0x60FF, 0, 0xFFFFFFC4, 4).text, "-60");
  EXPECT_EQ(ObjectValue(0x60FF, 0, 0xFFFFFDA8, 4, FindMake("hls")).text, "-600 (60.0 rpm)");
  EXPECT_EQ(ObjectValue(0x2FF0, 9, 0xFFE2, 2, FindMake("amps")).number, -30);
  EXPECT_EQ(ObjectValue(0x6060, 0, 0xFD, 1, FindMake("kinco")).text, "-3 Immediate speed");
  EXPECT_EQ(ObjectValue(0x1017, 0, 2000, 2).text, "2000 ms");
  EXPECT_EQ(ObjectValue(0x1A00, 1, 0x60630020, 4).text,
            "0x60630020 Position actual internal value, 32 bits");
  EXPECT_EQ(ObjectValue(0x603F, 0, 0x3210, 2).text, "0x3210 DC link over voltage");
  EXPECT_EQ(ObjectValue(0x6041, 0, 0x00310037, 4, FindMake("zl")).text,
            "0x00310037 low word: Operation enabled; voltage enabled; high word: Ready to switch "
            "on; voltage enabled");
  EXPECT_EQ(ObjectValue(0x4700, 1, 1, 1).text, "0x01 (1)");
}

}  // namespace
}  // namespace motorctl
