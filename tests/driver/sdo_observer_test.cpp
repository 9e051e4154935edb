// What an observer is told of the confirmed transfers of its thread.
#include "driver/sdo_observer.h"

#include <driver_common.h>
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using motor_driver::SdoObserver;
using motor_driver::SdoTransfer;
using motor_driver::SetSdoObserver;

constexpr std::uint8_t kUpload = 0x40;
constexpr std::uint8_t kDownload2 = 0x2B;

std::string Words(const SdoTransfer& transfer) {
  static constexpr const char* kOutcomes[] = {"not sent", "silent", "misanswered", "refused",
                                              "accepted"};
  char text[100];
  std::snprintf(text, sizeof(text), "%03X %02X %04X:%02X %08X: %s, %08X", transfer.can_id,
                transfer.command, transfer.index, transfer.sub_index, transfer.value,
                kOutcomes[static_cast<int>(transfer.outcome)], transfer.answer);
  return text;
}

// Observes the thread that made it, for as long as it lives.
class Observer : public SdoObserver {
 public:
  Observer() : before_(SetSdoObserver(this)) {}
  ~Observer() { SetSdoObserver(before_); }
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;

  void Finished(const SdoTransfer& transfer) override { heard.push_back(Words(transfer)); }

  std::vector<std::string> heard;

 private:
  SdoObserver* before_;
};

using Heard = std::vector<std::string>;

// What an observer hears of a transfer with a node that answers this request so; empty: silence.
template <typename Transfer>
Heard HeardOf(const std::string& request, const std::string& answer, Transfer transfer) {
  bus::FarEnd far_end;
  auto expectation = far_end.Expect(request);
  if (!answer.empty()) {
    expectation.Reply(answer);
  }
  ObservedDriver driver("can0");
  const Observer observer;
  transfer(driver);
  return observer.heard;
}

void Enable(ObservedDriver& driver) {
  driver.SdoWriteWithFeedback(0x601, kDownload2, 0x6040, 0, 0x000F);
}

class SdoObserverTest : public bus::BusTest {};

TEST_F(SdoObserverTest, CallsTheLateAnswerToAnotherRequestNoRefusal) {
  EXPECT_EQ(HeardOf("601#4040600000000000", "581#604060000F000000",
                    [](ObservedDriver& driver) {
                      driver.SdoWriteWithFeedback(0x601, kUpload, 0x6040, 0, 0);
                    }),
            Heard{"601 40 6040:00 00000000: misanswered, 0000000F"});
}

TEST_F(SdoObserverTest, HearsOfAnAcceptedWrite) {
  EXPECT_EQ(HeardOf("601#2B4060000F000000", "581#6040600000000000", Enable),
            Heard{"601 2B 6040:00 0000000F: accepted, 00000000"});
}

TEST_F(SdoObserverTest, HearsTheValueOfAnAcceptedRead) {
  EXPECT_EQ(HeardOf("602#4064600100000000", "582#43646001EFCDAB89",
                    [](ObservedDriver& driver) {
                      std::uint32_t value = 0;
                      driver.SdoWriteWithFeedbackData(0x602, kUpload, 0x6064, 1, 0, &value);
                    }),
            Heard{"602 40 6064:01 00000000: accepted, 89ABCDEF"});
}

TEST_F(SdoObserverTest, HearsTheAbortCodeOfARefusal) {
  EXPECT_EQ(HeardOf("601#2B4060000F000000", "581#8040600030000906", Enable),
            Heard{"601 2B 6040:00 0000000F: refused, 06090030"});
}

TEST_F(SdoObserverTest, HearsOfSilence) {
  EXPECT_EQ(HeardOf("601#2B4060000F000000", "", Enable),
            Heard{"601 2B 6040:00 0000000F: silent, 00000000"});
}

TEST_F(SdoObserverTest, HearsOfWhatWasNotSent) {
  ObservedDriver driver("nocan");
  const Observer observer;
  EXPECT_FALSE(driver.SdoWriteWithFeedback(0x67F, kDownload2, 0x1017, 0, 500));
  EXPECT_EQ(observer.heard, Heard{"67F 2B 1017:00 000001F4: not sent, 00000000"});
}

TEST_F(SdoObserverTest, HearsOfUnconfirmedWritesNothing) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  const Observer observer;
  EXPECT_TRUE(driver.SdoWrite(0x601, kDownload2, 0x6040, 0, 0x000F));
  EXPECT_EQ(observer.heard, Heard{});
}

// The drive classes go through the same transfers: which write of a set-up failed.
TEST_F(SdoObserverTest, HearsEveryTransferOfASetUpInOrder) {
  const Heard expected = {
      "601 2F 6060:00 000000FD: accepted, 00000000",
      "601 2B 6040:00 00000006: refused, 08000022",
      "601 2B 6040:00 00000007: accepted, 00000000",
      "601 2B 6040:00 0000000F: accepted, 00000000",
  };
  bus::FarEnd far_end;
  far_end.AnswerSdo(1).Abort(1, 0x08000022);
  KincoDriver driver("can0", 10000);
  const support::OutputCapture capture;
  const Observer observer;
  driver.SetSpeedMode(1);
  EXPECT_EQ(observer.heard, expected);
}

TEST_F(SdoObserverTest, HearsOfNoOtherThread) {
  ObservedDriver driver("nocan");
  const Observer observer;
  Heard heard_there;
  std::thread other([&] {
    const Observer there;
    EXPECT_FALSE(driver.SdoWriteWithFeedback(0x602, kDownload2, 0x6040, 0, 6));
    heard_there = there.heard;
  });
  other.join();
  std::thread unobserved([&] { driver.SdoWriteWithFeedback(0x603, kDownload2, 0x6040, 0, 6); });
  unobserved.join();
  EXPECT_EQ(observer.heard, Heard{});
  EXPECT_EQ(heard_there, Heard{"602 2B 6040:00 00000006: not sent, 00000000"});
}

TEST_F(SdoObserverTest, AnswersTheObserverBefore) {
  ObservedDriver driver("nocan");
  Observer first;
  {
    Observer second;
    EXPECT_EQ(SetSdoObserver(nullptr), &second);
    driver.SdoWriteWithFeedback(0x601, kDownload2, 0x6040, 0, 6);
    EXPECT_EQ(SetSdoObserver(&second), nullptr);
    EXPECT_EQ(second.heard, Heard{});
    driver.SdoWriteWithFeedback(0x601, kDownload2, 0x6040, 0, 7);
    EXPECT_EQ(second.heard.size(), 1U);
  }
  EXPECT_EQ(first.heard, Heard{});
  driver.SdoWriteWithFeedback(0x601, kDownload2, 0x6040, 0, 0xF);
  EXPECT_EQ(first.heard, Heard{"601 2B 6040:00 0000000F: not sent, 00000000"});
}

}  // namespace
