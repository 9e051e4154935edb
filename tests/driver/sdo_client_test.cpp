// The SDO client of DriverCommon.
#include <driver_common.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "log_sources.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

constexpr std::uint8_t kUpload = 0x40;
constexpr std::uint8_t kDownload2 = 0x2B;

// The transfer that most cases make: controlword 0x000F to node 1.
constexpr auto kRequest = "601#2B4060000F000000";
constexpr auto kConfirmed = "581#6040600000000000";
constexpr auto kTimeoutLine =
    "[WARN] SDO response timeout, can_id: 0x581, index: 0x6040, sub: 0x00\n";

bool WriteControlword(DriverCommon& driver) {
  return driver.SdoWriteWithFeedback(0x601, kDownload2, 0x6040, 0, 0x000F);
}

class SdoClientTest : public bus::BusTest {};

TEST_F(SdoClientTest, SdoWriteSendsAllFourDataBytesWhateverTheCommand) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.ExpectAll({
      "601#2F60600003000000",
      "601#2B4060000F000000",
      "601#2712340556789A00",
      "67F#23FF6001EFCDAB89",
      "602#403F600000000000",
      "601#2F606000FFFFFFFF",
      "601#00FFFFFF04030201",
      "123#FF00000000000000",
      "00012345#4000180500000000",
  });
  EXPECT_TRUE(driver.SdoWrite(0x601, 0x2F, 0x6060, 0, 3));
  EXPECT_TRUE(driver.SdoWrite(0x601, 0x2B, 0x6040, 0, 0x000F));
  EXPECT_TRUE(driver.SdoWrite(0x601, 0x27, 0x3412, 5, 0x009A7856));
  EXPECT_TRUE(driver.SdoWrite(0x67F, 0x23, 0x60FF, 1, 0x89ABCDEF));
  EXPECT_TRUE(driver.SdoWrite(0x602, 0x40, 0x603F, 0, 0));
  EXPECT_TRUE(driver.SdoWrite(0x601, 0x2F, 0x6060, 0, 0xFFFFFFFF));
  EXPECT_TRUE(driver.SdoWrite(0x601, 0x00, 0xFFFF, 0xFF, 0x01020304));
  EXPECT_TRUE(driver.SdoWrite(0x123, 0xFF, 0, 0, 0));
  EXPECT_TRUE(driver.SdoWrite(0x80012345, 0x40, 0x1800, 5, 0));
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(SdoClientTest, SdoWriteReadsNothing) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Queue(driver, far_end, {"181#01"});
  far_end.Expect(kRequest).Reply(kConfirmed);
  EXPECT_TRUE(driver.SdoWrite(0x601, kDownload2, 0x6040, 0, 0x000F));
  ASSERT_TRUE(WaitQueued(driver, 2));
  EXPECT_EQ(TakeQueued(driver), (std::vector<std::string>{"181#01", kConfirmed}));
}

TEST_F(SdoClientTest, SdoWriteTellsThatNothingWasSent) {
  ObservedDriver driver("nocan");
  EXPECT_FALSE(driver.SdoWrite(0x601, kDownload2, 0x6040, 0, 0x000F));
}

// --- What counts as success ----------------------------------------------------------------------

std::string Hex(unsigned byte) {
  char text[3];
  std::snprintf(text, sizeof(text), "%02X", byte & 0xFF);
  return text;
}

// The response commands, of all 256, with which a request of this command succeeds. A machine that
// stalls for 100 ms makes a time-out, which tells nothing: that request is made again.
std::vector<int> AcceptedResponses(std::uint8_t request) {
  std::vector<int> accepted;
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  int stalls = 0;
  for (int response = 0; response < 256; ++response) {
    far_end.Expect("601#" + Hex(request) + "40600000000000")
        .Reply("581#" + Hex(static_cast<unsigned>(response)) + "40600000000000");
    const bool confirmed = driver.SdoWriteWithFeedback(0x601, request, 0x6040, 0, 0);
    if (WithoutNumbers(capture.Out()) == kTimeoutLine && ++stalls < 5) {
      capture.Clear();
      --response;
    } else if (confirmed) {
      accepted.push_back(response);
    }
  }
  capture.Stop();
  EXPECT_EQ(capture.Out(), "") << "every request was answered";
  return accepted;
}

