// Frames and logs in words.
#include "decode.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace motorctl {
namespace {

using motor_driver::FindMake;

Meaning Decode(const std::string& line, const std::string& make = {}) {
  const auto frame = ParseLogLine(line);
  EXPECT_TRUE(frame.has_value()) << line;
  return frame ? DecodeFrame(*frame, FindMake(make)) : Meaning();
}

std::string Text(const std::string& line, const std::string& make = {}) {
  return Decode(line, make).text;
}

struct Result {
  std::vector<std::string> lines;
  std::size_t malformed = 0;
};

Result DecodeText(const std::string& log, const std::string& make = {}, bool json = false) {
  Result result;
  std::istringstream stream(log);
  result.malformed = DecodeLog(stream, {FindMake(make), json},
                               [&](const std::string& line) { result.lines.push_back(line); });
  return result;
}

std::string ReadFile(const std::string& name) {
  std::ifstream file(std::string(DATA_DIRECTORY) + "/" + name);
  std::ostringstream text;
  text << file.rdbuf();
  EXPECT_FALSE(text.str().empty()) << name;
  return text.str();
}

// ---- Forms of lines

TEST(DecodeTest, TakesEveryFormOfLineThatCandumpWrites) {
  for (const char* line :
       {"(1690000000.123456) can0 601#2B4060000F000000",
        "(1690000000.123456) can0 601#2B4060000F000000 R",
        "(1690000000.123456) can0 601#2B4060000F000000\r", "601#2B4060000F000000",
        "601#2b4060000f000000", "  can0  601   [8]  2B 40 60 00 0F 00 00 00",
        " (000.000000)  can0  601   [8]  2B 40 60 00 0F 00 00 00",
        " (2023-07-22 04:26:40.123456)  can0  601   [8]  2B 40 60 00 0F 00 00 00   '+@`.....'",
        " (000.000000)  can0  RX - -  601   [8]  2B 40 60 00 0F 00 00 00"}) {
    EXPECT_EQ(Text(line), "SDO node 1: write 0x6040:00 Controlword = 0x000F Enable operation")
        << line;
  }
  EXPECT_EQ(ParseLogLine("(12.5) can0 080#")->time, "12.5");
  EXPECT_EQ(ParseLogLine("(12.5) can0 080#")->interface, "can0");
  EXPECT_EQ(ParseLogLine(" (2023-07-22 04:26:40.1)  vcan0  080   [0]")->time,
            "2023-07-22 04:26:40.1");
}

TEST(DecodeTest, TakesNothingElseForAFrame) {
  for (const char* line : {"",
                           " ",
                           "can0",
                           "(1.0)",
                           "(1.0 can0 601#00",
                           "(1.0) can0",
                           "(1.0) can0 601#0",
                           "(1.0) can0 601#0G",
                           "(1.0) can0 #00",
                           "(1.0) can0 60#00",
                           "(1.0) can0 0601#00",
                           "(1.0) can0 801#00",
                           "(1.0) can0 601#000102030405060708",
                           "(1.0) can0 601#R9",
                           "(1.0) can0 601##",
                           "(1.0) can0 601#00 X",
                           "(1.0) can0 601#00 R R",
                           "can0 601 [8] 2B",
                           "can0 601 [9] 00 01 02 03 04 05 06 07 08",
                           "can0 601 8 2B",
                           "can0 601",
                           "can0 RX",
                           "can0 601 [-1]",
                           "can0 601 [99999999999] 00",
                           "(1.0) can0 FFFFFFFFF#00",
                           "(1.0) can0 601#-100"}) {
    EXPECT_FALSE(ParseLogLine(line).has_value()) << line;
  }
}

// ---- Functions of CANopen

TEST(DecodeTest, NamesNetworkManagement) {
  EXPECT_EQ(Text("000#0101"), "NMT: start, node 1");
  EXPECT_EQ(Text("000#8100"), "NMT: reset, all nodes");
  EXPECT_EQ(Text("000#817F"), "NMT: reset, node 127");
  EXPECT_EQ(Text("000#81"), "NMT command of wrong length: 81");
  EXPECT_EQ(Text("701#00"), "boot-up of node 1");
  EXPECT_EQ(Text("77F#7F"), "heartbeat of node 127: pre-operational");
  EXPECT_EQ(Text("701#85"), "heartbeat of node 1: operational");
  EXPECT_EQ(Text("701#"), "heartbeat of wrong length: ");
  EXPECT_EQ(Text("701#R"), "node guarding request to node 1");
  EXPECT_EQ(Text("080#"), "SYNC");
  EXPECT_EQ(Text("080#11"), "SYNC 17");
  EXPECT_EQ(Text("100#E80300000A00"),
            "time stamp: day 10 after 1984-01-01, 1000 ms after midnight");
}

TEST(DecodeTest, ExplainsEmergencies) {
  EXPECT_EQ(Text("082#0000000000000000"),
            "emergency of node 2: 0x0000 No error; error register 0x00 no error");
  EXPECT_EQ(Text("081#3081110102030405"),
            "emergency of node 1: 0x8130 Life guard or heartbeat missing; error register 0x11 "
            "generic, communication; manufacturer bytes 01 02 03 04 05");
  EXPECT_EQ(Text("081#3081"), "emergency message of wrong length: 30 81");
}

TEST(DecodeTest, ExplainsExpeditedTransfers) {
  EXPECT_EQ(Text("601#2F60600003000000"),
            "SDO node 1: write 0x6060:00 Modes of operation = 3 Profile velocity");
  EXPECT_EQ(Text("581#6060600000000000"), "SDO node 1: written 0x6060:00 Modes of operation");
  EXPECT_EQ(Text("67F#4041600000000000"), "SDO node 127: read 0x6041:00 Statusword");
  EXPECT_EQ(Text("601#433F600000000000"), "SDO node 1: read 0x603F:00 Error code");
  EXPECT_EQ(Text("581#4B3F600010320000"),
            "SDO node 1: value 0x603F:00 Error code = 0x3210 DC link over voltage");
  EXPECT_EQ(Text("581#4F61600003000000"),
            "SDO node 1: value 0x6061:00 Modes of operation display = 3 Profile velocity");
  // 3 bytes; size not given.
  EXPECT_EQ(Text("601#2700200001020300"), "SDO node 1: write 0x2000:00 = 0x030201 (197121)");
  EXPECT_EQ(Text("581#4200200001020304"), "SDO node 1: value 0x2000:00 = 0x04030201 (67305985)");
  EXPECT_EQ(Text("581#8000200011000906"),
            "SDO node 1: abort 0x2000:00: 0x06090011 Sub-index does not exist");
  EXPECT_EQ(Text("601#8041600000000405"),
            "SDO node 1: abort 0x6041:00 Statusword: 0x05040000 SDO protocol timed out");
  EXPECT_EQ(Text("581#6060"), "SDO of wrong length: 60 60");
}

TEST(DecodeTest, ExplainsSegmentedAndBlockTransfers) {
  EXPECT_EQ(Text("581#410810000C000000"),
            "SDO node 1: value 0x1008:00 Manufacturer device name in segments, 12 bytes");
  EXPECT_EQ(Text("601#6000000000000000"), "SDO node 1: read next segment");
  EXPECT_EQ(Text("581#006D6F746F722D64"), "SDO node 1: segment: 6D 6F 74 6F 72 2D 64");
  EXPECT_EQ(Text("581#1572697665000000"), "SDO node 1: last segment: 72 69 76 65 00");
  EXPECT_EQ(Text("601#210010000A000000"),
            "SDO node 1: write 0x1000:00 Device type in segments, 10 bytes");
  EXPECT_EQ(Text("601#2000100000000000"), "SDO node 1: write 0x1000:00 Device type in segments");
  EXPECT_EQ(Text("581#2000000000000000"), "SDO node 1: segment written");
  EXPECT_EQ(Text("601#C200200000000000"), "SDO node 1: block transfer: C2 00 20 00 00 00 00 00");
}

TEST(DecodeTest, HandlesFramesThatAreNotCanOpen) {
  EXPECT_EQ(Text("18FEF100#00"), "29-bit identifier, no CANopen frame");
  EXPECT_EQ(Text("123##1AABB"), "CAN FD, no CANopen frame");
  EXPECT_EQ(Text("can0 123 [12] 00 01 02 03 04 05 06 07 08 09 0A 0B"), "CAN FD, no CANopen frame");
  EXPECT_EQ(Text("601#R8"), "remote request");
  EXPECT_EQ(Text("can0 601 [0] remote request"), "remote request");
  EXPECT_EQ(Text("20000040#0000000000000000"), "error reported by the controller: bus off");
  EXPECT_EQ(Text("can0 200000A8 [8] 00 00 00 00 00 00 00 00 ERRORFRAME"),
            "error reported by the controller: protocol violation, no acknowledge, bus error");
  EXPECT_EQ(Text("20000000#"), "error reported by the controller: unknown");
  EXPECT_EQ(Text("7E5#04"), "no CANopen function at 0x7E5: 04");
  EXPECT_EQ(Text("001#1010"), "no CANopen function at 0x001: 10 10");
  EXPECT_EQ(Text("180#00"), "no CANopen function at 0x180: 00");
}

// ---- PDOs of the makes

TEST(DecodeTest, NamesPdosWithoutAMake) {
  EXPECT_EQ(Text("181#01000000"), "TPDO1 of node 1: 01 00 00 00");
  EXPECT_EQ(Text("201#01"), "RPDO1 of node 1: 01");
  EXPECT_EQ(Text("2FF#01"), "TPDO2 of node 127: 01");
  EXPECT_EQ(Text("302#01"), "RPDO2 of node 2: 01");
  EXPECT_EQ(Text("382#01"), "TPDO3 of node 2: 01");
  EXPECT_EQ(Text("402#01"), "RPDO3 of node 2: 01");
  EXPECT_EQ(Text("482#01"), "TPDO4 of node 2: 01");
  EXPECT_EQ(Text("502#01"), "RPDO4 of node 2: 01");
}

TEST(DecodeTest, DecodesThePdosOfEveryMake) {
  struct Case {
    const char* make;
    const char* frame;
    const char* values;
  };
  for (const Case& test : std::vector<Case>{
           {"zl", "203#3C000000E2FFFFFF", R"({"target_velocity_1":60,"target_velocity_2":-30})"},
           {"zl", "183#D4020000FFFFFFFF", R"({"position_1":724,"position_2":-1})"},
           {"zl", "483#1032000037063102", R"({"error_code":12816,"statusword":36767287})"},
           {"tt", "201#C4FFFFFF", R"({"target_velocity":-60})"},
           {"tt", "181#00000080", R"({"position":-2147483648})"},
           {"hls", "201#A8FDFFFF", R"({"target_velocity":-600})"},
           {"hls", "180#FFFFFF7F", R"({"position":2147483647})"},
           {"hls", "481#10323702", R"({"error_code":12816,"statusword":567})"},
           {"amps", "182#3702000001000000", R"({"first_bytes":567,"position":1})"},
           {"kinco", "204#D87F0200", R"({"target_velocity":163800})"},
           {"kinco", "184#18FCFFFF", R"({"position":-1000})"},
           {"kinco", "484#102350020100",
            R"({"error_code":8976,"statusword":592,"digital_inputs":1})"}}) {
    const Meaning meaning = Decode(test.frame, test.make);
    EXPECT_EQ(meaning.kind, "pdo") << test.frame;
    EXPECT_EQ(meaning.fields["values"].dump(), test.values) << test.make << " " << test.frame;
  }
  EXPECT_EQ(Text("203#3C000000E2FFFFFF", "zl"),
            "RPDO1 of node 3: target velocity 1 = 60 | target velocity 2 = -30");
  EXPECT_EQ(Text("281#01", "zl"), "TPDO2 of node 1: 01");
  EXPECT_EQ(Text("201#01", "amps"), "RPDO1 of node 1: 01");
  EXPECT_EQ(Text("201#01", "fake"), "RPDO1 of node 1: 01");
}

TEST(DecodeTest, SaysWhenAPdoIsTooShortForTheMake) {
  EXPECT_EQ(Text("181#D4020000", "zl"),
            "TPDO1 of node 1: position 1 = 724 | too short for this make: D4 02 00 00");
  EXPECT_EQ(Text("181#", "tt"), "TPDO1 of node 1: too short for this make: ");
}

TEST(DecodeTest, KnowsWhatIsSpecialToAMake) {
  EXPECT_EQ(Text("001#1010", "tt"), "activation of node 1");
  EXPECT_EQ(Text("001#1011", "tt"), "no CANopen function at 0x001: 10 11");
  EXPECT_EQ(Text("600#2300530064000000", "hls"), "SDO node 0: write 0x5300:00 Axis 3 P gain = 100");
}

// ---- Logs

class RecordedLogTest : public testing::TestWithParam<const char*> {};

// Recorded from the simulated drives; the plain one with `candump -t a`, of a ZL drive.
TEST_P(RecordedLogTest, IsAnnotatedWordForWord) {
  const std::string name = GetParam();
  const Result result = DecodeText(ReadFile(name + ".log"), name == "plain" ? "zl" : name);
  EXPECT_EQ(result.malformed, 0U);
  std::string text;
  for (const std::string& line : result.lines) text += line + "\n";
  EXPECT_EQ(text, ReadFile(name + ".txt"));
}

TEST_P(RecordedLogTest, GivesOneJsonObjectForEachLine) {
  const std::string name = GetParam();
  const std::string log = ReadFile(name + ".log");
  const Result plain = DecodeText(log, name);
  const Result result = DecodeText(log, name, true);
  ASSERT_EQ(result.lines.size(), plain.lines.size());
  for (std::size_t i = 0; i < result.lines.size(); ++i) {
    const auto object = nlohmann::json::parse(result.lines[i]);
    EXPECT_EQ(object.at("interface"), "can1");
    EXPECT_FALSE(object.at("time").get<std::string>().empty());
    const auto frame = ParseLogLine(object.at("frame"));
    ASSERT_TRUE(frame.has_value()) << result.lines[i];
    const auto text = object.at("text").get<std::string>();
    EXPECT_EQ(plain.lines[i].substr(plain.lines[i].size() - text.size()), text);
    EXPECT_EQ(DecodeFrame(*frame, FindMake(name)).text, text);
  }
}

INSTANTIATE_TEST_SUITE_P(Makes, RecordedLogTest,
                         testing::Values("zl", "tt", "hls", "amps", "kinco", "plain"),
                         [](const auto& make) { return std::string(make.param); });

TEST(DecodeTest, PassesMalformedLinesThroughMarkedAndCounted) {
  const Result result = DecodeText(
      "(1.0) can0 080#\n"
      "\n"
      "no frame\n"
      "(1.0) can0 601#2B406000\x1b[31m\xff\n"
      "(2.0) can0 701#05");
  EXPECT_EQ(result.malformed, 2U);
  EXPECT_EQ(result.lines,
            (std::vector<std::string>{
                "(1.0) can0 080#                                 SYNC",
                "no frame                                        ??? no frame in this line",
                "(1.0) can0 601#2B406000\\x1B[31m\\xFF             ??? no frame in this line",
                "(2.0) can0 701#05                               heartbeat of node 1: operational",
            }));
}

TEST(DecodeTest, GivesMalformedLinesToProgramsToo) {
  const Result result = DecodeText("(1.5) can0 701#05\n\"\xff\\\n", "", true);
  EXPECT_EQ(result.malformed, 1U);
  EXPECT_EQ(result.lines,
            (std::vector<std::string>{
                R"({"time":"1.5","interface":"can0","frame":"701#05","id":1793,"kind":"heartbeat",)"
                R"("node":1,"state":"operational","text":"heartbeat of node 1: operational"})",
                R"({"kind":"malformed","line":"\"\\xFF\\","text":"no frame in this line"})",
            }));
  EXPECT_EQ(nlohmann::json::parse(result.lines[1]).at("line"), "\"\\xFF\\");
}

