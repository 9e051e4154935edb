// How the Kinco drive is activated, and how its errors are cleared.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <chrono>
#include <cstdint>
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

constexpr unsigned long kPulses = 10000;

class KincoErrorsTest : public bus::BusTest {};

constexpr auto kEnable = "601#2B4060000F000000";
constexpr auto kReadError = "601#403F600000000000";
constexpr auto kResetFault = "601#2B40600086000000";

// ActiveNode(1) of a node with this error, which is told how to answer by `script`.
struct Activation {
  bool result;
  std::vector<std::string> sent;
  std::string out;
};

template <typename Script>
Activation ActiveNode1(std::uint32_t error, Script script) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  script(far_end.AnswerSdo(1).Object(0x603F, 0, error));
  support::OutputCapture capture;
  Activation activation = {driver.ActiveNode(1), {}, ""};
  capture.Stop();
  EXPECT_EQ(capture.Err(), "");
  activation.sent = far_end.Frames();
  activation.out = WithoutNumbers(capture.Out());
  ExpectHearsEverything(driver, far_end);
  return activation;
}

void ConfirmEverything(bus::FarEnd::SdoServer&) {}

std::string TimeoutLine(const char* index) {
  return "[WARN] SDO response timeout, can_id: 0x581, index: " + std::string(index) +
         ", sub: 0x00\n";
}

TEST_F(KincoErrorsTest, ActiveNodeTellsThatThereIsNoError) {
  const Activation activation = ActiveNode1(0, ConfirmEverything);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent, (std::vector<std::string>{kEnable, kReadError}));
  EXPECT_EQ(activation.out, "[INFO] node:1 motor no error\n");
}

TEST_F(KincoErrorsTest, ActiveNodeClearsAnError) {
  const Activation activation = ActiveNode1(0xFF3A, ConfirmEverything);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent, (std::vector<std::string>{kEnable, kReadError, kResetFault}));
  EXPECT_EQ(activation.out,
            "[ERROR] node:1 motor has error ff3a\n"
            "[INFO] node:1 clear motor error success\n");
}

TEST_F(KincoErrorsTest, ActiveNodeLooksAt16BitsOfTheError) {
  EXPECT_EQ(ActiveNode1(0xDEAD0000, ConfirmEverything).out, "[INFO] node:1 motor no error\n");
  EXPECT_EQ(ActiveNode1(0xDEAD0010, ConfirmEverything).out,
            "[ERROR] node:1 motor has error 10\n"
            "[INFO] node:1 clear motor error success\n");
}

TEST_F(KincoErrorsTest, ActiveNodeTriesAgainToClear) {
  const auto refuse_twice = [](bus::FarEnd::SdoServer& node) { node.Abort(2).Abort(3); };
  const Activation activation = ActiveNode1(0x2310, refuse_twice);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent,
            (std::vector<std::string>{kEnable, kReadError, kResetFault, kResetFault, kResetFault}));
  EXPECT_EQ(activation.out,
            "[ERROR] node:1 motor has error 2310\n"
            "[ERROR] node:1 clear motor err failed. Sdo write err\n"
            "[ERROR] node:1 clear motor err failed. Sdo write err\n"
            "[INFO] node:1 clear motor error success\n");
}

TEST_F(KincoErrorsTest, ActiveNodeSucceedsInTheTenthTry) {
  const auto refuse_nine = [](bus::FarEnd::SdoServer& node) {
    for (std::size_t request = 2; request < 11; ++request) {
      node.Abort(request);
    }
  };
  const Activation activation = ActiveNode1(0x2310, refuse_nine);
  EXPECT_TRUE(activation.result);
  EXPECT_EQ(activation.sent.size(), 12U);
}

TEST_F(KincoErrorsTest, ActiveNodeGivesUpAfterTenTries) {
  const auto refuse_ten = [](bus::FarEnd::SdoServer& node) {
    for (std::size_t request = 2; request < 12; ++request) {
      node.Abort(request);
    }
  };
  const Activation activation = ActiveNode1(0x2310, refuse_ten);
  EXPECT_FALSE(activation.result);
  std::vector<std::string> sent = {kEnable, kReadError};
  sent.insert(sent.end(), 10, kResetFault);
  EXPECT_EQ(activation.sent, sent);
  std::string out = "[ERROR] node:1 motor has error 2310\n";
  for (int i = 0; i < 10; ++i) {
    out += "[ERROR] node:1 clear motor err failed. Sdo write err\n";
  }
  EXPECT_EQ(activation.out, out + "[ERROR] node:1 clear err failed\n");
}

