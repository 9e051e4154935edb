// The SDO client of motorctl against a far end with scripted answers: whole transfers, byte for
// byte. Whatever the client gives up ends with its abort.
#include "sdo_client.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bus_environment.h"
#include "context.h"
#include "far_end.h"
#include "sdo_words.h"

namespace motorctl {
namespace {

using Kind = SdoAnswer::Kind;
using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

constexpr milliseconds kShort{60};

struct Step {
  std::string request;
  Texts answers;
};

// Of node 1: "601#" and "581#" stand before each frame.
struct Case {
  std::string name;
  Bytes written;  // empty: an upload of 0x2000 sub 1
  std::vector<Step> steps;
  Kind kind = Kind::kOk;
  std::uint32_t abort_code = 0;
  std::size_t segment = 0;
  std::string read = {};
  bool size_told = true;
};

void PrintTo(const Case& row, std::ostream* out) { *out << row.name; }

Bytes Of(const std::string& text) { return {text.begin(), text.end()}; }

SdoAnswer Play(const Case& row) {
  bus::FarEnd node("can1");
  for (const Step& step : row.steps) {
    auto expectation = node.Expect("601#" + step.request);
    for (const std::string& answer : step.answers) expectation.Reply("581#" + answer);
  }
  const bool waits = row.kind == Kind::kGivenUp || row.kind == Kind::kNoAnswer;
  SdoClient client("can0", waits ? kShort : milliseconds(2000));
  return row.written.empty() ? client.Upload(1, 0x2000, 1, 1)
                             : client.Download(1, 0x2000, 1, row.written);
}

class SdoClientTest : public bus::BusTest {};
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

const std::string kAsk = "4000200100000000";
// "abcdefghij" in two segments of 7 and 3 bytes.
const Step kBegin = {kAsk, {"410020010A000000"}};
const Step kFirst = {"6000000000000000", {"0061626364656667"}};
const Step kSecond = {"7000000000000000", {"1968696A00000000"}};
const Step kWriteBegin = {"210020010A000000", {"6000200100000000"}};
const Step kWriteFirst = {"0061626364656667", {"2000000000000000"}};
const Step kWriteSecond = {"1968696A00000000", {"3000000000000000"}};
const Bytes kTen = Of("abcdefghij");

Step Aborted(const std::string& code) { return {"80002001" + code, {}}; }
// The same request with other answers.
Step With(const Step& step, const Texts& answers) { return {step.request, answers}; }

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

struct AbortRow {
  const char* on_the_wire;
  std::uint32_t code;
  const char* text;
};

// CiA 301, all of them.
constexpr AbortRow kAborts[] = {
    {"00000305", 0x05030000, "Toggle bit not alternated"},
    {"00000405", 0x05040000, "SDO protocol timed out"},
    {"01000405", 0x05040001, "Command specifier not valid or unknown"},
    {"02000405", 0x05040002, "Invalid block size"},
    {"03000405", 0x05040003, "Invalid sequence number"},
    {"04000405", 0x05040004, "CRC error"},
    {"05000405", 0x05040005, "Out of memory"},
    {"00000106", 0x06010000, "Unsupported access to an object"},
    {"01000106", 0x06010001, "Attempt to read a write-only object"},
    {"02000106", 0x06010002, "Attempt to write a read-only object"},
    {"00000206", 0x06020000, "Object does not exist"},
    {"41000406", 0x06040041, "Object cannot be mapped to the PDO"},
    {"42000406", 0x06040042, "Mapped objects would exceed the length of the PDO"},
    {"43000406", 0x06040043, "General parameter incompatibility"},
    {"47000406", 0x06040047, "General internal incompatibility in the device"},
    {"00000606", 0x06060000, "Access failed due to a hardware error"},
    {"10000706", 0x06070010, "Data type or length does not match"},
    {"12000706", 0x06070012, "Data type does not match, too long"},
    {"13000706", 0x06070013, "Data type does not match, too short"},
    {"11000906", 0x06090011, "Sub-index does not exist"},
    {"30000906", 0x06090030, "Invalid value"},
    {"31000906", 0x06090031, "Value too high"},
    {"32000906", 0x06090032, "Value too low"},
    {"36000906", 0x06090036, "Maximum is less than minimum"},
    {"23000A06", 0x060A0023, "No SDO connection available"},
    {"00000008", 0x08000000, "General error"},
    {"20000008", 0x08000020, "Data cannot be transferred or stored"},
    {"21000008", 0x08000021, "Data cannot be transferred or stored: local control"},
    {"22000008", 0x08000022,
     "Data cannot be transferred or stored in the present state of the device"},
    {"23000008", 0x08000023, "No object dictionary, or it cannot be generated"},
    {"24000008", 0x08000024, "No data available"},
    {"78563412", 0x12345678, "unknown abort code"},
};

// In every place where a node can abort; the client then sends nothing more.
TEST_F(SdoClientTest, TakesEveryAbortOfANode) {
  for (const AbortRow& row : kAborts) {
    const Texts abort = {std::string("80002001") + row.on_the_wire};
    const std::string nameless = std::string("80000000") + row.on_the_wire;
    const std::vector<Case> cases = {
        {"AtARead", {}, {{kAsk, abort}}},
        {"InSegments", {}, {kBegin, kFirst, With(kSecond, abort)}, Kind::kOk, 0, 2},
        {"WithoutItsObject", {}, {kBegin, With(kFirst, {nameless})}, Kind::kOk, 0, 1},
        {"AtAWrite", Of("a"), {{"2F00200161000000", abort}}},
        {"AtALongWrite", kTen, {With(kWriteBegin, abort)}},
        {"AtTheEndOfALongWrite",
         kTen,
         {kWriteBegin, kWriteFirst, With(kWriteSecond, abort)},
         Kind::kOk,
         0,
         2},
    };
    for (const Case& played : cases) {
      SCOPED_TRACE(played.name + " " + row.text);
      const SdoAnswer answer = Play(played);
      EXPECT_EQ(answer.kind, Kind::kAborted);
      EXPECT_EQ(answer.abort_code, row.code);
      EXPECT_EQ(answer.segment, played.segment);
      EXPECT_TRUE(answer.heard());
      char text[128];
      std::snprintf(text, sizeof(text), "refused with abort code 0x%08X: %s", row.code, row.text);
      EXPECT_EQ(Explanation(answer), text);
      EXPECT_EQ(WriteExplanation(answer), text);
    }
  }
}

TEST_F(SdoClientTest, AsksAgainAfterSilenceOnly) {
  bus::FarEnd node("can1");
  node.Expect("601#" + kAsk);
  node.Expect("601#8000200100000405");
  node.Expect("601#" + kAsk).Reply("581#410020010A000000");
  node.Expect("601#6000000000000000");
  node.Expect("601#8000200100000405");
  node.Expect("601#" + kAsk).Reply("581#4F00200161000000");
  node.Expect("601#" + kAsk).Reply("581#8000200100000206");
  SdoClient client("can0", kShort);
  EXPECT_EQ(client.Upload(1, 0x2000, 1).number(), 0x61U);
  EXPECT_EQ(client.Upload(1, 0x2000, 1).kind, Kind::kAborted);
}

// A read is asked three times, a write once.
TEST_F(SdoClientTest, NamesWhatIsNotAnswered) {
  bus::FarEnd node("can1");
  for (int i = 0; i < 3; ++i) node.ExpectAll({"601#" + kAsk, "601#8000200100000405"});
  node.ExpectAll({"601#2F00200161000000", "601#8000200100000405"});
  SdoClient client("can0", kShort);
  EXPECT_EQ(Explanation(client.Upload(1, 0x2000, 1)), "no answer within 60 ms");
  const SdoAnswer written = client.Download(1, 0x2000, 1, Of("a"));
  EXPECT_FALSE(written.heard());
  EXPECT_EQ(WriteExplanation(written),
            "no answer within 60 ms; whether it was written is not known");
}

TEST_F(SdoClientTest, NamesALateAnswer) {
  const milliseconds delay(100);
  bus::FarEnd node("can1");
  node.Expect("601#2F00200161000000").Reply("581#6000200100000000", delay);
  node.Expect("601#8000200100000405");
  node.Expect("601#2F00200162000000").Reply("581#8000200131000906", delay);
  node.Expect("601#8000200100000405");
  SdoClient client("can0", kShort);
  const SdoAnswer late = client.Download(1, 0x2000, 1, Of("a"));
  EXPECT_EQ(late.kind, Kind::kLate);
  EXPECT_GE(late.late.count(), 100);
  EXPECT_LT(late.late.count(), 160);
  EXPECT_EQ(WriteExplanation(late), "answered after " + std::to_string(late.late.count()) +
                                        " ms, too late for 60 ms; it was written; --timeout waits "
                                        "longer");
  const SdoAnswer refused = client.Download(1, 0x2000, 1, Of("b"));
  EXPECT_EQ(refused.kind, Kind::kLate);
  EXPECT_EQ(refused.abort_code, 0x06090031U);
  EXPECT_EQ(WriteExplanation(refused),
            "refused with abort code 0x06090031: Value too high; answered after " +
                std::to_string(refused.late.count()) +
                " ms, too late for 60 ms; --timeout waits longer");
}

TEST_F(SdoClientTest, WaitsForASlowNodeAsLongAsItWasTold) {
  bus::FarEnd node("can1");
  node.Expect("601#" + kAsk).Reply("581#4F00200161000000", milliseconds(95));
  node.Expect("601#2F00200161000000").Reply("581#6000200100000000", milliseconds(150));
  SdoClient client("can0", milliseconds(100));
  EXPECT_TRUE(client.Upload(1, 0x2000, 1, 1).ok());
  client.set_timeout(milliseconds(300));
  EXPECT_TRUE(client.Download(1, 0x2000, 1, Of("a")).ok());
}

// What another client left open costs this one its transfer, and it says so.
TEST_F(SdoClientTest, NamesTheAbortOfAnotherTransfer) {
  bus::FarEnd node("can1");
  node.Expect("601#2F00200161000000").Reply("581#8008100001000405");
  node.Expect("601#8000200100000405");
  SdoClient client("can0", kShort);
  const SdoAnswer answer = client.Download(1, 0x2000, 1, Of("a"));
  EXPECT_EQ(answer.kind, Kind::kNoAnswer);
  EXPECT_EQ(WriteExplanation(answer),
            "no answer within 60 ms; instead the node ended another transfer, of 0x1008 sub 0 "
            "(Manufacturer device name), with abort code 0x05040001: Command specifier not valid "
            "or unknown; whether it was written is not known");
}

TEST_F(SdoClientTest, IsNotDisturbedByWhatCameBefore) {
  bus::FarEnd node("can1");
  SdoClient client("can0", milliseconds(2000));
  for (const char* stale : {"581#4F00200161000000", "581#8000200100000008", "581#6000200100000000",
                            "582#4F00200161000000", "581#0061626364656667"}) {
    node.Send(stale);
  }
  node.Frames();  // they have arrived
  node.Expect("601#" + kAsk).Reply("582#4F00200163000000").Reply("581#4F00200162000000");
  EXPECT_EQ(client.Upload(1, 0x2000, 1).number(), 0x62U);
}

TEST_F(SdoClientTest, KnowsNodesThatAnswerWhileOthersAreAsked) {
  bus::FarEnd node("can1");
  node.Expect("601#4000100000000000").Reply("581#4300100092010200", milliseconds(90));
  node.Expect("601#8000100000000405");
  node.ExpectAll({"602#4000100000000000", "602#8000100000000405"});
  SdoClient client("can0", kShort);
  EXPECT_FALSE(client.Ask(1, 0x1000, 0).ok());
  EXPECT_FALSE(client.Ask(2, 0x1000, 0).ok());
  const auto late = client.Late();
  ASSERT_EQ(late.size(), 1U);
  EXPECT_EQ(late.begin()->first, 1);
  EXPECT_GE(late.begin()->second.count(), 90);
}

TEST_F(SdoClientTest, TellsAnInterfaceThatTakesNothing) {
  SdoClient client("can0");
  bus::SetDown("can0");
  const SdoAnswer answer = client.Upload(1, 0x1000, 0);
  EXPECT_EQ(answer.kind, Kind::kNotSent);
  EXPECT_FALSE(answer.heard());
  EXPECT_EQ(Explanation(answer), "the request could not be sent");
  EXPECT_THROW(SdoClient("can7"), CommandFailed);
}

// The far end hears the transfer; programs on this machine do not, as with every host.
TEST_F(SdoClientTest, IsNotHeardByOtherProgramsOfItsOwnInterface) {
  bus::FarEnd beside("can0");
  beside.ExpectSilence();
  bus::FarEnd node("can1");
  node.Expect("601#" + kAsk);
  node.Expect("601#8000200100000405");
  SdoClient client("can0", kShort);
  client.Upload(1, 0x2000, 1, 1);
}

}  // namespace
}  // namespace motorctl
