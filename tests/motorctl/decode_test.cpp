// Frames and logs in words.
#include "decode.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
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

TEST(DecodeTest, TakesTheDirection) {
  using Direction = LoggedFrame::Direction;
  const auto direction = [](const char* line) { return ParseLogLine(line)->direction; };
  EXPECT_EQ(direction("(12.5) can0 080#"), Direction::kUnknown);
  EXPECT_EQ(direction("(12.5) can0 080# R"), Direction::kReceived);
  EXPECT_EQ(direction("(12.5) can0 080# T"), Direction::kSent);
  EXPECT_EQ(direction("(12.5)  can0  RX - -  080   [0]"), Direction::kReceived);
  EXPECT_EQ(direction("(12.5)  can0  TX - -  080   [0]"), Direction::kSent);
  EXPECT_EQ(direction("0.029472 1  601  Rx   d 1 2B"), Direction::kReceived);
  EXPECT_EQ(direction("0.029472 1  601  Tx   d 1 2B"), Direction::kSent);
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
  // Blocks, sent by the host and by the node.
  EXPECT_EQ(Text("601#C60810000A000000"),
            "SDO node 1: write 0x1008:00 Manufacturer device name in blocks, 10 bytes");
  EXPECT_EQ(Text("601#C408100000000000"),
            "SDO node 1: write 0x1008:00 Manufacturer device name in blocks");
  EXPECT_EQ(Text("581#A408100002000000"),
            "SDO node 1: ready for 0x1008:00 Manufacturer device name in blocks of 2 segments");
  EXPECT_EQ(Text("581#A202030000000000"),
            "SDO node 1: taken up to segment 2, next block of 3 segments");
  EXPECT_EQ(Text("601#D534120000000000"),
            "SDO node 1: end of the blocks, 2 bytes in the last segment, CRC 0x1234");
  EXPECT_EQ(Text("581#A100000000000000"), "SDO node 1: blocks written");
  EXPECT_EQ(Text("581#A300000000000000"), "SDO node 1: unknown command: A3 00 00 00 00 00 00 00");
  EXPECT_EQ(Text("601#A40810007F000000"),
            "SDO node 1: read 0x1008:00 Manufacturer device name in blocks of 127 segments");
  EXPECT_EQ(Text("581#C60810000A000000"),
            "SDO node 1: value 0x1008:00 Manufacturer device name in blocks, 10 bytes");
  EXPECT_EQ(Text("601#A300000000000000"), "SDO node 1: start of the blocks");
  EXPECT_EQ(Text("601#A202030000000000"),
            "SDO node 1: taken up to segment 2, next block of 3 segments");
  EXPECT_EQ(Text("581#C1FFFF0000000000"),
            "SDO node 1: end of the blocks, 7 bytes in the last segment, CRC 0xFFFF");
  EXPECT_EQ(Text("601#A100000000000000"), "SDO node 1: blocks taken");
  EXPECT_EQ(Text("601#E000000000000000"), "SDO node 1: unknown command: E0 00 00 00 00 00 00 00");
}

TEST(DecodeTest, HandlesFramesThatAreNotCanOpen) {
  EXPECT_EQ(Text("18FEF100#00"), "29-bit identifier, no CANopen frame");
  EXPECT_EQ(Text("123##1AABB"), "CAN FD, no CANopen frame");
  EXPECT_EQ(Text("can0 123 [12] 00 01 02 03 04 05 06 07 08 09 0A 0B"), "CAN FD, no CANopen frame");
  EXPECT_EQ(Text("601#R8"), "remote request");
  EXPECT_EQ(Text("can0 601 [0] remote request"), "remote request");
  EXPECT_EQ(Text("001#1010"), "no CANopen function at 0x001: 10 10");
  EXPECT_EQ(Text("180#00"), "no CANopen function at 0x180: 00");
}

