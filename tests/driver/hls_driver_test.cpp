#include <gtest/gtest.h>
#include <hls_driver.h>

#include <chrono>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "log_sources.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

using Texts = std::vector<std::string>;

class HlsDriverTest : public bus::BusTest {};

TEST_F(HlsDriverTest, InitStartsNode2WhateverTheArguments) {
  class Observed : public HlsDriver {
   public:
    using HlsDriver::HlsDriver;
    void StartNode(std::uint8_t node) override {
      started.push_back(node);
      HlsDriver::StartNode(node);
    }
    std::vector<int> started;
  };
  bus::FarEnd far_end;
  Observed driver("can0");
  far_end.Expect("000#0102");
  EXPECT_TRUE(driver.Init(7, 9, 20));
  EXPECT_EQ(driver.started, std::vector<int>{2});
  HlsDriver off("nocan");
  EXPECT_TRUE(off.Init(1, 2, 10)) << "sent or not";
}

// --- ActiveNode ----------------------------------------------------------------------------------

constexpr auto kReadError = "601#433F600000000000";
constexpr auto kClear = "601#2B03460001000000";
constexpr auto kCleared = "581#6003460000000000";
constexpr auto kRefused = "581#8003460022000008";

constexpr auto kSuccess = "[INFO] node:1 clear motor error success\n";
constexpr auto kFailed = "[ERROR] node:1 clear motor err failed. Sdo write err\n";

struct Activation {
  bool result;
  std::chrono::nanoseconds took;
  std::string out;
};

// ActiveNode(1), after which everything is heard again.
Activation ActiveNode1(HlsDriver& driver, bus::FarEnd& far_end) {
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  const bool result = driver.ActiveNode(1);
  const auto took = bus::Clock::now() - begin;
  capture.Stop();
  EXPECT_TRUE(far_end.WaitScript());
  ExpectHearsEverything(driver, far_end);
  return {result, took, WithoutNumbers(capture.Out())};
}

std::string Got(const std::string& can_id, const std::string& index) {
  return "[INFO] node:1 get frame can_id:0x" + can_id + " read_index:0x" + index + "\n";
}

TEST_F(HlsDriverTest, ActiveNodeOfANodeWithoutErrorClearsNothing) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  Queue(driver, far_end, {"581#433F600010230000"});  // from before: not looked at
  far_end.Expect(kReadError).Reply("581#433F600000000000");
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, Got("581", "603f") + "[INFO] node:1 motor no error\n");
  EXPECT_GE(activation.took, milliseconds(100));
}

TEST_F(HlsDriverTest, ActiveNodeClearsAnError) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#4B3F600010230000");
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out,
            Got("581", "603f") + "[ERROR] node:1 motor has error 2310\n" + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeLooksAtAllBitsOfTheErrorAndNotAtTheCommand) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#803F6005EFBEADDE");
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out,
            Got("581", "603f") + "[ERROR] node:1 motor has error deadbeef\n" + kSuccess);
}

TEST_F(HlsDriverTest, LogLinesOfActiveNodeNameIt) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#4B3F600010230000");
  far_end.Expect(kClear).Reply(kRefused);
  far_end.Expect(kClear).Reply(kCleared);
  LogSources sources;
  driver.ActiveNode(1);
  EXPECT_EQ(sources.Heard(), std::vector<std::string>(4, "./src/driver/hls_driver.cpp ActiveNode"));
}

TEST_F(HlsDriverTest, ActiveNodeOfASilentNodeClearsAtOnce) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError);
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, Got("0", "0") + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeTakesAFrameTooShortForAnObjectAsSilence) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#433F60");
  far_end.Expect(kClear).Reply(kCleared);
  EXPECT_EQ(ActiveNode1(driver, far_end).out, Got("0", "0") + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeAsksAgainAfterAnAnswerThatIsNotIt) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  // One frame is taken per request: the third request finds the answer to the second.
  far_end.Expect(kReadError).Reply("581#4341600000000000");
  far_end.Expect(kReadError).Reply("00000581#433F600000000000").Reply("581#433F600000000000");
  far_end.Expect(kReadError);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, Got("581", "6041") + Got("80000581", "603f") + Got("581", "603f") +
                                "[INFO] node:1 motor no error\n");
  EXPECT_GE(activation.took, milliseconds(300));
}

