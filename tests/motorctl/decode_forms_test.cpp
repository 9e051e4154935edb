// Every form of log, and what its lines say beyond single frames.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "decoded_log.h"

namespace motorctl {
namespace {

struct Form {
  const char* name;
  std::map<std::string, int> others;
};

class FormTest : public testing::TestWithParam<Form> {};

// The same frames, recorded by candump with the options that the name of the file tells, by
// log2asc with those behind "asc", and by log2long.
TEST_P(FormTest, MeansTheSameInEveryForm) {
  std::vector<std::string> expected = FramesOf(ReadFile("forms/L.log")).texts;
  ASSERT_EQ(expected.size(), 31U);
  EXPECT_EQ(expected[3], "SDO node 1: write 0x6040:00 Controlword = 0x000F Enable operation");
  EXPECT_EQ(expected[18], "SDO node 1: last segment 2 of the block: 72 69 76 65 00 00 00");
  EXPECT_EQ(expected[23], "error reported by the controller: arbitration lost (at bit 5)");
  const std::string name = GetParam().name;
  if (name == "asc" || name == "asc_n_4_r") {
    // It does not tell the kind of an error.
    const std::string title = "error reported by the controller: ";
    for (std::string& text : expected) {
      if (text.find(title) == 0) text = title + "unknown";
    }
  }
  const Frames frames = FramesOf(ReadFile("forms/" + name + ".log"));
  EXPECT_EQ(frames.texts, expected);
  EXPECT_EQ(frames.others, GetParam().others);
}

const std::map<std::string, int> kDetails = {{"error_detail", 13}};
const std::map<std::string, int> kHeader = {{"log_header", 3}};
INSTANTIATE_TEST_SUITE_P(Forms, FormTest,
                         testing::Values(Form{"Lx", {}}, Form{"a", {}}, Form{"all", kDetails},
                                         Form{"asc", kHeader}, Form{"asc_n_4_r", kHeader},
                                         Form{"c", {}}, Form{"c_c", {}}, Form{"c_c_e", kDetails},
                                         Form{"e", kDetails}, Form{"i", {}}, Form{"i_a", {}},
                                         Form{"long", {}}, Form{"plain", {}}, Form{"S", {}},
                                         Form{"S_a", {}}, Form{"S_i", {}}, Form{"tA", {}},
                                         Form{"td", {}}, Form{"x", {}}),
                         [](const auto& form) { return std::string(form.param.name); });

// In this form, log2asc writes error frames as frames of data.
TEST(DecodeFormsTest, ReadsClassicFramesInTheFormOfCanFd) {
  std::vector<std::string> expected = FramesOf(ReadFile("forms/L.log")).texts;
  Frames frames = FramesOf(ReadFile("forms/asc_f.log"));
  ASSERT_EQ(frames.texts.size(), expected.size());
  expected.resize(22);
  frames.texts.resize(22);
  EXPECT_EQ(frames.texts, expected);
}

TEST(DecodeFormsTest, SaysWhatIsAboutFrames) {
  EXPECT_EQ(
      DecodeText("\tbus-off\n"
                 "\tprotocol-violation{{frame-format-error,tx-dominant-bit-error}"
                 "{acknowledge-slot}}\x1b[0m\n"
                 "\t\n")
          .lines,
      (std::vector<std::string>{
          "\tbus-off                                        of the error frame above: bus off",
          "\tprotocol-violation{{frame-format-error,tx-dominant-bit-error}{acknowledge-slot}}"
          "  of the error frame above: protocol violation: frame format error, tx dominant "
          "bit error; acknowledge slot"}));
  const Result dropped = DecodeText(ReadFile("forms/d.log"), "", true);
  EXPECT_EQ(dropped.malformed, 0U);
  ASSERT_EQ(dropped.lines.size(), 5U);
  const std::string expected =
      R"({"kind":"drop_count",)"
      R"~("line":"DROPCOUNT: dropped 57 CAN frames on 'vcan0' socket (total drops 57)",)~"
      R"("interface":"vcan0","dropped":57,"total":57,)"
      R"("text":"57 frames are missing here: candump did not read vcan0 in time; )"
      R"(missing so far: 57"})";
  EXPECT_EQ(dropped.lines[3], expected);
}

TEST(DecodeFormsTest, TakesNothingElseForANote) {
  for (const char* line : {"\tbus-offs", "\tbus-off{", "bus-off", "\tfoo",
                           "DROPCOUNT: dropped x CAN frames on 'c' socket (total drops 1)",
                           "DROPCOUNT: dropped 1 CAN frames on 'c' socket",
                           "DROPCOUNT:", "base oct timestamps absolute", "base hex", "0.5",
                           "0.5 1 2 3", "x 1 Statistic: D 0"}) {
    EXPECT_EQ(DecodeText(line).malformed, 1U) << line;
  }
}

