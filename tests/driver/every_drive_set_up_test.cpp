// The set-up of every make: what is sent, counted, printed and left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "described_makes.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using tested::DescribedMake;
using tested::Texts;

class EveryDriveSetUpTest : public tested::EveryDriveTest {};

// Checks that the set-up left nothing in the queue but what comes in after its end, and no filter.
void ExpectLeft(DriverCommon& driver, bus::FarEnd& far_end, const DescribedMake& described,
                std::uint8_t node) {
  if (described.leaves_an_answer) {
    can_frame answer = bus::ParseFrame("580#6017100000000000");
    answer.can_id += node;
    ASSERT_TRUE(WaitQueued(driver, 1));
    EXPECT_EQ(TakeQueued(driver), Texts{bus::FormatFrame(answer)});
  }
  ExpectHearsEverything(driver, far_end);
}

TEST_P(EveryDriveSetUpTest, SetSpeedModeSelectsVelocityModeAndEnables) {
  bus::FarEnd far_end;
  const auto driver = Create();
  support::OutputCapture capture;
  Queue(*driver, far_end, {"181#01"});
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver->SetSpeedMode(1), 0);
  capture.Stop();
  EXPECT_EQ(far_end.Frames(), FramesOf(GetParam().speed_mode));
  EXPECT_EQ(capture.Out(), "");
  ExpectHearsEverything(*driver, far_end);
}

TEST_P(EveryDriveSetUpTest, SetsUpNode1) {
  const std::vector<SetUpStep>& script = GetParam().make.script;
  bus::FarEnd far_end;
  const auto driver = Create();
  support::OutputCapture capture;
  Queue(*driver, far_end, {"181#01", "481#02"});
  far_end.AnswerSdo(1);
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_TRUE(far_end.WaitFrames(script.size()));
  capture.Stop();
  EXPECT_EQ(far_end.Frames(), FramesOf(script));
  EXPECT_EQ(capture.Out(), "");
  EXPECT_EQ(capture.Err(), "");
  ExpectLeft(*driver, far_end, GetParam(), 1);
}

TEST_P(EveryDriveSetUpTest, CountsAndTellsEveryRefusedWrite) {
  const std::vector<SetUpStep>& script = GetParam().make.script;
  const std::vector<SetUpStep>& mode = GetParam().speed_mode;
  bus::FarEnd far_end;
  const auto driver = Create();
  support::OutputCapture capture;
  far_end.AnswerSdo(1).AbortAll();
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), GetParam().confirmed_writes);
  EXPECT_EQ(capture.Out(), PrintedBy(script));
  EXPECT_TRUE(far_end.WaitFrames(script.size()));
  EXPECT_EQ(far_end.Frames(), FramesOf(script));
  capture.Clear();
  far_end.Forget();
  EXPECT_EQ(driver->SetSpeedMode(1), mode.size());
  EXPECT_EQ(capture.Out(), PrintedBy(mode));
  EXPECT_EQ(far_end.Frames(), FramesOf(mode));
  EXPECT_EQ(capture.Err(), "");
}

TEST_P(EveryDriveSetUpTest, CountsEveryWriteToASilentNode) {
  bus::FarEnd far_end;
  const auto driver = Create();
  const auto begin = bus::Clock::now();
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), GetParam().confirmed_writes);
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(100) * GetParam().confirmed_writes);
  EXPECT_LT(took, milliseconds(190) * GetParam().confirmed_writes);
  EXPECT_TRUE(far_end.WaitFrames(GetParam().make.script.size()));
  EXPECT_EQ(far_end.Frames(), FramesOf(GetParam().make.script));
  ExpectHearsEverything(*driver, far_end);
}

TEST_P(EveryDriveSetUpTest, ADerivedMakeMayReplacePartsOfIt) {
  Texts calls;
  bus::FarEnd far_end;
  const auto driver = GetParam().create_with_own_parts(calls);
  far_end.AnswerSdo(1).Abort(GetParam().refused_beside_own_parts);
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 101) << "its count is added";
  EXPECT_EQ(calls, GetParam().own_parts_called);
  // What is sent without them.
  Texts expected;
  const Texts mode = FramesOf(GetParam().speed_mode);
  for (const SetUpStep& step : GetParam().make.script) {
    const bool is_replaced =
        step.printed.empty() || std::find(mode.begin(), mode.end(), step.frame) != mode.end();
    if (!is_replaced) {
      expected.push_back(step.frame);
    }
  }
  EXPECT_EQ(far_end.Frames(), expected);
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryDriveSetUpTest, ::testing::ValuesIn(tested::DescribedMakes()),
                         tested::NameOf);

