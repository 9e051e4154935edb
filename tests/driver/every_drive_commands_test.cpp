// What every make does with the calls of a host: on the bus, and as a result.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "described_makes.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;
using tested::DescribedMake;
using tested::StatusFrom;
using tested::Texts;

class EveryDriveCommandsTest : public tested::EveryDriveTest {
 protected:
  static bool SetSpeed(DriverCommon& driver, const tested::SpeedCommand& speed) {
    return GetParam().make.motors == 2 ? driver.SetSpeed(speed.node, speed.rpm[0], speed.rpm[1])
                                       : driver.SetSpeed(speed.node, speed.rpm[0]);
  }
};

TEST_P(EveryDriveCommandsTest, TellsTheCountsOfARevolution) {
  EXPECT_EQ(Create()->GetNumberOfPulsesPerRevolution(),
            GetParam().make.reports.counts_per_revolution);
}

TEST_P(EveryDriveCommandsTest, IsADriveLikeAnyOther) {
  bus::FarEnd far_end;
  const auto driver = Create();
  // Enabled, without error, active, and with a period of 10 ms.
  far_end.AnswerSdo(1)
      .Object(0x603F, 0, 0, 2)
      .Object(0x6041, 0, 0x37, 2)
      .Object(0x6040, 0, 6, 2)
      .Object(0x1800, 5, 10, 2);
  EXPECT_TRUE(driver->ActiveNode(1));
  if (GetParam().status_from != StatusFrom::kReports) {
    EXPECT_TRUE(driver->CheckStatus(1));
  }
  support::OutputCapture capture;
  EXPECT_EQ(driver->EnableSpeedModeAndPdoMode(1, 10), 0);
  EXPECT_EQ(driver->SetSpeedMode(1), 0);
  EXPECT_TRUE(driver->SaveAllParams(1));
  EXPECT_EQ(driver->ClearDriverError(1), GetParam().clears_errors);
  EXPECT_EQ(driver->GetTpdo0Period(1), 10);
  EXPECT_EQ(driver->GetDriverStatus(1), DriverStatus::Unknown);
  EXPECT_EQ(driver->GetErrorCode(1).msg, "unknown");
  capture.Stop();
  EXPECT_EQ(capture.Out(), "");

  far_end.ExpectAll({"000#0101", GetParam().speeds[0].frame});
  driver->StartNode(1);
  driver->set_speed_command_enabled(true);
  EXPECT_TRUE(SetSpeed(*driver, GetParam().speeds[0]));
  EXPECT_TRUE(far_end.WaitScript());
  driver->ClearReadQueue();
  const tested::Reading& reading = GetParam().turning.then[0];
  Queue(*driver, far_end, {reading.report});
  std::uint8_t node = 99;
  double rpm[2] = {};
  int counts[2] = {};
  EXPECT_TRUE(GetParam().make.motors == 2
                  ? driver->GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1])
                  : driver->GetSpeed(node, rpm[0], counts[0]));
  EXPECT_EQ(node, reading.node);
}

TEST_P(EveryDriveCommandsTest, KeepsTheDefaultsOfWhatItDoesNotOverride) {
  bus::FarEnd far_end;
  const auto driver = Create();
  far_end.ExpectSilence();
  GetParam().expect_defaults(*driver, GetParam());
}

TEST_P(EveryDriveCommandsTest, ResetStartAndSavingAreSilentWhereTheMakeHasNone) {
  bus::FarEnd far_end;
  const auto driver = Create();
  support::OutputCapture capture;
  far_end.ExpectSilence();
  if (GetParam().is_reset_and_started) {
    far_end.ExpectAll({"000#8101", "000#8001", "000#0100"});
  }
  EXPECT_TRUE(driver->ResetNode(1));
  driver->StartAllNode();
  if (GetParam().saving.request.empty()) {
    EXPECT_TRUE(driver->SaveAllParams(1));
  }
  capture.Stop();
  EXPECT_EQ(WithoutNumbers(capture.Out()), GetParam().is_reset_and_started
                                               ? "[INFO] reset node id = 1\n"
                                                 "[INFO] init node id = 1\n"
                                               : "");
}