TEST_F(SdoClientTest, AWriteIsConfirmedBy0x60Alone) {
  EXPECT_EQ(AcceptedResponses(0x2F), std::vector<int>{0x60});
  EXPECT_EQ(AcceptedResponses(0x2B), std::vector<int>{0x60});
  EXPECT_EQ(AcceptedResponses(0x27), std::vector<int>{0x60});
  EXPECT_EQ(AcceptedResponses(0x23), std::vector<int>{0x60});
}

TEST_F(SdoClientTest, AReadIsAnsweredByAnExpeditedUploadOfAnySize) {
  EXPECT_EQ(AcceptedResponses(0x40), (std::vector<int>{0x43, 0x47, 0x4B, 0x4F}));
}

TEST_F(SdoClientTest, AnyOtherCommandFailsEvenWhenAnswered) {
  EXPECT_EQ(AcceptedResponses(0x43), std::vector<int>{});
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  for (const unsigned command : {0x00U, 0x20U, 0x21U, 0x22U, 0x2DU, 0x41U, 0x60U, 0x80U, 0xFFU}) {
    for (const char* response : {"60", "43", "4B"}) {
      far_end.Expect("601#" + Hex(command) + "40600000000000")
          .Reply("581#" + std::string(response) + "40600000000000");
      EXPECT_FALSE(
          driver.SdoWriteWithFeedback(0x601, static_cast<std::uint8_t>(command), 0x6040, 0, 0));
    }
  }
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(SdoClientTest, AnAbortFailsAtOnceAndLogsNothing) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect(kRequest).Reply("581#8040600030000906");
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(WriteControlword(driver));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(90));
  EXPECT_EQ(capture.Out(), "");
  EXPECT_EQ(capture.Err(), "");
}

TEST_F(SdoClientTest, ReadsHandOutTheData) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  std::uint32_t data = 99;
  far_end.Expect("601#4064600100000000").Reply("581#43646001EFCDAB89");
  EXPECT_TRUE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6064, 1, 0, &data));
  EXPECT_EQ(data, 0x89ABCDEFU);
  far_end.Expect("601#4041600000000000").Reply("581#4B41600037020000");
  EXPECT_TRUE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6041, 0, 0, &data));
  EXPECT_EQ(data, 0x0237U);
}

TEST_F(SdoClientTest, AllFourBytesAreHandedOutWhateverSizeTheDriveNamed) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  std::uint32_t data = 99;
  far_end.Expect("601#4061600000000000").Reply("581#4F616000FFEEDDCC");
  EXPECT_TRUE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6061, 0, 0, &data));
  EXPECT_EQ(data, 0xCCDDEEFFU);
}

TEST_F(SdoClientTest, ARefusedReadHandsOutTheAbortCode) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  std::uint32_t data = 99;
  far_end.Expect("601#4064600100000000").Reply("581#8064600100000206");
  EXPECT_FALSE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6064, 1, 0, &data));
  EXPECT_EQ(data, 0x06020000U);
  far_end.Expect("601#4064600100000000").Reply("581#6064600178563412");
  EXPECT_FALSE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6064, 1, 0, &data));
  EXPECT_EQ(data, 0x12345678U) << "an answer of the wrong kind";
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(SdoClientTest, AWriteMayHandOutTheDataOfItsConfirmation) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  std::uint32_t data = 99;
  far_end.Expect(kRequest).Reply("581#6040600078563412");
  EXPECT_TRUE(driver.SdoWriteWithFeedbackData(0x601, kDownload2, 0x6040, 0, 0x000F, &data));
  EXPECT_EQ(data, 0x12345678U);
}

TEST_F(SdoClientTest, AShortAnswerIsAcceptedWithoutData) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  for (const char* answer :
       {"581#4B416000", "581#4B41600037", "581#4B4160003702", "581#4B416000370200"}) {
    std::uint32_t data = 99;
    far_end.Expect("601#4041600000000000").Reply(answer);
    EXPECT_TRUE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6041, 0, 0, &data)) << answer;
    EXPECT_EQ(data, 0U) << answer;
  }
  far_end.Expect(kRequest).Reply("581#60406000");
  EXPECT_TRUE(WriteControlword(driver));
}

