// Transfers of several threads.
#include <driver_common.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <vector>

#include "far_end.h"
#include "observed_driver.h"
#include "sdo_client_fixture.h"

namespace {

using std::chrono::milliseconds;

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