TEST_P(EveryDriveCommandsTest, SetSpeedSendsTheUnitOfTheMakeToTheNode) {
  bus::FarEnd far_end;
  const auto driver = Create();
  driver->set_speed_command_enabled(GetParam().speeds_need_enabling);
  for (const tested::SpeedCommand& speed : GetParam().speeds) {
    far_end.Expect(speed.frame);
  }
  for (const tested::SpeedCommand& speed : GetParam().speeds) {
    EXPECT_TRUE(SetSpeed(*driver, speed));
  }
}

TEST_P(EveryDriveCommandsTest, SetSpeedTellsThatNothingWasSentWhereItKnows) {
  const auto driver = Create("nocan");
  EXPECT_EQ(SetSpeed(*driver, GetParam().speeds[0]), !GetParam().knows_what_was_sent);
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryDriveCommandsTest,
                         ::testing::ValuesIn(tested::DescribedMakes()), tested::NameOf);

// The other tables of the makes are in this order, too.
TEST(DescribedMakesTest, AreAllMakes) {
  Texts names;
  for (const tested::Make& make : tested::Makes()) {
    names.push_back(make.name);
  }
  Texts described_names;
  for (const DescribedMake& described : tested::DescribedMakes()) {
    described_names.push_back(described.make.name);
  }
  EXPECT_EQ(described_names, names);
}

// --- Makes that look for reports in CheckStatus --------------------------------------------------

// CheckStatus(1) with frames that arrive while it sleeps for the first time.
struct Checked {
  bool result;
  std::chrono::nanoseconds took;
  std::string out;
};

class EveryDriveStatusTest : public tested::EveryDriveTest {
 protected:
  Checked CheckStatusOfNode1(const Texts& frames) {
    for (int attempt = 1;; ++attempt) {
      support::OutputCapture capture;
      const auto begin = bus::Clock::now();
      bus::Clock::time_point sent;
      std::thread node([&] {
        std::this_thread::sleep_for(milliseconds(30));
        for (const std::string& frame : frames) {
          far_end_.Send(frame);
        }
        sent = bus::Clock::now();
      });
      const bool result = driver_->CheckStatus(1);
      const auto took = bus::Clock::now() - begin;
      node.join();
      capture.Stop();
      // On a machine that stalled the frames may have come after the first look at the queue: then
      // nothing was tested.
      if (sent - begin < milliseconds(80) || attempt == 5) {
        return {result, took, WithoutNumbers(capture.Out())};
      }
      driver_->ClearReadQueue();
    }
  }

  // What passes the filter afterwards.
  void ExpectHears() {
    if (GetParam().hears_all_after_status) {
      ExpectHearsEverything(*driver_, far_end_);
      return;
    }
    for (const char* foreign : {"182#01", "701#05", "581#03", "481#02"}) {
      far_end_.Send(foreign);
    }
    Queue(*driver_, far_end_, {"181#0102"});
    EXPECT_EQ(TakeQueued(*driver_), Texts{"181#0102"});
  }

  bus::FarEnd far_end_;
  std::unique_ptr<DriverCommon> driver_ = Create();
};

constexpr auto kWorks = "[INFO] node1 motor works\n\n";
constexpr auto kFails = "[ERROR] node1 motor error\r\n\n";

// One frame is taken in each attempt. These pass the filter of the identifier, without being it.
constexpr auto kNoReport = "00000181#0000000000000000";

TEST_P(EveryDriveStatusTest, SucceedsWithTheFirstPositionReport) {
  far_end_.ExpectSilence();
  const Checked checked = CheckStatusOfNode1({"181#", "181#01"});
  EXPECT_TRUE(checked.result);
  EXPECT_EQ(checked.out, kWorks);
  EXPECT_GE(checked.took, milliseconds(100)) << "ten periods, then the first look";
  EXPECT_EQ(TakeQueued(*driver_), Texts{"181#01"});
  ExpectHears();
}

