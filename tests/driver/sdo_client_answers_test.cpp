// What the SDO client of DriverCommon sends, and which answers it takes for what.
#include <driver_common.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"
#include "sdo_client_fixture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

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

// --- SdoRead -------------------------------------------------------------------------------------

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

}  // namespace