TEST(DecodeTest, CutsLinesThatAreTooLong) {
  const std::string longest(1024, 'x');
  const Result result = DecodeText(longest + "\n" + longest + "x\n" + std::string(5000000, '\0'));
  EXPECT_EQ(result.malformed, 3U);
  ASSERT_EQ(result.lines.size(), 3U);
  EXPECT_EQ(result.lines[0], longest + "  ??? no frame in this line");
  EXPECT_EQ(result.lines[1], longest + "  ??? line too long");
  EXPECT_EQ(result.lines[2].size(), 1024 * 4 + std::string("  ??? line too long").size());
}

// Odd bytes at every place of a good line, and every place cut off: no crash, and always one line.
TEST(DecodeTest, SurvivesAnyChangeOfAByte) {
  for (const std::string good : {"(1690000000.123456) can0 601#2B4060000F000000",
                                 " (1.0)  can0  601   [8]  2B 40 60 00 0F 00 00 00"}) {
    for (std::size_t at = 0; at < good.size(); ++at) {
      for (const char byte : std::string("\0\t\r \"#()-9FGR[]_\\\x7f\x80\xc3\xff", 22)) {
        std::string line = good;
        line[at] = byte;
        const Result result = DecodeText(line, "zl", true);
        ASSERT_EQ(result.lines.size(), 1U);
        ASSERT_TRUE(nlohmann::json::accept(result.lines[0])) << result.lines[0];
      }
      EXPECT_LE(DecodeText(good.substr(0, at), "zl").lines.size(), 1U);
    }
  }
}

// All functions and SDO commands, all lengths, all makes.
TEST(DecodeTest, SaysSomethingAboutEveryFrame) {
  LoggedFrame frame;
  std::vector<const Make*> makes = {nullptr};
  for (const Make& make : motor_driver::Makes()) makes.push_back(&make);
  for (const Make* const make : makes) {
    for (frame.id = 0; frame.id <= 0x7FF; frame.id += 0x3F) {
      for (unsigned byte = 0; byte < 256; byte += 0x11) {
        frame.data[0] = static_cast<std::uint8_t>(byte);
        for (frame.length = 0; frame.length <= 8; ++frame.length) {
          const Meaning meaning = DecodeFrame(frame, make);
          ASSERT_FALSE(meaning.text.empty() || meaning.kind.empty());
          ASSERT_TRUE(meaning.fields.is_object()) << meaning.fields;
        }
      }
    }
  }
}

}  // namespace
}  // namespace motorctl