TEST_F(KincoErrorsTest, ActiveNodeGivesUpOnANodeThatFallsSilent) {
  const auto silent_at_reset = [](bus::FarEnd::SdoServer& node) {
    for (std::size_t request = 2; request < 12; ++request) {
      node.Silence(request);
    }
  };
  const auto begin = bus::Clock::now();
  const Activation activation = ActiveNode1(0x2310, silent_at_reset);
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(1000));
  EXPECT_FALSE(activation.result);
  std::string out = "[ERROR] node:1 motor has error 2310\n";
  for (int i = 0; i < 10; ++i) {
    out += TimeoutLine("0x6040") + "[ERROR] node:1 clear motor err failed. Sdo write err\n";
  }
  EXPECT_EQ(activation.out, out + "[ERROR] node:1 clear err failed\n");
}

TEST_F(KincoErrorsTest, ActiveNodeEndsWhenTheNodeCannotBeEnabled) {
  const Activation aborted = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Abort(0); });
  EXPECT_FALSE(aborted.result);
  EXPECT_EQ(aborted.sent, std::vector<std::string>{kEnable});
  EXPECT_EQ(aborted.out, "write error 0x6040, 0x00, 0x000F\n");
  const Activation silent = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Silence(0); });
  EXPECT_FALSE(silent.result);
  EXPECT_EQ(silent.sent, std::vector<std::string>{kEnable});
  EXPECT_EQ(silent.out, TimeoutLine("0x6040") + "write error 0x6040, 0x00, 0x000F\n");
}

TEST_F(KincoErrorsTest, ActiveNodeEndsWhenTheErrorCannotBeRead) {
  const Activation aborted = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Abort(1); });
  EXPECT_FALSE(aborted.result);
  EXPECT_EQ(aborted.sent, (std::vector<std::string>{kEnable, kReadError}));
  EXPECT_EQ(aborted.out, "[WARN] node:1 failed to read motor error status\n");
  const Activation silent = ActiveNode1(0, [](bus::FarEnd::SdoServer& node) { node.Silence(1); });
  EXPECT_FALSE(silent.result);
  EXPECT_EQ(silent.out,
            TimeoutLine("0x603F") + "[WARN] node:1 failed to read motor error status\n");
}

TEST_F(KincoErrorsTest, ActiveNodeAddressesTheNode) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.Expect("67F#2B4060000F000000").Reply("5FF#6040600000000000");
  far_end.Expect("67F#403F600000000000").Reply("5FF#4B3F600000000000");
  EXPECT_TRUE(driver.ActiveNode(127));
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node:127 motor no error\n");
}

TEST_F(KincoErrorsTest, LogLinesNameTheOperation) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  far_end.AnswerSdo(1).Object(0x603F, 0, 0x2310, 2).Object(0x6041, 0, 0x37, 2).Abort(2);
  LogSources sources;
  driver.ActiveNode(1);
  driver.CheckStatus(1);
  const std::string source = "./src/driver/kinco_driver.cpp ";
  EXPECT_EQ(
      sources.Heard(),
      (std::vector<std::string>{source + "ActiveNode", source + "ActiveNode", source + "ActiveNode",
                                source + "CheckStatus", source + "CheckStatus"}));
}

TEST_F(KincoErrorsTest, ClearDriverErrorResetsAndEnables) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.Expect(kResetFault).Reply("581#6040600000000000");
  far_end.Expect(kEnable).Reply("581#6040600000000000");
  EXPECT_TRUE(driver.ClearDriverError(1));
  EXPECT_EQ(capture.Out(), "");
  far_end.Expect("67F#2B40600086000000").Reply("5FF#6040600000000000");
  far_end.Expect("67F#2B4060000F000000").Reply("5FF#6040600000000000");
  EXPECT_TRUE(driver.ClearDriverError(127));
}

TEST_F(KincoErrorsTest, ClearDriverErrorEndsWithTheFirstFailure) {
  bus::FarEnd far_end;
  KincoDriver driver("can0", kPulses);
  support::OutputCapture capture;
  far_end.Expect(kResetFault).Reply("581#8040600022000008");
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_EQ(capture.Out(), "write error 0x6040, 0x00, 0x0086\n");
  capture.Clear();
  far_end.Expect(kResetFault);
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            TimeoutLine("0x6040") + "write error 0x6040, 0x00, 0x0086\n");
  capture.Clear();
  far_end.Expect(kResetFault).Reply("581#6040600000000000");
  far_end.Expect(kEnable).Reply("581#8040600022000008");
  EXPECT_FALSE(driver.ClearDriverError(1));
  EXPECT_EQ(capture.Out(), "write error 0x6040, 0x00, 0x000F\n");
}

}  // namespace