TEST_F(SdoClientTest, AnAnswerTooShortToNameItsObjectIsNone) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("601#2B00000000000000").Reply("581#600000").Reply("581#").Reply("581#60");
  EXPECT_FALSE(driver.SdoWriteWithFeedback(0x601, kDownload2, 0x0000, 0, 0));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x581, index: 0x0000, sub: 0x00\n");
}

// --- Waiting for the right answer ----------------------------------------------------------------

TEST_F(SdoClientTest, DropsAnswersToOtherObjectsWhileWaiting) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect(kRequest)
      .Reply("581#8041600000000000")       // another index, low byte
      .Reply("581#8040610000000000")       // another index, high byte
      .Reply("581#8040600100000000")       // another sub-index
      .Reply("581#804060")                 // too short
      .Reply("581#R8")                     // a remote request
      .Reply("00000581#8040600000000000")  // the extended identifier of the same number
      .Reply(kConfirmed, milliseconds(10));
  EXPECT_TRUE(WriteControlword(driver));
  EXPECT_EQ(capture.Out(), "");
  ExpectHearsEverything(driver, far_end);
}

TEST_F(SdoClientTest, WrongAnswersDoNotProlongTheWait) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  auto request = far_end.Expect(kRequest);
  for (int ms = 0; ms <= 110; ms += 10) {
    request.Reply("581#6041600000000000", milliseconds(ms));
  }
  request.Reply(kConfirmed, milliseconds(120));
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(WriteControlword(driver));
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(100));
  EXPECT_LT(took, milliseconds(300));
  EXPECT_EQ(WithoutNumbers(capture.Out()), kTimeoutLine);
}

TEST_F(SdoClientTest, TakesAnAnswerThatComesLater) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.Expect(kRequest).Reply(kConfirmed, milliseconds(30));
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(WriteControlword(driver));
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(30));
}

TEST_F(SdoClientTest, TheFirstOfTwoAnswersCounts) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.Expect(kRequest).Reply(kConfirmed).Reply("581#8040600000000000");
  EXPECT_TRUE(WriteControlword(driver));
  far_end.Expect(kRequest).Reply("581#8040600000000000").Reply(kConfirmed);
  EXPECT_FALSE(WriteControlword(driver));
  far_end.Expect("601#4041600000000000").Reply("581#4B41600037020000");
  std::uint32_t statusword = 0;
  EXPECT_TRUE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6041, 0, 0, &statusword))
      << "what the second answers left behind does not disturb";
  EXPECT_EQ(statusword, 0x0237U);
}

TEST_F(SdoClientTest, ALateAnswerIsNotTakenForTheNextRequest) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect(kRequest).Reply("581#8040600000000000", milliseconds(115));
  far_end.Expect("601#2F60600003000000").Reply("581#6060600000000000", milliseconds(30));
  EXPECT_FALSE(WriteControlword(driver));
  EXPECT_TRUE(driver.SdoWriteWithFeedback(0x601, 0x2F, 0x6060, 0, 3));
  EXPECT_EQ(WithoutNumbers(capture.Out()), kTimeoutLine);
}

TEST_F(SdoClientTest, ASilentNodeFailsAfter100Milliseconds) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect(kRequest);
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(WriteControlword(driver));
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(100));
  EXPECT_LT(took, milliseconds(300));
  EXPECT_EQ(WithoutNumbers(capture.Out()), kTimeoutLine);
  EXPECT_EQ(capture.Err(), "");
  ExpectHearsEverything(driver, far_end);
}

TEST_F(SdoClientTest, ASilentNodeGivesTheValueZero) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("605#400A00AB04030201");
  std::uint32_t data = 99;
  EXPECT_FALSE(driver.SdoWriteWithFeedbackData(0x605, kUpload, 0x000A, 0xAB, 0x01020304, &data));
  EXPECT_EQ(data, 0U);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x585, index: 0x000A, sub: 0xAB\n");
}