TEST(DecodeTest, ExplainsErrorFrames) {
  const auto text = [](const char* frame) {
    const std::string title = "error reported by the controller: ";
    const std::string whole = Text(frame);
    EXPECT_EQ(whole.substr(0, title.size()), title);
    return whole.substr(title.size());
  };
  EXPECT_EQ(text("20000040#0000000000000000"), "bus off");
  EXPECT_EQ(text("can0 200000A8 [8] 00 00 00 00 00 00 00 00 ERRORFRAME"),
            "protocol violation, no acknowledge, bus error");
  EXPECT_EQ(text("20000000#"), "unknown");
  EXPECT_EQ(text("20000002#0B"), "arbitration lost (at bit 11)");
  EXPECT_EQ(text("20000004#0041000000000000"),
            "controller problem (receive buffer overflow, error-active again)");
  EXPECT_EQ(text("20000008#0000841B00000000"),
            "protocol violation (bit stuffing, while transmitting, in: acknowledge delimiter)");
  EXPECT_EQ(text("20000008#0000000100000000"), "protocol violation (in: 0x01)");
  EXPECT_EQ(text("20000010#0000000074000000"),
            "transceiver (CANH: no wire, CANL: short to ground)");
  EXPECT_EQ(text("20000010#0000000001000000"), "transceiver (0x01)");
  // Bytes of a class that is not reported mean nothing.
  EXPECT_EQ(text("20000020#05FFFFFFFF000000"), "no acknowledge");
  EXPECT_EQ(text("20000200#0000000000000A03"),
            "error counters; transmit errors 10, receive errors 3");
  EXPECT_EQ(Decode("20000204#0020000000008000").fields.text(),
            R"("errors":["controller problem","error counters"],)"
            R"("details":["error-passive by transmit errors"],)"
            R"("transmit_errors":128,"receive_errors":0)");
}

TEST(DecodeTest, ExplainsLayerSettingServices) {
  EXPECT_EQ(Text("7E5#0401000000000000"), "LSS: all nodes: configuration");
  EXPECT_EQ(Text("7E5#0400000000000000"), "LSS: all nodes: waiting");
  EXPECT_EQ(Text("7E5#40FF000100000000"), "LSS: select vendor-ID 0x000100FF");
  EXPECT_EQ(Text("7E5#4301000000000000"), "LSS: select serial number 0x00000001");
  EXPECT_EQ(Text("7E4#4400000000000000"), "LSS: node selected");
  EXPECT_EQ(Text("7E5#1105000000000000"), "LSS: set node-ID 5");
  EXPECT_EQ(Text("7E4#1100000000000000"), "LSS: node-ID: done");
  EXPECT_EQ(Text("7E4#1101000000000000"), "LSS: node-ID: refused: out of range");
  EXPECT_EQ(Text("7E4#11FF070000000000"), "LSS: node-ID: refused: error of the maker 0x07");
  EXPECT_EQ(Text("7E5#1300020000000000"), "LSS: set bit rate: 500 kbit/s");
  EXPECT_EQ(Text("7E5#1380020000000000"), "LSS: set bit rate: entry 2 of table 128");
  EXPECT_EQ(Text("7E4#1301000000000000"), "LSS: bit rate: refused: not supported");
  EXPECT_EQ(Text("7E5#15E8030000000000"), "LSS: use the bit rate after 1000 ms");
  EXPECT_EQ(Text("7E5#1700000000000000"), "LSS: store the settings");
  EXPECT_EQ(Text("7E4#1702000000000000"), "LSS: storing: refused: no access to the memory");
  EXPECT_EQ(Text("7E5#4901000000000000"), "LSS: who has highest revision 0x00000001");
  EXPECT_EQ(Text("7E5#4C00000000000000"), "LSS: who has no node-ID");
  EXPECT_EQ(Text("7E4#4F00000000000000"), "LSS: node found");
  EXPECT_EQ(Text("7E4#5000000000000000"), "LSS: node without node-ID found");
  EXPECT_EQ(Text("7E5#5100000000800000"), "LSS: fast scan: who is there");
  EXPECT_EQ(Text("7E5#51000000801F0301"),
            "LSS: fast scan: serial number 0x80000000 from bit 31 up");
  EXPECT_EQ(Text("7E5#5B00000000000000"), "LSS: ask for the product code");
  EXPECT_EQ(Text("7E4#5B02000000000000"), "LSS: product code 0x00000002");
  EXPECT_EQ(Text("7E5#5E00000000000000"), "LSS: ask for the node-ID");
  EXPECT_EQ(Text("7E4#5EFF000000000000"), "LSS: node-ID none");
  EXPECT_EQ(Text("7E5#6000000000000000"), "LSS: unknown command: 60 00 00 00 00 00 00 00");
  EXPECT_EQ(Text("7E4#0401000000000000"), "LSS: unknown command: 04 01 00 00 00 00 00 00");
  EXPECT_EQ(Text("7E5#04"), "LSS of wrong length: 04");
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
    EXPECT_EQ(meaning.fields.Json()["values"].dump(), test.values)
        << test.make << " " << test.frame;
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
          ASSERT_TRUE(meaning.fields.Json().is_object()) << meaning.fields.text();
        }
      }
    }
  }
}

}  // namespace
}  // namespace motorctl