TEST(DecodeFormsTest, ReadsWhatVectorWritesBesides) {
  const Frames frames = FramesOf(
      "date Mon Jan 1 00:00:00.000 am 2024\n"
      "base dec  timestamps relative\n"
      "// version 8.1.0\n"
      "Begin Triggerblock Mon Jan 1 00:00:00.000 am 2024\n"
      "   0.000000 Start of measurement\n"
      "   0.010000 2  1537            Tx   d 8 43 64 96 0 15 0 0 0  Length = 244015 BitCount = "
      "125\n"
      "   0.020000 1  Statistic: D 0 R 0 XD 0 XR 0 E 0 O 0 B 0.00%\n"
      "base hex  timestamps relative\n"
      "   0.030000 1  601             Tx   d 8 2B 40 60 0 F 0 0 0\n"
      "End TriggerBlock\n");
  const std::string text = "SDO node 1: write 0x6040:00 Controlword = 0x000F Enable operation";
  EXPECT_EQ(frames.texts, (std::vector<std::string>{text, text}));
  EXPECT_EQ(frames.others, (std::map<std::string, int>{{"log_header", 8}}));
  for (const char* line :
       {"0.1 1 601 Rx d", "0.1 1 601 Rx d 1", "0.1 1 601 Rx d 1 100", "0.1 1 601 Rx x 1 00",
        "0.1 1 801 Rx d 0", "0.1 x 601 Rx d 0", "0.1 1 601 d 0", "1 1 601 Rx d 0",
        "0.1 CANFD 1 Rx 123 1 0 f 65", "0.1 CANFD 1 Rx 123 1 2 1 1 00"}) {
    EXPECT_EQ(DecodeText(line).malformed, 1U) << line;
  }
}

// A raw length code (-8) stands in the place of the length.
TEST(DecodeFormsTest, ReadsRawLengthCodes) {
  EXPECT_EQ(FramesOf("can0  601   {D}  2B 40 60 00 0F 00 00 00\n"
                     "(1.0) can0 601#2B4060000F000000_D\n")
                .texts,
            std::vector<std::string>(
                2, "SDO node 1: write 0x6040:00 Controlword = 0x000F Enable operation"));
  EXPECT_EQ(DecodeText("can0  601   {8}  2B 40 60 00 0F 00 00 00\n").malformed, 1U);
}

// ---- Block transfers

std::vector<std::string> Sdo(const std::string& log) {
  std::vector<std::string> texts = FramesOf(log).texts;
  for (std::string& text : texts) {
    EXPECT_EQ(text.find("SDO node 1: "), 0U) << text;
    text.erase(0, std::string("SDO node 1: ").size());
  }
  return texts;
}

TEST(DecodeFormsTest, TellsSegmentsOfABlockFromCommands) {
  // Two blocks of a node; 40, 60 and C1 would be commands.
  EXPECT_EQ(Sdo("601#A308000000000000\n"
                "581#4041600000000000\n581#6041600000000000\n601#A260020000000000\n"
                "581#0100000000000001\n581#C141600000000000\n601#A241020000000000\n"
                "581#C100000000000000\n601#A100000000000000\n581#6040600000000000\n"),
            (std::vector<std::string>{"start of the blocks",
                                      "segment 64 of the block: 41 60 00 00 00 00 00",
                                      "segment 96 of the block: 41 60 00 00 00 00 00",
                                      "taken up to segment 96, next block of 2 segments",
                                      "segment 1 of the block: 00 00 00 00 00 00 01",
                                      "last segment 65 of the block: 41 60 00 00 00 00 00",
                                      "taken up to segment 65, next block of 2 segments",
                                      "end of the blocks, 7 bytes in the last segment, CRC 0x0000",
                                      "blocks taken", "written 0x6040:00 Controlword"}));
  // The last segment was lost: it comes again.
  EXPECT_EQ(Sdo("581#A000000000000000\n601#8200000000000000\n581#A201020000000000\n"
                "601#8100000000000000\n"),
            (std::vector<std::string>{"ready for 0x0000:00 in blocks of 0 segments",
                                      "last segment 2 of the block: 00 00 00 00 00 00 00",
                                      "taken up to segment 1, next block of 2 segments",
                                      "last segment 1 of the block: 00 00 00 00 00 00 00"}));
  // An abort ends it, whoever sends it. Another node or bus has its own transfers.
  for (const char* abort : {"601#8000000000000405", "581#8000000000000405"}) {
    EXPECT_EQ(Sdo(std::string("581#A000000000000000\n") + abort + "\n601#4041600000000000\n")[2],
              "read 0x6041:00 Statusword");
  }
  EXPECT_EQ(FramesOf("(1.0) can0 581#A000000000000000\n(1.0) can1 601#4041600000000000\n"
                     "(1.0) can0 602#4041600000000000\n")
                .texts,
            (std::vector<std::string>{"SDO node 1: ready for 0x0000:00 in blocks of 0 segments",
                                      "SDO node 1: read 0x6041:00 Statusword",
                                      "SDO node 2: read 0x6041:00 Statusword"}));
}

}  // namespace
}  // namespace motorctl
