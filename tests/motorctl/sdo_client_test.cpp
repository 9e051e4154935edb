// The SDO client of motorctl against a far end with scripted answers: aborts, silence, late answers.
#include <gtest/gtest.h>

#include "bus_environment.h"
#include "context.h"
#include "eventually.h"
#include "sdo_script.h"
#include "sdo_words.h"

namespace motorctl {
namespace {

class SdoClientTest : public bus::BusTest {};

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
  EXPECT_EQ(Explanation(client.Upload(1, 0x2000, 1)), "no answer within 200 ms");
  const SdoAnswer written = client.Download(1, 0x2000, 1, Of("a"));
  EXPECT_FALSE(written.heard());
  EXPECT_EQ(WriteExplanation(written),
            "no answer within 200 ms; whether it was written is not known");
}

TEST_F(SdoClientTest, NamesAnswersOfTheWrongLength) {
  bus::FarEnd node("can1");
  node.Expect("601#2F00200161000000").Reply("581#60002001");
  node.Expect("601#8000200100000405");
  node.Expect("601#" + kAsk).Reply("581#" + kBegin.answers[0]);
  node.Expect("601#6000000000000000").Reply("581#00616263646566");
  node.Expect("601#8000200100000405");
  node.ExpectAll({"601#2F00200161000000", "601#8000200100000405"});
  SdoClient client("can0", kShort);
  const SdoAnswer written = client.Download(1, 0x2000, 1, Of("a"));
  EXPECT_FALSE(written.heard());
  EXPECT_EQ(WriteExplanation(written),
            "answered with 4 bytes instead of 8; whether it was written is not known");
  EXPECT_EQ(Explanation(client.Upload(1, 0x2000, 1, 1)),
            "answered to segment 1 with 7 bytes instead of 8");
  EXPECT_EQ(WriteExplanation(client.Download(1, 0x2000, 1, Of("a"))),
            "no answer within 200 ms; whether it was written is not known");
}

TEST_F(SdoClientTest, EndsTheTransferWhenItIsInterrupted) {
  bus::FarEnd node("can1");
  node.Expect("601#" + kWriteBegin.request).Reply("581#" + kWriteBegin.answers[0]);
  node.ExpectAll({"601#" + kWriteFirst.request, "601#8000200100000008"});
  node.ExpectAll({"601#" + kAsk, "601#8000200100000008"});
  SdoClient client("can0", milliseconds(30'000));
  client.set_interrupted([&node] { return node.Frames().size() % 3 == 2; });
  const SdoAnswer written = client.Download(1, 0x2000, 1, kTen);
  EXPECT_EQ(written.kind, Kind::kInterrupted);
  EXPECT_EQ(WriteExplanation(written),
            "interrupted, and ended with abort code 0x08000000: General error");
  node.Forget();
  client.set_interrupted([&node] { return node.Frames().size() == 1; });
  const SdoAnswer read = client.Upload(1, 0x2000, 1);
  EXPECT_EQ(read.kind, Kind::kInterrupted);
  EXPECT_FALSE(read.heard());
  EXPECT_TRUE(node.WaitScript());
}

TEST_F(SdoClientTest, NamesALateAnswer) {
  const milliseconds delay(300);
  bus::FarEnd node("can1");
  node.Expect("601#2F00200161000000").Reply("581#6000200100000000", delay);
  node.Expect("601#8000200100000405");
  node.Expect("601#2F00200162000000").Reply("581#8000200131000906", delay);
  node.Expect("601#8000200100000405");
  SdoClient client("can0", kShort);
  const SdoAnswer late = client.Download(1, 0x2000, 1, Of("a"));
  EXPECT_EQ(late.kind, Kind::kLate);
  EXPECT_GE(late.late.count(), 300);
  EXPECT_LT(late.late.count(), 400);
  EXPECT_EQ(WriteExplanation(late), "answered after " + std::to_string(late.late.count()) +
                                        " ms, too late for 200 ms; it was written; --timeout waits "
                                        "longer");
  const SdoAnswer refused = client.Download(1, 0x2000, 1, Of("b"));
  EXPECT_EQ(refused.kind, Kind::kLate);
  EXPECT_EQ(refused.abort_code, 0x06090031U);
  EXPECT_EQ(WriteExplanation(refused),
            "refused with abort code 0x06090031: Value too high; answered after " +
                std::to_string(refused.late.count()) +
                " ms, too late for 200 ms; --timeout waits longer");
}

TEST_F(SdoClientTest, WaitsForASlowNodeAsLongAsItWasTold) {
  bus::FarEnd node("can1");
  node.Expect("601#" + kAsk).Reply("581#4F00200161000000", milliseconds(300));
  node.Expect("601#2F00200161000000").Reply("581#6000200100000000", milliseconds(600));
  SdoClient client("can0", milliseconds(700));
  EXPECT_TRUE(client.Upload(1, 0x2000, 1, 1).ok());
  client.set_timeout(milliseconds(1500));
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
            "no answer within 200 ms; instead the node ended another transfer, of 0x1008 sub 0 "
            "(Manufacturer device name), with abort code 0x05040001: Command specifier not valid "
            "or unknown; whether it was written is not known");
}

TEST_F(SdoClientTest, IsNotDisturbedByWhatCameBefore) {
  bus::FarEnd node("can1");
  bus::FarEnd arrived("can0");
  SdoClient client("can0", milliseconds(2000));
  for (const char* stale : {"581#4F00200161000000", "581#8000200100000008", "581#6000200100000000",
                            "582#4F00200161000000", "581#0061626364656667"}) {
    node.Send(stale);
  }
  ASSERT_TRUE(support::Eventually([&] { return arrived.Frames().size() == 5; }));
  node.Expect("601#" + kAsk).Reply("582#4F00200163000000").Reply("581#4F00200162000000");
  EXPECT_EQ(client.Upload(1, 0x2000, 1).number(), 0x62U);
}

TEST_F(SdoClientTest, KnowsNodesThatAnswerWhileOthersAreAsked) {
  bus::FarEnd node("can1");
  node.Expect("601#4000100000000000").Reply("581#4300100092010200", milliseconds(300));
  node.Expect("601#8000100000000405");
  node.ExpectAll({"602#4000100000000000", "602#8000100000000405"});
  SdoClient client("can0", kShort);
  EXPECT_FALSE(client.Ask(1, 0x1000, 0).ok());
  EXPECT_FALSE(client.Ask(2, 0x1000, 0).ok());
  const auto late = client.Late();
  ASSERT_EQ(late.size(), 1U);
  EXPECT_EQ(late.begin()->first, 1);
  EXPECT_GE(late.begin()->second.count(), 300);
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
