#include <gtest/gtest.h>
#include <tt_driver.h>

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

using Texts = std::vector<std::string>;

class TtDriverTest : public bus::BusTest {};

constexpr auto kIsActive = "601#4040600000000000";
constexpr auto kNotActive = "581#8040600000000206";
constexpr auto kActivation = "001#1010";

// Passes the filters of both identifiers, without being one of them.
constexpr auto kSameNumberButExtended = "00000701#00";

// The frames that a node sends once it was activated, and what ActiveNode makes of them.
struct Awakening {
  const char* name;
  Texts frames;
  int confirmations;
  Texts left;  // in the queue
};

void PrintTo(const Awakening& awakening, std::ostream* out) { *out << awakening.name; }

// The same frame several times, then others.
Texts Repeated(std::size_t times, const char* frame, const Texts& then = {}) {
  Texts frames(times, frame);
  frames.insert(frames.end(), then.begin(), then.end());
  return frames;
}

class TtAwakeningTest : public bus::BusTest, public ::testing::WithParamInterface<Awakening> {};

TEST_P(TtAwakeningTest, IsJudgedByTwoConfirmations) {
  const Awakening& p = GetParam();
  bus::FarEnd far_end;
  TtDriver driver("can0");
  far_end.Expect(kIsActive).Reply(kNotActive);
  auto activation = far_end.Expect(kActivation);
  for (const std::string& frame : p.frames) {
    activation.Reply(frame, milliseconds(500));
  }
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  const bool result = driver.ActiveNode(1);
  const auto took = bus::Clock::now() - begin;
  capture.Stop();
  EXPECT_EQ(result, p.confirmations == 2);
  EXPECT_EQ(WithoutNumbers(capture.Out()), p.confirmations == 2
                                               ? "[INFO] Active node id = 1\n"
                                               : "[ERROR] failed to active node1, flag = " +
                                                     std::to_string(p.confirmations) + "\n\n");
  EXPECT_GE(took, milliseconds(2000));
  EXPECT_LT(took, milliseconds(4000));
  EXPECT_EQ(TakeQueued(driver), p.left);

  // Heartbeat and emergency messages of the node stay the only frames heard.
  for (const char* foreign : {"181#01", "481#02", "581#03", "702#00", "082#00", "000#0101"}) {
    far_end.Send(foreign);
  }
  Queue(driver, far_end, {"701#05", "081#0102"});
  EXPECT_EQ(TakeQueued(driver), (Texts{"701#05", "081#0102"}));
}

// clang-format off
const Awakening kAwakenings[] = {
    {"BootUpThenNoError", {"701#00", "081#0000000000000000"}, 2, {}},
    {"NoErrorThenBootUp", {"081#0000000000000000", "701#00"}, 2, {}},
    {"TwoBootUps", {"701#00", "701#00"}, 2, {}},
    {"TwoNoErrorsAndAThirdLeftUnread",
     {"081#0000000000000000", "081#0000000000000000", "081#0000000000000000"}, 2,
     {"081#0000000000000000"}},
    {"Nothing", {}, 0, {}},
    {"BootUpOnly", {"701#00"}, 1, {}},
    {"NoErrorOnly", {"081#0000000000000000"}, 1, {}},
    {"HeartbeatsThatAreNoBootUp", {"701#05", "701#7F", "701#04", "701#0000", "701#", "701#00"}, 1, {}},
    {"EmergenciesWithAnError",
     {"081#0100000000000000", "081#0001000000000000", "081#0000010000000000", "081#0000000100000000",
      "081#0000000001000000", "081#0000000000010000", "081#0000000000000100", "081#0000000000000001"},
     0, {}},
    {"EmergenciesThatAreShort", {"081#00000000000000", "081#00", "081#", "701#00"}, 1, {}},
    {"OtherKindsOfFrame",
     {kSameNumberButExtended, "701#R1", "081#R8", "00000081#0000000000000000"}, 0, {}},
    {"ForeignFramesCostNoPass",
     Repeated(12, "702#00", {"082#0000000000000000", "581#00", "181#0000000000000000", "701#00",
                             "081#0000000000000000"}),
     2, {}},
    {"InTheLastTwoPasses", Repeated(8, "701#05", {"701#00", "081#0000000000000000"}), 2, {}},
    {"OnePassTooLate", Repeated(9, kSameNumberButExtended, {"701#00", "081#0000000000000000"}), 1,
     {"081#0000000000000000"}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Frames, TtAwakeningTest, ::testing::ValuesIn(kAwakenings),
                         [](const ::testing::TestParamInfo<Awakening>& test) {
                           return std::string(test.param.name);
                         });

TEST_F(TtDriverTest, ActiveNodeTellsThatTheNodeIsActiveAlready) {
  bus::FarEnd far_end;
  TtDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect(kIsActive).Reply("581#4B40600006000000");
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(driver.ActiveNode(1));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(1000));
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 has been actived\n\n");
  ExpectHearsEverything(driver, far_end);
}

// A node that is asked over the bus nothing but to become active.
class Inactive : public TtDriver {
 public:
  using TtDriver::TtDriver;
  bool IsActived(std::uint8_t node) override {
    asked.push_back(node);
    return active;
  }
  bool active = false;
  std::vector<int> asked;
};

TEST_F(TtDriverTest, ADerivedMakeMayTellWhetherTheNodeIsActive) {
  bus::FarEnd far_end;
  Inactive driver("can0");
  driver.active = true;
  far_end.ExpectSilence();
  EXPECT_TRUE(driver.ActiveNode(127));
  EXPECT_EQ(driver.asked, std::vector<int>{127});
}

TEST_F(TtDriverTest, ActiveNodeForgetsWhatCameBeforeAndAddressesTheNode) {
  bus::FarEnd far_end;
  Inactive driver("can0");
  Queue(driver, far_end, {"77F#00", "0FF#0000000000000000"});
  far_end.Expect("07F#1010").Reply("77F#00", milliseconds(500));
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(driver.ActiveNode(127));
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(2000 + 9 * 10)) << "a pause in each other pass";
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[ERROR] failed to active node127, flag = 1\n\n");
}

TEST_F(TtDriverTest, ActiveNodeTellsThatItCouldNotSend) {
  Inactive driver("can0");
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  // The second frame that waits fails with ENOBUFS; the receive thread notices nothing.
  bus::TrafficControl("netem limit 1 delay 10s");
  EXPECT_TRUE(driver.SetSpeed(1, 0));
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(driver.ActiveNode(1));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(1000)) << "nothing to wait for";
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] write error, nbytes = -1, sys errno: 105\n"
            "[WARN] node1 write command failed\n");
  // The filters are in force all the same.
  far_end.Send("181#01");
  Queue(driver, far_end, {"701#05", "081#0102"});
  EXPECT_EQ(TakeQueued(driver), (Texts{"701#05", "081#0102"}));
}

}  // namespace
