// The SDO client of motorctl: whole transfers, byte for byte. Whatever the client gives up ends with
// its abort.
#include <gtest/gtest.h>

#include "bus_environment.h"
#include "sdo_script.h"
#include "sdo_words.h"

namespace motorctl {
namespace {

class SdoTransferTest : public bus::BusTest, public testing::WithParamInterface<Case> {};

TEST_P(SdoTransferTest, IsThisSequence) {
  const SdoAnswer answer = Play(GetParam());
  EXPECT_EQ(answer.kind, GetParam().kind) << Explanation(answer);
  EXPECT_EQ(answer.abort_code, GetParam().abort_code);
  EXPECT_EQ(answer.segment, GetParam().segment);
  if (answer.ok()) {
    EXPECT_EQ(std::string(answer.bytes.begin(), answer.bytes.end()), GetParam().read);
    EXPECT_EQ(answer.size_told, GetParam().size_told);
    EXPECT_EQ(Explanation(answer), "");
  } else {
    EXPECT_NE(Explanation(answer), "");
  }
}

// clang-format off
std::vector<Case> Transfers() {
  return {
      {"OneByte", {}, {{kAsk, {"4F00200161000000"}}}, Kind::kOk, 0, 0, "a"},
      {"TwoBytes", {}, {{kAsk, {"4B00200161620000"}}}, Kind::kOk, 0, 0, "ab"},
      {"ThreeBytes", {}, {{kAsk, {"4700200161626300"}}}, Kind::kOk, 0, 0, "abc"},
      {"FourBytes", {}, {{kAsk, {"4300200161626364"}}}, Kind::kOk, 0, 0, "abcd"},
      {"NoSize", {}, {{kAsk, {"4200200161626364"}}}, Kind::kOk, 0, 0, "abcd", false},
      {"Segments", {}, {kBegin, kFirst, kSecond}, Kind::kOk, 0, 2, "abcdefghij"},
      {"SegmentsWithoutSize", {}, {{kAsk, {"4000200100000000"}}, kFirst, kSecond},
       Kind::kOk, 0, 2, "abcdefghij"},
      {"OneSegmentOfFourBytes", {}, {{kAsk, {"4100200104000000"}},
       {"6000000000000000", {"0761626364000000"}}}, Kind::kOk, 0, 1, "abcd"},
      {"OneSegmentOfSeven", {}, {{kAsk, {"4100200107000000"}},
       {"6000000000000000", {"0161626364656667"}}}, Kind::kOk, 0, 1, "abcdefg"},
      {"NothingInASegment", {}, {{kAsk, {"4100200100000000"}},
       {"6000000000000000", {"0F00000000000000"}}}, Kind::kOk, 0, 1, ""},
      {"SegmentsOfAnyLength", {}, {{kAsk, {"4100200104000000"}},
       {"6000000000000000", {"0A61620000000000"}},
       {"7000000000000000", {"1B63640000000000"}}}, Kind::kOk, 0, 2, "abcd"},

      {"WriteOne", Of("a"), {{"2F00200161000000", {"6000200100000000"}}}},
      {"WriteTwo", Of("ab"), {{"2B00200161620000", {"6000200100000000"}}}},
      {"WriteThree", Of("abc"), {{"2700200161626300", {"6000200100000000"}}}},
      {"WriteFour", Of("abcd"), {{"2300200161626364", {"6000200100000000"}}}},
      {"WriteFive", Of("abcde"), {{"2100200105000000", {"6000200100000000"}},
       {"0561626364650000", {"2000000000000000"}}}, Kind::kOk, 0, 1},
      {"WriteSeven", Of("abcdefg"), {{"2100200107000000", {"6000200100000000"}},
       {"0161626364656667", {"2000000000000000"}}}, Kind::kOk, 0, 1},
      {"WriteTen", kTen, {kWriteBegin, kWriteFirst, kWriteSecond}, Kind::kOk, 0, 2},
  };
}

std::vector<Case> WrongAnswers() {
  const std::uint32_t toggle = 0x05030000, command = 0x05040001, length = 0x06070010;
  return {
      // Dropped: they are of others, or doubled.
      {"AnswersAboutOtherObjects", {}, {{kAsk, {"4F01200161000000", "4F00200261000000",
       "6001200100000000", "4101200105000000", "C201200105000000", "4F00200162000000"}}},
       Kind::kOk, 0, 0, "b"},
      {"AnswersOfTheWrongLength", {}, {{kAsk, {"4F002001610000", "4F00200162000000"}}},
       Kind::kOk, 0, 0, "b"},
      {"SegmentsOfATransferBefore", {}, {{kAsk, {"0061626364656667", "2000000000000000",
       "4F00200162000000"}}}, Kind::kOk, 0, 0, "b"},
      {"EveryAnswerTwice", {}, {With(kBegin, {kBegin.answers[0], kBegin.answers[0]}),
       With(kFirst, {kFirst.answers[0], kFirst.answers[0]}),
       With(kSecond, {kSecond.answers[0], kSecond.answers[0]})}, Kind::kOk, 0, 2, "abcdefghij"},
      {"TheFirstAnswerOnceMoreAmongSegments", {}, {kBegin, kFirst,
       With(kSecond, {kBegin.answers[0], kSecond.answers[0]})}, Kind::kOk, 0, 2, "abcdefghij"},
      {"EveryConfirmationTwice", kTen, {
       With(kWriteBegin, {kWriteBegin.answers[0], kWriteBegin.answers[0]}),
       With(kWriteFirst, {kWriteFirst.answers[0], kWriteFirst.answers[0]}),
       With(kWriteSecond, {kWriteSecond.answers[0], kWriteSecond.answers[0]})}, Kind::kOk, 0, 2},
      {"AnswersAboutOtherObjectsAmongSegments", {}, {kBegin,
       With(kFirst, {"4F01200161000000", "8001200100000008", kFirst.answers[0]}), kSecond},
       Kind::kOk, 0, 2, "abcdefghij"},

      // Given up.
      {"WrongToggleAtFirst", {}, {kBegin, With(kFirst, {"1061626364656667"}),
       Aborted("00000305")}, Kind::kGivenUp, toggle, 1},
      {"TheSameToggleTwice", {}, {kBegin, kFirst, With(kSecond, {"0968696A00000000"}),
       Aborted("00000305")}, Kind::kGivenUp, toggle, 2},
      {"WrongToggleOfAConfirmation", kTen, {kWriteBegin, With(kWriteFirst, {"3000000000000000"}),
       Aborted("00000305")}, Kind::kGivenUp, toggle, 1},
      // It looks like a doubled confirmation, until no other one comes.
      {"TheSameConfirmationAgain", kTen, {kWriteBegin, kWriteFirst,
       With(kWriteSecond, {"2000000000000000"}), Aborted("00000305")}, Kind::kGivenUp, toggle, 2},
      {"MoreBytesThanTold", {}, {With(kBegin, {"4100200108000000"}), kFirst, kSecond,
       Aborted("10000706")}, Kind::kGivenUp, length, 2},
      {"MoreSegmentsThanTold", {}, {With(kBegin, {"4100200106000000"}), kFirst,
       Aborted("10000706")}, Kind::kGivenUp, length, 1},
      {"FewerBytesThanTold", {}, {With(kBegin, {"410020010B000000"}), kFirst, kSecond,
       Aborted("10000706")}, Kind::kGivenUp, length, 2},
      {"MoreThanThereIsRoomFor", {}, {With(kBegin, {"4100200101001000"}),
       Aborted("05000405")}, Kind::kGivenUp, 0x05040005, 0},
      {"EmptySegmentsWithoutEnd", {}, {kBegin, With(kFirst, {"0E00000000000000"}),
       Aborted("01000405")}, Kind::kGivenUp, command, 1},
      {"ABlockUpload", {}, {{kAsk, {"C20020010A000000"}}, Aborted("01000405")},
       Kind::kGivenUp, command, 0},
      {"ABlockDownload", kTen, {With(kWriteBegin, {"A000200104000000"}), Aborted("01000405")},
       Kind::kGivenUp, command, 0},
      {"AConfirmationOfAWrite", {}, {{kAsk, {"6000200100000000"}}, Aborted("01000405")},
       Kind::kGivenUp, command, 0},
      {"AnAnswerToARead", Of("a"), {{"2F00200161000000", {"4F00200161000000"}},
       Aborted("01000405")}, Kind::kGivenUp, command, 0},
      {"AConfirmationAmongSegments", {}, {kBegin, With(kFirst, {"2000000000000000"}),
       Aborted("01000405")}, Kind::kGivenUp, command, 1},
      {"ASegmentAmongConfirmations", kTen, {kWriteBegin, With(kWriteFirst, {"0061626364656667"}),
       Aborted("01000405")}, Kind::kGivenUp, command, 1},
      {"AReservedCommand", {}, {kBegin, With(kFirst, {"E000200100000000"}),
       Aborted("01000405")}, Kind::kGivenUp, command, 1},

      // Silence.
      {"SilenceAtOnce", {}, {{kAsk, {}}, Aborted("00000405")}, Kind::kNoAnswer, 0, 0},
      {"SilenceInTheMiddle", {}, {kBegin, kFirst, With(kSecond, {}), Aborted("00000405")},
       Kind::kNoAnswer, 0, 2},
      {"SilenceAtAWrite", Of("a"), {{"2F00200161000000", {}}, Aborted("00000405")},
       Kind::kNoAnswer, 0, 0},
      {"SilenceInTheMiddleOfAWrite", kTen, {kWriteBegin, With(kWriteFirst, {}),
       Aborted("00000405")}, Kind::kNoAnswer, 0, 1},
      {"OtherObjectsOnly", {}, {{kAsk, {"4F01200161000000"}}, Aborted("00000405")},
       Kind::kNoAnswer, 0, 0},
  };
}
// clang-format on

INSTANTIATE_TEST_SUITE_P(Good, SdoTransferTest, testing::ValuesIn(Transfers()),
                         [](const auto& test) { return test.param.name; });
INSTANTIATE_TEST_SUITE_P(Wrong, SdoTransferTest, testing::ValuesIn(WrongAnswers()),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace motorctl