TEST_F(SdoClientTest, TheTimeoutLineIsInUpperCaseHexadecimalOfFixedWidth) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("67F#2BEFCD0F00000000");
  far_end.Expect("08A#2BEFCD0F00000000");
  EXPECT_FALSE(driver.SdoWriteWithFeedback(0x67F, kDownload2, 0xCDEF, 0x0F, 0));
  EXPECT_FALSE(driver.SdoWriteWithFeedback(0x08A, kDownload2, 0xCDEF, 0x0F, 0));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x5FF, index: 0xCDEF, sub: 0x0F\n"
            "[WARN] SDO response timeout, can_id: 0x00A, index: 0xCDEF, sub: 0x0F\n");
}

TEST_F(SdoClientTest, TheTimeoutLineNamesTheOperationThatTheHostCalled) {
  ObservedDriver driver("can0");
  LogSources sources;
  std::uint32_t data = 0;
  WriteControlword(driver);
  driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6041, 0, 0, &data);
  EXPECT_EQ(sources.Heard(),
            (std::vector<std::string>{"./src/driver/driver_common.cpp SdoWriteWithFeedback",
                                      "./src/driver/driver_common.cpp SdoWriteWithFeedbackData"}));
}

TEST_F(SdoClientTest, ARequestThatCannotBeSentFailsAtOnce) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  bus::SetDown("can0");
  ASSERT_TRUE(Eventually([&] { return driver.GetCanError() == 3; }));
  support::OutputCapture capture;
  std::uint32_t data = 99;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(WriteControlword(driver));
  EXPECT_FALSE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6041, 0, 0, &data));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(90)) << "nothing was awaited";
  EXPECT_EQ(data, 0U);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] write error, nbytes = -1, sys errno: 100\n"
            "[ERROR] write error, nbytes = -1, sys errno: 100\n")
      << "the transport's own lines and no other";
  bus::SetUp("can0");
  ExpectHearsEverything(driver, far_end);
}

// --- Filters and queue ---------------------------------------------------------------------------

TEST_F(SdoClientTest, HearsNothingButTheAnswerDuringATransfer) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatId(0x701);
  far_end.Expect(kRequest)
      .Reply("701#05")
      .Reply("181#0102030405060708")
      .Reply("582#6040600000000000")
      .Reply(kConfirmed);
  EXPECT_TRUE(WriteControlword(driver));
  ExpectHearsEverything(driver, far_end);
  EXPECT_EQ(driver.heartbeats, 0);
  EXPECT_FALSE(driver.IsNodeOnline(1));

  far_end.Send("701#05");
  EXPECT_TRUE(Eventually([&] { return driver.IsNodeOnline(1); })) << "heard again afterwards";
}

TEST_F(SdoClientTest, HearsEverythingAfterEveryKindOfTransfer) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  std::uint32_t data = 0;
  far_end.Expect(kRequest).Reply("581#8040600000000000");
  EXPECT_FALSE(WriteControlword(driver));
  ExpectHearsEverything(driver, far_end);
  far_end.Expect("601#4041600000000000").Reply("581#4B41600037020000");
  EXPECT_TRUE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6041, 0, 0, &data));
  ExpectHearsEverything(driver, far_end);
  far_end.Expect("601#4041600000000000");
  EXPECT_FALSE(driver.SdoWriteWithFeedbackData(0x601, kUpload, 0x6041, 0, 0, &data));
  ExpectHearsEverything(driver, far_end);
  far_end.Expect("601#4341600000000000").Reply("581#4B41600037020000");
  EXPECT_FALSE(driver.SdoWriteWithFeedbackData(0x601, 0x43, 0x6041, 0, 0, &data));
  ExpectHearsEverything(driver, far_end);
}

TEST_F(SdoClientTest, FiltersOfTheHostAreGoneAfterATransfer) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  const std::uint32_t only_pdos[] = {0x181, 0x7FF};
  driver.CanFiltersConfig(only_pdos, sizeof(only_pdos));
  far_end.Expect(kRequest).Reply(kConfirmed);
  EXPECT_TRUE(WriteControlword(driver));
  ExpectHearsEverything(driver, far_end);
}

