// What GetSpeed of every make tells of the reports of a drive, and of other frames.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "bus_environment.h"
#include "described_makes.h"
#include "far_end.h"
#include "observed_driver.h"

namespace {

using tested::Reading;
using tested::Readings;
using tested::Texts;

// The outputs of GetSpeed; of a make with one motor in a node only the first ones are passed.
struct Outputs {
  bool result = false;
  std::uint8_t node = 99;
  double rpm[2] = {0.5, 0.25};
  int counts[2] = {1111, 2222};
};

class EveryDriveReadingsTest : public tested::EveryDriveTest {
 protected:
  static Outputs Read(DriverCommon& driver, Outputs values = {}) {
    values.result = GetParam().make.motors == 2
                        ? driver.GetSpeed(values.node, values.rpm[0], values.counts[0],
                                          values.rpm[1], values.counts[1])
                        : driver.GetSpeed(values.node, values.rpm[0], values.counts[0]);
    return values;
  }

  static void Expect(const Outputs& values, bool result, int node, const double (&rpm)[2],
                     const int (&counts)[2]) {
    EXPECT_EQ(values.result, result);
    EXPECT_EQ(values.node, node);
    for (std::size_t motor = 0; motor < GetParam().make.motors; ++motor) {
      SCOPED_TRACE(motor);
      if (GetParam().exact_rpm) {
        EXPECT_EQ(values.rpm[motor], rpm[motor]);
      } else {
        EXPECT_DOUBLE_EQ(values.rpm[motor], rpm[motor]);
      }
      EXPECT_EQ(values.counts[motor], counts[motor]);
    }
  }

  static void Expect(const Outputs& values, const Reading& reading) {
    SCOPED_TRACE(reading.report);
    Expect(values, true, reading.node, reading.rpm, reading.counts);
  }

  // What becomes of the values that GetSpeed was called with.
  static void ExpectNoReading(const Outputs& values, const Outputs& before, bool result,
                              tested::Values outcome) {
    if (outcome == tested::Values::kZero) {
      Expect(values, result, 0, {0.0, 0.0}, {0, 0});
    } else {
      const double sign = outcome == tested::Values::kSignTurned ? -1 : 1;
      Expect(values, result, before.node, {sign * before.rpm[0], sign * before.rpm[1]},
             before.counts);
    }
  }

  // The previous positions are the whole process's: this puts them to known values.
  void StartFrom(DriverCommon& driver, const Texts& reports) {
    for (const std::string& report : reports) {
      Queue(driver, far_end_, {report});
      EXPECT_TRUE(Read(driver).result);
    }
  }

  void ExpectReadings(const Readings& readings) {
    StartFrom(*driver_, readings.start);
    for (const Reading& reading : readings.then) {
      Queue(*driver_, far_end_, {reading.report});
    }
    for (const Reading& reading : readings.then) {
      Expect(Read(*driver_), reading);
    }
    EXPECT_EQ(driver_->GetReadQueueSize(), 0U);
  }

  void SetUpNode1(std::uint16_t period_ms) {
    far_end_.AnswerSdo(1);
    EXPECT_EQ(driver_->EnableSpeedModeAndPdoMode(1, period_ms), 0);
    ASSERT_TRUE(WaitQueued(*driver_, GetParam().leaves_an_answer ? 1 : 0));
    driver_->ClearReadQueue();
  }

  bus::FarEnd far_end_;
  std::unique_ptr<DriverCommon> driver_ = Create();
};

TEST_P(EveryDriveReadingsTest, TurnPositionsIntoRpm) { ExpectReadings(GetParam().turning); }

TEST_P(EveryDriveReadingsTest, SurviveTheWrapAroundOfAPosition) {
  ExpectReadings(GetParam().wrap_around);
}

TEST_P(EveryDriveReadingsTest, ReadMissingBytesAsZero) { ExpectReadings(GetParam().short_frames); }

TEST_P(EveryDriveReadingsTest, DivideByThePeriodOfTheSetUp) {
  for (const tested::PeriodReading& reading : GetParam().periods) {
    SCOPED_TRACE(reading.period_ms);
    SetUpNode1(reading.period_ms);
    ExpectReadings({{reading.start}, {reading.then}});
  }
}

TEST_P(EveryDriveReadingsTest, OfAnyOtherFrameTellNoPosition) {
  const Reading& reading = GetParam().turning.then[0];
  StartFrom(*driver_, GetParam().turning.start);
  Texts others = {"181#R4", "181#R8", "581#", "001#"};
  for (const std::string& id : GetParam().foreign_ids) {
    others.push_back(id + reading.report.substr(reading.report.find('#')));
  }
  Queue(*driver_, far_end_, others);
  Outputs before;
  for (const std::string& other : others) {
    SCOPED_TRACE(other);
    before.rpm[0] = -before.rpm[0];
    const std::uint32_t queued = driver_->GetReadQueueSize();
    ExpectNoReading(Read(*driver_, before), before, GetParam().make.reports.true_for_others,
                    GetParam().after_foreign);
    EXPECT_EQ(driver_->GetReadQueueSize(), queued - 1);
  }
  Queue(*driver_, far_end_, {reading.report});
  Expect(Read(*driver_), reading);
}

TEST_P(EveryDriveReadingsTest, OfAnEmptyQueueFail) {
  ExpectNoReading(Read(*driver_), Outputs(), false, GetParam().after_nothing);
}

TEST_P(EveryDriveReadingsTest, OfAllObjectsShareThePreviousPositions) {
  const Reading& reading = GetParam().turning.then[0];
  const auto second = Create();
  StartFrom(*driver_, GetParam().turning.start);
  ASSERT_TRUE(WaitQueued(*second, static_cast<std::uint32_t>(GetParam().turning.start.size())));
  second->ClearReadQueue();
  far_end_.Send(reading.report);
  ASSERT_TRUE(WaitQueued(*driver_, 1));
  ASSERT_TRUE(WaitQueued(*second, 1));
  Expect(Read(*driver_), reading);
  Expect(Read(*second), true, reading.node, {0.0, 0.0}, reading.counts);
}

TEST_P(EveryDriveReadingsTest, GoOnAfterASetUpInAnotherObject) {
  const std::vector<Reading>& readings = GetParam().turning.then;
  StartFrom(*driver_, GetParam().turning.start);
  for (std::size_t i = 0; i + 1 < readings.size(); ++i) {
    StartFrom(*driver_, {readings[i].report});
  }
  SetUpNode1(10);
  driver_.reset();
  const auto second = Create();
  Queue(*second, far_end_, {readings.back().report});
  Expect(Read(*second), readings.back());
}

INSTANTIATE_TEST_SUITE_P(Makes, EveryDriveReadingsTest,
                         ::testing::ValuesIn(tested::DescribedMakes()), tested::NameOf);

}  // namespace
