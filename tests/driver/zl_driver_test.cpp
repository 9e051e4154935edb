#include <gtest/gtest.h>
#include <zl_driver.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"
#include "zl_script.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

class ZlDriverTest : public bus::BusTest {};

// --- Bring-up ------------------------------------------------------------------------------------

TEST_F(ZlDriverTest, SetMotorCurrentLimitsBothMotors) {
  bus::FarEnd far_end;
  ZlDriver driver("can0");
  support::OutputCapture capture;
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver.SetMotorCurrent(1), 0);
  EXPECT_EQ(far_end.Frames(), FramesOf(zl_script::kMotorCurrent));
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(ZlDriverTest, SetMotorCurrentCountsAndTellsEveryRefusedWrite) {
  bus::FarEnd far_end;
  ZlDriver driver("can0");
  support::OutputCapture capture;
  far_end.AnswerSdo(1).AbortAll();
  EXPECT_EQ(driver.SetMotorCurrent(1), 8);
  EXPECT_EQ(capture.Out(), PrintedBy(zl_script::kMotorCurrent));
  EXPECT_EQ(capture.Err(), "");
}

// --- Faults --------------------------------------------------------------------------------------

constexpr auto kReadError = "601#433F600000000000";
constexpr auto kResetFault = "601#2B40600080000000";

enum class Reset { kConfirmed, kAborted, kSilent };

struct Activation {
  std::vector<std::string> sent;
  std::string out;
  std::string err;
};

// ActiveNode(1), which is always true, of a node that answers the read of its error with these
// frames, while others that must not be heard wait in the queue. Afterwards everything is heard.
Activation ActiveNode1(const std::vector<std::string>& answers, Reset reset = Reset::kConfirmed) {
  for (int attempt = 1;; ++attempt) {
    bus::FarEnd far_end;
    ZlDriver driver("can0");
    bus::FarEnd::SdoServer& node = far_end.AnswerSdo(1).Silence(0);
    for (const std::string& answer : answers) {
      node.Answer(0, answer);
    }
    if (reset == Reset::kAborted) {
      node.Abort(1, 0x08000022);
    } else if (reset == Reset::kSilent) {
      node.Silence(1);
    }
    Queue(driver, far_end, {"581#433F600007000000", "181#01"});

    support::OutputCapture capture;
    EXPECT_TRUE(driver.ActiveNode(1));
    capture.Stop();
    EXPECT_TRUE(far_end.WaitFrames(1));
    const Activation activation = {far_end.Frames(), WithoutNumbers(capture.Out()), capture.Err()};

    Queue(driver, far_end, {"182#01", "701#05", "581#02"});
    const std::vector<std::string> queued = TakeQueued(driver);
    // The driver looks once, after 5 ms. A machine that stalled may have been later with the
    // answer: then nothing was tested.
    const bool late = !answers.empty() &&
                      std::find(queued.begin(), queued.end(), answers.front()) != queued.end();
    if (late && attempt < 20) {
      continue;
    }
    EXPECT_EQ(std::vector<std::string>(queued.end() - 3, queued.end()),
              (std::vector<std::string>{"182#01", "701#05", "581#02"}));
    return activation;
  }
}

TEST_F(ZlDriverTest, ActiveNodeTellsThatThereIsNoError) {
  const Activation activation = ActiveNode1({"581#433F600000000000"});
  EXPECT_EQ(activation.sent, std::vector<std::string>{kReadError});
  EXPECT_EQ(activation.out, "Motor has no error\n");
  EXPECT_EQ(activation.err, "");
}

TEST_F(ZlDriverTest, ActiveNodeClearsAnError) {
  const Activation activation = ActiveNode1({"581#433F600004000000"});
  EXPECT_EQ(activation.sent, (std::vector<std::string>{kReadError, kResetFault}));
  EXPECT_EQ(activation.out, "Clean motor error now\n");
  EXPECT_EQ(activation.err, "MotorError!! Code = 0x00000004\n");
}

TEST_F(ZlDriverTest, ActiveNodePrintsAllBitsOfTheErrorCode) {
  EXPECT_EQ(ActiveNode1({"581#433F6000EFBEADDE"}).err, "MotorError!! Code = 0xDEADBEEF\n");
}

TEST_F(ZlDriverTest, ActiveNodeTellsThatTheErrorCouldNotBeCleared) {
  EXPECT_EQ(ActiveNode1({"581#433F600004000000"}, Reset::kAborted).out,
            "Clean motor error now\n"
            "write error  0x6040, 0x00, 0x80\n");
  EXPECT_EQ(ActiveNode1({"581#433F600004000000"}, Reset::kSilent).out,
            "Clean motor error now\n"
            "[WARN] SDO response timeout, can_id: 0x581, index: 0x6040, sub: 0x00\n"
            "write error  0x6040, 0x00, 0x80\n");
}

TEST_F(ZlDriverTest, ActiveNodeOfASilentNodePrintsNothing) {
  const Activation activation = ActiveNode1({});
  EXPECT_EQ(activation.sent, std::vector<std::string>{kReadError});
  EXPECT_EQ(activation.out, "");
  EXPECT_EQ(activation.err, "");
}

TEST_F(ZlDriverTest, ActiveNodeLooksOnceAfter5Milliseconds) {
  bus::FarEnd far_end;
  ZlDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect(kReadError).Reply("581#433F600004000000", milliseconds(100));
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(driver.ActiveNode(1));
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(5));
  EXPECT_EQ(capture.Out(), "");
  ASSERT_TRUE(WaitQueued(driver, 1));
  EXPECT_EQ(TakeQueued(driver), std::vector<std::string>{"581#433F600004000000"});
}

TEST_F(ZlDriverTest, ActiveNodeIgnoresAnAnswerAboutAnotherObject) {
  const Activation activation = ActiveNode1({"581#4340600004000000", "581#433F600004000000"});
  EXPECT_EQ(activation.sent, std::vector<std::string>{kReadError});
  EXPECT_EQ(activation.out, "") << "only the first frame is looked at";
  EXPECT_EQ(activation.err, "");
}

TEST_F(ZlDriverTest, ActiveNodeLooksAtNeitherCommandNorSubIndex) {
  EXPECT_EQ(ActiveNode1({"581#803F600000000206"}).err, "MotorError!! Code = 0x06020000\n")
      << "an abort code";
  EXPECT_EQ(ActiveNode1({"581#4B3F600500000000"}).out, "Motor has no error\n");
  EXPECT_EQ(ActiveNode1({"581#433F6000040000"}).out, "Motor has no error\n")
      << "a short frame carries no data";
  EXPECT_EQ(ActiveNode1({"581#433F60"}).out, "") << "and a shorter one no object";
}

TEST_F(ZlDriverTest, ActiveNodeHearsOnlyTheNodesAnswers) {
  // The far end sends in this order: the last one is the only one heard.
  EXPECT_EQ(ActiveNode1(
                {"181#433F600009000000", "582#433F600009000000", "701#05", "581#433F600000000000"})
                .out,
            "Motor has no error\n");
}

TEST_F(ZlDriverTest, ActiveNodeAddressesTheNode) {
  bus::FarEnd far_end;
  ZlDriver driver("can0");
  far_end.Expect("67F#433F600000000000");
  EXPECT_TRUE(driver.ActiveNode(127));
}

}  // namespace