TEST_F(HlsDriverTest, ActiveNodeClearsAtOnceWhenTheSecondRequestIsNotAnswered) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#4341600000000000");
  far_end.Expect(kReadError);
  far_end.Expect(kClear).Reply(kCleared);
  EXPECT_EQ(ActiveNode1(driver, far_end).out, Got("581", "6041") + Got("0", "0") + kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeAsksTenTimesAtMost) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  std::string expected;
  for (int i = 0; i < 10; ++i) {
    far_end.Expect(kReadError).Reply("581#4341600000000000");
    expected += Got("581", "6041");
  }
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out, expected + kSuccess);
  EXPECT_GE(activation.took, milliseconds(1000));
}

TEST_F(HlsDriverTest, ActiveNodeHearsOnlyTheNodesAnswers) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError)
      .Reply("181#433F600009000000")
      .Reply("582#433F600009000000")
      .Reply("701#05")
      .Reply("581#433F600000000000");
  EXPECT_EQ(ActiveNode1(driver, far_end).out,
            Got("581", "603f") + "[INFO] node:1 motor no error\n");
}

TEST_F(HlsDriverTest, ActiveNodeClearsAgainUntilItIsConfirmed) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError);
  far_end.Expect(kClear).Reply(kRefused);
  far_end.Expect(kClear);
  far_end.Expect(kClear).Reply(kCleared);
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.out,
            Got("0", "0") + kFailed +
                "[WARN] SDO response timeout, can_id: 0x581, index: 0x4603, sub: 0x00\n" + kFailed +
                kSuccess);
}

TEST_F(HlsDriverTest, ActiveNodeGivesUpAfterTenRefusedClearings) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.Expect(kReadError).Reply("581#433F600001000000");
  std::string expected = Got("581", "603f") + "[ERROR] node:1 motor has error 1\n";
  for (int i = 0; i < 10; ++i) {
    far_end.Expect(kClear).Reply(kRefused);
    expected += kFailed;
  }
  const Activation activation = ActiveNode1(driver, far_end);
  EXPECT_FALSE(activation.result);
  EXPECT_EQ(activation.out, expected + "[ERROR] node:1 clear err failed\n");
  EXPECT_LT(activation.took, milliseconds(1000)) << "no pause between clearings";
}

TEST_F(HlsDriverTest, ActiveNodeAddressesTheNode) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("67F#433F600000000000").Reply("5FF#433F600009000000");
  far_end.Expect("67F#2B03460001000000").Reply("5FF#6003460000000000");
  EXPECT_TRUE(driver.ActiveNode(127));
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node:127 get frame can_id:0x5ff read_index:0x603f\n"
            "[ERROR] node:127 motor has error 9\n"
            "[INFO] node:127 clear motor error success\n");
}

// --- CheckStatus ---------------------------------------------------------------------------------

TEST_F(HlsDriverTest, CheckStatusWantsExactly37) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  far_end.ExpectSilence();
  bus::FarEnd::SdoServer& node = far_end.AnswerSdo(1);
  support::OutputCapture capture;
  const auto check = [&](std::uint32_t statusword, unsigned size) {
    node.Object(0x6041, 0, statusword, size);
    capture.Clear();
    const bool ready = driver.CheckStatus(1);
    return std::to_string(ready) + " " + WithoutNumbers(capture.Out());
  };
  const std::string ready = check(0x37, 2);
  const std::string ready4 = check(0x37, 4);
  const std::string with_high_bits = check(0x0237, 2);
  const std::string enabled_no_more = check(0x33, 2);
  const std::string wide = check(0x00010037, 4);
  capture.Stop();
  EXPECT_EQ(ready, "1 [INFO] node: 1 check status: 0x37\n[INFO] node: 1 is ready\n");
  EXPECT_EQ(ready4, ready);
  EXPECT_EQ(with_high_bits, "0 [INFO] node: 1 check status: 0x237\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(enabled_no_more, "0 [INFO] node: 1 check status: 0x33\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(wide, "0 [INFO] node: 1 check status: 0x10037\n[ERROR] node: 1 is not ready\n");
  EXPECT_EQ(far_end.Frames(), Texts(5, "601#4041600000000000"));
}

TEST_F(HlsDriverTest, CheckStatusOfANodeThatRefusesOrIsSilentIsNotReady) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("67F#4041600000000000").Reply("5FF#8041600000000206");
  EXPECT_FALSE(driver.CheckStatus(127));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node: 127 check status: 0x6020000\n[ERROR] node: 127 is not ready\n");
  capture.Clear();
  far_end.Expect("602#4041600000000000");
  EXPECT_FALSE(driver.CheckStatus(2));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x582, index: 0x6041, sub: 0x00\n"
            "[INFO] node: 2 check status: 0x0\n[ERROR] node: 2 is not ready\n");
  capture.Stop();
  ExpectHearsEverything(driver, far_end);
}

}  // namespace