TEST_F(SdoClientTest, ATransferBeginsWithAnEmptyQueue) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  Queue(driver, far_end, {"181#01", kConfirmed, "182#02"});
  far_end.Expect(kRequest);
  EXPECT_FALSE(WriteControlword(driver)) << "an answer from before the request is none";
  EXPECT_EQ(WithoutNumbers(capture.Out()), kTimeoutLine);
  ExpectHearsEverything(driver, far_end);
}

// --- SdoRead -------------------------------------------------------------------------------------

struct SdoFields {
  bool result;
  std::uint32_t can_id;
  std::uint8_t command;
  std::uint16_t index;
  std::uint8_t sub_index;
  std::uint32_t data;
};

bool operator==(const SdoFields& a, const SdoFields& b) {
  return a.result == b.result && a.can_id == b.can_id && a.command == b.command &&
         a.index == b.index && a.sub_index == b.sub_index && a.data == b.data;
}

std::ostream& operator<<(std::ostream& out, const SdoFields& f) {
  return out << std::boolalpha << f.result << std::hex << " id " << f.can_id << " command "
             << int{f.command} << " index " << f.index << " sub " << int{f.sub_index} << " data "
             << f.data;
}

SdoFields Read(DriverCommon& driver) {
  SdoFields f = {true, 9, 9, 9, 9, 9};
  f.result = driver.SdoRead(&f.can_id, &f.command, &f.index, &f.sub_index, &f.data);
  return f;
}

constexpr SdoFields kNothingRead = {false, 0, 0, 0, 0, 0};

TEST_F(SdoClientTest, SdoReadOfAnEmptyQueueGivesZeroes) {
  ObservedDriver driver("can0");
  const auto begin = bus::Clock::now();
  EXPECT_EQ(Read(driver), kNothingRead);
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(50)) << "it does not wait";
}

TEST_F(SdoClientTest, SdoReadTakesTheNextFrameWhateverItsIdentifier) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Queue(driver, far_end,
        {"581#433F6001EFCDAB89", "181#0102030405060708", "00012345#4B41600037020000"});
  EXPECT_EQ(Read(driver), (SdoFields{true, 0x581, 0x43, 0x603F, 1, 0x89ABCDEF}));
  EXPECT_EQ(Read(driver), (SdoFields{true, 0x181, 0x01, 0x0302, 4, 0x08070605}));
  EXPECT_EQ(Read(driver), (SdoFields{true, 0x80012345, 0x4B, 0x6041, 0, 0x00000237}));
  EXPECT_EQ(Read(driver), kNothingRead);
}

TEST_F(SdoClientTest, SdoReadTakesDataFromAWholeFrameOnly) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Queue(driver, far_end, {"581#433F6001", "581#433F6001EF", "581#433F6001EFCDAB"});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Read(driver), (SdoFields{true, 0x581, 0x43, 0x603F, 1, 0}));
  }
}

TEST_F(SdoClientTest, SdoReadLosesAFrameTooShortToNameItsObject) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Queue(driver, far_end, {"581#433F60", "581#", "581#433F600000000000"});
  EXPECT_EQ(Read(driver), kNothingRead);
  EXPECT_EQ(driver.GetReadQueueSize(), 2U);
  EXPECT_EQ(Read(driver), kNothingRead);
  EXPECT_EQ(Read(driver), (SdoFields{true, 0x581, 0x43, 0x603F, 0, 0}));
}

// --- WaitSdoResponse -----------------------------------------------------------------------------

TEST_F(SdoClientTest, WaitSdoResponseDoesNotJudgeTheCommand) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  std::uint8_t command = 9;
  std::uint32_t data = 9;
  Queue(driver, far_end, {"182#01", "581#8040600011000906", "183#02"});
  EXPECT_TRUE(driver.WaitSdoResponse(0x581, 0x6040, 0, &command, &data));
  EXPECT_EQ(command, 0x80);
  EXPECT_EQ(data, 0x06090011U);
  EXPECT_EQ(TakeQueued(driver), std::vector<std::string>{"183#02"})
      << "frames before the answer are dropped, frames after it are left";
  Queue(driver, far_end, {"581#60406000112233"});
  EXPECT_TRUE(driver.WaitSdoResponse(0x581, 0x6040, 0, &command, &data));
  EXPECT_EQ(command, 0x60);
  EXPECT_EQ(data, 0U);
}