// --- The heartbeat, which no answer is awaited to ------------------------------------------------

std::size_t HeartbeatOf(const DescribedMake& described) {
  std::size_t step = 0;
  while (step < described.make.script.size() && !described.make.script[step].printed.empty()) {
    ++step;
  }
  return step;
}

class EveryDriveHeartbeatTest : public tested::EveryDriveTest {};

TEST_P(EveryDriveHeartbeatTest, ARefusedOneIsNotCounted) {
  bus::FarEnd far_end;
  const auto driver = Create();
  support::OutputCapture capture;
  far_end.AnswerSdo(1).Abort(HeartbeatOf(GetParam()));
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(capture.Out(), "");
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryDriveHeartbeatTest,
                         ::testing::ValuesIn(tested::DescribedMakesThat([](const auto& described) {
                           return HeartbeatOf(described) < described.make.script.size();
                         })),
                         tested::NameOf);

// --- Other nodes and periods ---------------------------------------------------------------------

struct Variant {
  DescribedMake described;
  SetUpVariant set_up;
};

void PrintTo(const Variant& variant, std::ostream* out) {
  *out << variant.described.make.name << ", node " << int{variant.set_up.node} << ", period "
       << variant.set_up.period_ms << " ms";
}

std::vector<Variant> Variants() {
  std::vector<Variant> variants;
  for (const DescribedMake& described : tested::DescribedMakes()) {
    for (const SetUpVariant& set_up : described.variants) {
      variants.push_back({described, set_up});
    }
  }
  return variants;
}

class EveryDriveSetUpVariantTest : public bus::PunctualBusTest,
                                   public ::testing::WithParamInterface<Variant> {
 protected:
  static std::uint16_t SetUp(DriverCommon& driver) {
    return driver.EnableSpeedModeAndPdoMode(GetParam().set_up.node, GetParam().set_up.period_ms);
  }

  const DescribedMake& described_ = GetParam().described;
  const std::uint8_t node_ = GetParam().set_up.node;
  const std::vector<SetUpStep> expected_ =
      Varied(described_.make.script, described_.varying, GetParam().set_up);
  bus::FarEnd far_end_;
  std::unique_ptr<DriverCommon> driver_ = described_.make.create("can0");
};

TEST_P(EveryDriveSetUpVariantTest, WritesEveryObject) {
  support::OutputCapture capture;
  far_end_.AnswerSdo(node_);
  EXPECT_EQ(SetUp(*driver_), 0);
  EXPECT_TRUE(far_end_.WaitFrames(expected_.size()));
  capture.Stop();
  EXPECT_EQ(far_end_.Frames(), FramesOf(expected_));
  EXPECT_EQ(capture.Out(), "");
  ExpectLeft(*driver_, far_end_, described_, node_);
}

TEST_P(EveryDriveSetUpVariantTest, CountsAndTellsEveryRefusedWrite) {
  support::OutputCapture capture;
  far_end_.AnswerSdo(node_).AbortAll();
  EXPECT_EQ(SetUp(*driver_), described_.confirmed_writes);
  EXPECT_EQ(capture.Out(), PrintedBy(expected_));
  EXPECT_TRUE(far_end_.WaitFrames(expected_.size()));
  EXPECT_EQ(far_end_.Frames(), FramesOf(expected_));
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryDriveSetUpVariantTest, ::testing::ValuesIn(Variants()),
                         [](const ::testing::TestParamInfo<Variant>& test) {
                           const SetUpVariant& set_up = test.param.set_up;
                           return test.param.described.make.name + "Node" +
                                  std::to_string(set_up.node) + "Period" +
                                  std::to_string(set_up.period_ms);
                         });

}  // namespace