TEST_P(EveryDriveStatusTest, TakesOneFrameInEachAttempt) {
  const Checked checked =
      CheckStatusOfNode1({kNoReport, "181#R8", "181#0000000000000000", "181#0000000000000000"});
  EXPECT_TRUE(checked.result);
  EXPECT_EQ(checked.out, kWorks);
  EXPECT_GE(checked.took, milliseconds(300));
  EXPECT_EQ(TakeQueued(*driver_), Texts{"181#0000000000000000"});
  ExpectHears();
}

TEST_P(EveryDriveStatusTest, SucceedsInTheTenthAttempt) {
  Texts frames(9, kNoReport);
  frames.emplace_back("181#");
  const Checked checked = CheckStatusOfNode1(frames);
  EXPECT_TRUE(checked.result);
  EXPECT_EQ(checked.out, kWorks);
  EXPECT_GE(checked.took, milliseconds(1000));
}

TEST_P(EveryDriveStatusTest, FailsAfterTenAttempts) {
  Queue(*driver_, far_end_, {"181#00000000"});  // from before: proves nothing
  Texts frames(10, kNoReport);
  frames.emplace_back("181#");
  const Checked checked = CheckStatusOfNode1(frames);
  EXPECT_FALSE(checked.result);
  EXPECT_EQ(checked.out, kFails);
  EXPECT_GE(checked.took, milliseconds(1000));
  EXPECT_LT(checked.took, milliseconds(2500));
  EXPECT_EQ(TakeQueued(*driver_), Texts{"181#"});
  ExpectHears();
}

TEST_P(EveryDriveStatusTest, HearsOnlyTheNodesPositionReports) {
  driver_->AddHeartbeatId(0x701);
  Queue(*driver_, far_end_, {"181#0000000000000000"});  // from before: proves nothing
  const Checked checked = CheckStatusOfNode1({"182#", "701#05", "581#", "281#", "481#"});
  EXPECT_FALSE(checked.result);
  EXPECT_EQ(checked.out, kFails);
  EXPECT_FALSE(driver_->IsNodeOnline(1));
  ExpectHears();
}

TEST_P(EveryDriveStatusTest, WaitsTenOfThePeriodsThatWereSetUp) {
  far_end_.AnswerSdo(127);
  driver_->EnableSpeedModeAndPdoMode(127, 2);
  support::OutputCapture capture;
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(driver_->CheckStatus(127));
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(200));
  EXPECT_LT(took, milliseconds(1000));
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[ERROR] node127 motor error\r\n\n");
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryDriveStatusTest,
                         ::testing::ValuesIn(tested::DescribedMakesThat([](const auto& described) {
                           return described.status_from == StatusFrom::kReports;
                         })),
                         tested::NameOf);

// --- Makes that can be told to save --------------------------------------------------------------

class EveryDriveSavingTest : public tested::EveryDriveTest {};

TEST_P(EveryDriveSavingTest, SaveAllParamsTellsWhetherTheDriveConfirmed) {
  const tested::Saving& saving = GetParam().saving;
  bus::FarEnd far_end;
  const auto driver = Create();
  support::OutputCapture capture;
  Queue(*driver, far_end, {"181#01"});
  far_end.Expect("601" + saving.request).Reply("181#02").Reply("581" + saving.confirmed);
  EXPECT_TRUE(driver->SaveAllParams(1));
  ExpectHearsEverything(*driver, far_end);
  far_end.Expect("67F" + saving.request).Reply("5FF" + saving.refused);
  EXPECT_FALSE(driver->SaveAllParams(127));
  ExpectHearsEverything(*driver, far_end);
  EXPECT_EQ(capture.Out(), "");
  far_end.Expect("602" + saving.request);
  EXPECT_FALSE(driver->SaveAllParams(2));
  ExpectHearsEverything(*driver, far_end);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x582, index: " + saving.object + "\n");
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryDriveSavingTest,
                         ::testing::ValuesIn(tested::DescribedMakesThat([](const auto& described) {
                           return !described.saving.request.empty();
                         })),
                         tested::NameOf);

}  // namespace