TEST_F(SdoClientTest, WaitSdoResponseGivesUpAfter100Milliseconds) {
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  std::uint8_t command = 0;
  std::uint32_t data = 0;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(driver.WaitSdoResponse(0x581, 0x6040, 0, &command, &data));
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(100));
  EXPECT_LT(took, milliseconds(300));
  EXPECT_EQ(command, 0);
  EXPECT_EQ(data, 0U);
  EXPECT_EQ(capture.Out(), "") << "the line is its caller's";
}

// --- Threads -------------------------------------------------------------------------------------

TEST_F(SdoClientTest, AReaderOnAnotherThreadTakesNothingDuringATransfer) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.Expect(kRequest).Reply(kConfirmed, milliseconds(40));
  std::future<bool> confirmed =
      std::async(std::launch::async, [&] { return WriteControlword(driver); });
  ASSERT_TRUE(far_end.WaitFrames(1));
  int tries = 0;
  do {
    std::uint32_t id = 99;
    std::uint8_t len = 99;
    std::array<std::uint8_t, 8> data = {9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_FALSE(driver.ReadData(&id, data.data(), &len));
    EXPECT_EQ(id, 0U);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(data, (std::array<std::uint8_t, 8>{9, 9, 9, 9, 9, 9, 9, 9}));
    CanFrame frame = {{9}, 9, 99};
    EXPECT_FALSE(driver.ReadData(frame));
    EXPECT_EQ(frame.can_id, 99U);
    EXPECT_EQ(Read(driver), kNothingRead);
    ++tries;
  } while (confirmed.wait_for(std::chrono::microseconds(100)) != std::future_status::ready);
  EXPECT_TRUE(confirmed.get()) << "the answer was not stolen";
  EXPECT_GT(tries, 3);
}

TEST_F(SdoClientTest, TransfersOfTwoThreadsRunOneAfterTheOther) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.AnswerSdo(1).Object(0x6064, 1, 0x11111111);
  far_end.AnswerSdo(2).Object(0x6064, 1, 0x22222222);
  const auto read_often = [&](std::uint32_t request_id, std::uint32_t expected) {
    int right = 0;
    for (int i = 0; i < 40; ++i) {
      std::uint32_t data = 0;
      right += driver.SdoWriteWithFeedbackData(request_id, kUpload, 0x6064, 1, 0, &data) &&
               data == expected;
    }
    return right;
  };
  std::future<int> first = std::async(std::launch::async, read_often, 0x601, 0x11111111);
  std::future<int> second = std::async(std::launch::async, read_often, 0x602, 0x22222222);
  EXPECT_EQ(first.get(), 40);
  EXPECT_EQ(second.get(), 40);
  ExpectHearsEverything(driver, far_end);
}

TEST_F(SdoClientTest, ASecondTransferWaitsForTheFirst) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.Expect(kRequest).Reply(kConfirmed, milliseconds(30));
  far_end.Expect("602#4041600000000000").Reply("582#4B41600037020000");
  std::future<bool> first =
      std::async(std::launch::async, [&] { return WriteControlword(driver); });
  ASSERT_TRUE(far_end.WaitFrames(1));
  EXPECT_TRUE(driver.SdoWriteWithFeedback(0x602, kUpload, 0x6041, 0, 0));
  EXPECT_TRUE(first.get());
  const std::vector<bus::RecordedFrame> records = far_end.Records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_GE(records[1].time - records[0].time, milliseconds(20));
}

TEST_F(SdoClientTest, SdoWriteAndNmtDoNotWaitForATransfer) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.ExpectAll({kRequest, "602#2F60600003000000", "000#0101"});
  std::future<bool> silent =
      std::async(std::launch::async, [&] { return WriteControlword(driver); });
  ASSERT_TRUE(far_end.WaitFrames(1));
  EXPECT_TRUE(driver.SdoWrite(0x602, 0x2F, 0x6060, 0, 3));
  driver.StartNode(1);
  EXPECT_NE(silent.wait_for(milliseconds(0)), std::future_status::ready);
  EXPECT_FALSE(silent.get());
}

}  // namespace
