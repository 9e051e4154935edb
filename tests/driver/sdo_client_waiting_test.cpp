// How long the SDO client of DriverCommon waits, for what, and what it hears meanwhile.
#include <driver_common.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "eventually.h"
#include "far_end.h"
#include "log_sources.h"
#include "observed_driver.h"
#include "output_capture.h"
#include "sdo_client_fixture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

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

}  // namespace
