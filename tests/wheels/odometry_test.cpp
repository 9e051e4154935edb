// Exact ways and speeds from reports that a bus has lost, doubled, delayed and heaped up.
#include "wheels/odometry.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iomanip>
#include <ostream>
#include <random>
#include <tuple>
#include <vector>

namespace {

using motor_driver::Odometry;
using std::chrono::milliseconds;
using Clock = Odometry::Clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

Clock::time_point At(double ms) {
  return Clock::time_point(std::chrono::hours(1)) +
         std::chrono::duration_cast<Clock::duration>(Milliseconds(ms));
}

// A drive that reports its counter every period, and a bus that hands the reports on.
class Line {
 public:
  Line(double counts_per_revolution, int period_ms, std::uint32_t first = 0)
      : counts_per_revolution_(counts_per_revolution),
        period_ms_(period_ms),
        first_(first),
        odometry(counts_per_revolution, milliseconds(period_ms)) {}

  void TurnAt(double rpm) { rpm_ = rpm; }

  // A period passes. The report is sent at its end.
  void Pass() {
    ++sent_;
    counts_ += rpm_ / 60'000 * counts_per_revolution_ * period_ms_;
  }
  // The report of now arrives, late by a part of a period.
  void Report(double late = 0) { Arrive(counter(), late); }
  void PassAndReport(int times = 1) {
    for (; times > 0; --times) {
      Pass();
      Report();
    }
  }
  void Arrive(std::uint32_t counts, double late = 0) {
    odometry.Add(counts, At((sent_ + late) * period_ms_));
  }

  std::uint32_t counter() const {
    return first_ + static_cast<std::uint32_t>(std::llround(counts_));
  }
  double revolutions() const {
    return static_cast<double>(std::llround(counts_)) / counts_per_revolution_;
  }
  Clock::time_point now() const { return At(sent_ * period_ms_); }

 private:
  double counts_per_revolution_;
  double period_ms_;
  std::uint32_t first_;
  double rpm_ = 0;
  double sent_ = 0;
  double counts_ = 0;

 public:
  Odometry odometry;
};

// --- The way ------------------------------------------------------------------------------------

TEST(OdometryTest, CountsEveryCountOfALongWayExactly) {
  Line line(4096, 10);
  line.Report();
  line.TurnAt(60);  // 40.96 counts in a period
  while (line.counter() < 100'000) {
    line.PassAndReport();
    ASSERT_EQ(line.odometry.revolutions(), line.revolutions());
  }
  line.TurnAt(-600);
  while (line.revolutions() > -100'000.0 / 4096) {
    line.PassAndReport();
    ASSERT_EQ(line.odometry.revolutions(), line.revolutions());
  }
}

TEST(OdometryTest, BeginsAtZeroWhereverTheCounterStands) {
  for (const std::uint32_t first : {0U, 1U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 123456789U}) {
    Line line(1000, 10, first);
    EXPECT_FALSE(line.odometry.heard());
    line.Report();
    EXPECT_TRUE(line.odometry.heard());
    EXPECT_EQ(line.odometry.revolutions(), 0);
    line.TurnAt(-6);
    line.PassAndReport(1000);
    EXPECT_EQ(line.odometry.revolutions(), -1);
  }
}

TEST(OdometryTest, GoesOnAcrossTwoWrapArounds) {
  for (const double rpm : {3000.0, -3000.0}) {
    Line line(1 << 24, 10, 0x12345678);
    line.Report();
    line.TurnAt(rpm);
    line.PassAndReport();
    // 2^24 counts of 2^32: a wrap-around every 256 revolutions, a revolution every two periods.
    for (int period = 0; period < 1200; ++period) {
      line.PassAndReport();
      ASSERT_EQ(line.odometry.revolutions(), line.revolutions()) << period;
      ASSERT_NEAR(line.odometry.rpm(), rpm, 0.01);
    }
    EXPECT_GT(std::abs(line.odometry.revolutions()), 512);
  }
}

TEST(OdometryTest, StaysExactWhenReportsAreLostAndDoubled) {
  std::mt19937 random(1);
  std::uniform_int_distribution<int> percent(0, 99);
  Line line(4096, 10);
  line.Report();
  line.TurnAt(90);
  int lost = 0;
  for (int period = 0; period < 20'000; ++period) {
    line.Pass();
    const int chance = percent(random);
    if (chance < 5) {
      ++lost;
      continue;
    }
    line.Report();
    if (chance >= 95) {
      line.Report(0.01);
    }
    ASSERT_EQ(line.odometry.revolutions(), line.revolutions()) << period;
  }
  EXPECT_GT(lost, 800);
}

TEST(OdometryTest, StaysExactWhenNeighboursChangePlaces) {
  Line line(4096, 10);
  line.Report();
  line.TurnAt(90);
  for (int pair = 0; pair < 1000; ++pair) {
    line.Pass();
    const std::uint32_t overtaken = line.counter();
    line.Pass();
    line.Report();
    line.Arrive(overtaken, 0.05);
    line.PassAndReport();
    ASSERT_EQ(line.odometry.revolutions(), line.revolutions()) << pair;
  }
}

TEST(OdometryTest, GoesOnFromWhereItWasWhenANodeSaysThatItRestarts) {
  Line line(1000, 10);
  line.Report();
  line.TurnAt(60);
  line.PassAndReport(100);
  ASSERT_EQ(line.odometry.revolutions(), 1);

  line.odometry.CounterRestarts();
  line.Pass();
  line.Arrive(3);
  EXPECT_EQ(line.odometry.revolutions(), 1);
  line.Pass();
  line.Arrive(13);
  EXPECT_EQ(line.odometry.revolutions(), 1.010);
  EXPECT_NEAR(line.odometry.rpm(), 60, 7) << "no leap";
}

TEST(OdometryTest, GoesOnFromWhereItWasWhenACounterBeginsAnewUnheard) {
  for (const std::uint32_t from : {1'000'000U, 3'000'000'000U, 0x80000000U}) {
    Line line(1000, 10, from);
    line.Report();
    line.TurnAt(60);
    line.PassAndReport(100);
    line.Pass();
    line.Arrive(3);
    EXPECT_EQ(line.odometry.revolutions(), 1) << from;
    line.Pass();
    line.Arrive(13);
    EXPECT_EQ(line.odometry.revolutions(), 1.010) << from;
  }
}

TEST(OdometryTest, TakesAFastMotorAfterASilenceForNoRestart) {
  Line line(10'000, 10);
  line.TurnAt(6000);
  line.PassAndReport(20);
  const double before = line.odometry.revolutions();
  for (int period = 0; period < 500; ++period) {
    line.Pass();
  }
  line.Report();
  EXPECT_EQ(line.odometry.revolutions() - before, 500);
}

// --- Reports that are missing -------------------------------------------------------------------

TEST(OdometryTest, CountsWholePeriodsWithoutAReport) {
  Line line(4096, 10);
  line.TurnAt(60);
  line.PassAndReport(50);
  EXPECT_EQ(line.odometry.lost_reports(), 0U);
  line.Pass();
  line.PassAndReport(2);
  EXPECT_EQ(line.odometry.lost_reports(), 1U);
  for (int period = 0; period < 6; ++period) {
    line.Pass();
  }
  line.PassAndReport(2);
  EXPECT_EQ(line.odometry.lost_reports(), 7U);
}

TEST(OdometryTest, CountsNothingAsLostThatComesLateOrTwice) {
  Line line(4096, 10);
  line.TurnAt(60);
  line.PassAndReport(10);
  std::vector<std::uint32_t> held;
  for (int period = 0; period < 5; ++period) {
    line.Pass();
    held.push_back(line.counter());
  }
  double late = 0.1;
  for (const std::uint32_t counts : held) {
    line.Arrive(counts, late += 0.02);
    EXPECT_EQ(line.odometry.lost_reports(), 0U);
  }
  for (int period = 0; period < 20; ++period) {
    line.Pass();
    line.Report(0.3);
    line.Report(0.31);
  }
  EXPECT_EQ(line.odometry.lost_reports(), 0U);
}

TEST(OdometryTest, CountsNothingAsLostOfAStandingWheelThatComesInABurst) {
  Line line(4096, 10);
  line.PassAndReport(10);
  for (int period = 0; period < 5; ++period) {
    line.Pass();
  }
  for (int report = 0; report < 5; ++report) {
    line.Report(0.1 + 0.02 * report);
  }
  line.PassAndReport(5);
  EXPECT_EQ(line.odometry.lost_reports(), 0U);
}

// --- Speed --------------------------------------------------------------------------------------

TEST(OdometryTest, MeasuresNothingBeforeTheSecondReport) {
  Line line(4096, 10);
  EXPECT_EQ(line.odometry.rpm(), 0);
  line.TurnAt(60);
  line.PassAndReport();
  EXPECT_EQ(line.odometry.rpm(), 0);
  line.PassAndReport();
  EXPECT_NEAR(line.odometry.rpm(), 60, 1);
}

TEST(OdometryTest, FollowsAChangeOfSpeedWithinItsWindow) {
  Line line(10'000, 10);
  line.TurnAt(60);
  line.PassAndReport(30);
  line.TurnAt(-90);
  line.PassAndReport(5);
  EXPECT_NEAR(line.odometry.rpm(), -15, 0.1);
  line.PassAndReport(5);
  EXPECT_NEAR(line.odometry.rpm(), -90, 0.1);
}

// Every second report lost, for good: no gap is complete.
TEST(OdometryTest, MeasuresWhenMoreReportsAreLostThanArrive) {
  for (const int every : {2, 3, 7}) {
    Line line(10'000, 10);
    line.TurnAt(60);
    line.PassAndReport(3);
    for (int period = 1; period <= 300; ++period) {
      if (period == 150) {
        line.TurnAt(-60);
      }
      line.Pass();
      if (period % every == 0) {
        line.Report();
      }
    }
    EXPECT_NEAR(line.odometry.rpm(), -60, 0.1) << every;
  }
}

TEST(OdometryTest, MeasuresWhenANodeReportsMoreOftenThanAsked) {
  Odometry odometry(10'000, milliseconds(10));
  for (int ms = 0; ms < 1000; ++ms) {
    odometry.Add(static_cast<std::uint32_t>(ms) * 10, At(ms));  // 60 rpm
    if (ms > 200) {
      ASSERT_NEAR(odometry.rpm(), 60, 8) << ms;
    }
  }
}

// Steady speed through a bus at its worst: 5 % of the reports lost, 5 % doubled, each late by up to
// 40 % of a period, and now and then nothing for a while and then all of it at once.
struct Bus {
  int period_ms;
  double counts_per_revolution;
  double rpm;
  double clock;
};

std::ostream& operator<<(std::ostream& out, const Bus& bus) {
  return out << "period " << bus.period_ms << " ms, " << bus.counts_per_revolution << " counts, "
             << bus.rpm << " rpm, clock " << std::setprecision(4) << bus.clock;
}

struct Arrival {
  double time;  // in periods of the host
  std::int64_t position;
};

std::vector<Arrival> Through(const Bus& bus, int periods, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> any(0, 1);
  const double per_period =
      bus.rpm / 60'000 * bus.counts_per_revolution * bus.period_ms * bus.clock;
  std::vector<Arrival> arrivals;
  double held_until = 0;
  for (int period = 0; period < periods; ++period) {
    const double sent = period * bus.clock;
    // Nobody can tell late reports from lost ones at the very beginning, nor between two pauses.
    if (sent > held_until + 3 && period > 20 && any(random) < 0.02) {
      held_until = sent + 8 * any(random);
    }
    const double chance = any(random);
    if (chance < 0.05) {
      continue;
    }
    const std::int64_t position = std::llround(per_period * period);
    // A bus keeps the order, and a frame takes its time.
    const double arrived = sent + 0.4 * any(random);
    const double before = arrivals.empty() ? 0 : arrivals.back().time + 0.01;
    const double time = std::max({arrived, held_until, before});
    arrivals.push_back({time, position});
    if (chance >= 0.95) {
      arrivals.push_back({time + 0.01, position});
    }
  }
  return arrivals;
}

class OdometryOnABadBus : public ::testing::TestWithParam<std::tuple<int, double, double>> {};

TEST_P(OdometryOnABadBus, MeasuresWithinOnePercentAtEveryInstant) {
  const auto [period_ms, counts_per_revolution, rpm] = GetParam();
  unsigned seed = 17;
  for (const double clock : {1.0, 0.995, 1.005}) {
    const Bus bus = {period_ms, counts_per_revolution, rpm, clock};
    SCOPED_TRACE(bus);
    Odometry odometry(counts_per_revolution, milliseconds(period_ms));
    // A clock that is wrong is wrong about speed, too, and a window begins and ends on a count.
    const double speed = rpm * clock;
    const double counts_in_window =
        std::abs(rpm) / 60'000 * counts_per_revolution * std::max(100, period_ms);
    const double allowed = std::abs(rpm) * (0.01 + 1 / counts_in_window);
    const auto arrivals = Through(bus, 3000, ++seed);
    for (const Arrival& arrival : arrivals) {
      constexpr std::uint32_t kFirst = 0xFFFFF000;
      odometry.Add(kFirst + static_cast<std::uint32_t>(arrival.position),
                   At(arrival.time * period_ms));
      if (arrival.time * period_ms > std::max(200, 3 * period_ms)) {
        ASSERT_NEAR(odometry.rpm(), speed, allowed) << "after " << arrival.time << " periods";
      }
    }
    const std::int64_t way = arrivals.back().position - arrivals.front().position;
    EXPECT_EQ(odometry.revolutions(), static_cast<double>(way) / counts_per_revolution);
    EXPECT_NEAR(odometry.lost_reports(), 0.05 * 3000, 40);
  }
}

INSTANTIATE_TEST_SUITE_P(Any, OdometryOnABadBus,
                         ::testing::Combine(::testing::Values(2, 5, 10, 20, 50, 100, 101, 200, 255),
                                            ::testing::Values(4096.0, 10000.0, 65536.0),
                                            ::testing::Values(20.0, -60.0, 100.0, -3000.0)),
                         [](const auto& tried) {
                           const double rpm = std::get<2>(tried.param);
                           return "Period" + std::to_string(std::get<0>(tried.param)) + "Counts" +
                                  std::to_string(static_cast<int>(std::get<1>(tried.param))) +
                                  (rpm < 0 ? "Back" : "Rpm") +
                                  std::to_string(static_cast<int>(std::abs(rpm)));
                         });

// Late by up to 20 % either way around the first one.
TEST(OdometryTest, MeasuresWithinOnePercentWhenReportsAreEarlyToo) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> jitter(-0.2, 0.2);
  Line line(4096, 10);
  line.Report();
  line.TurnAt(100);
  for (int period = 0; period < 10'000; ++period) {
    line.Pass();
    line.Report(jitter(random));
    if (period > 20) {
      ASSERT_NEAR(line.odometry.rpm(), 100, 2) << period;
    }
  }
  EXPECT_EQ(line.odometry.lost_reports(), 0U);
}

// --- Standing -----------------------------------------------------------------------------------

TEST(OdometryTest, StandsAfterTwoHundredMillisecondsWithoutMotion) {
  Line line(4096, 10);
  line.TurnAt(60);
  line.PassAndReport(50);
  line.TurnAt(0);
  const auto zero = line.now();
  for (int period = 1; period <= 40; ++period) {
    line.PassAndReport();
    EXPECT_EQ(line.odometry.StandsSince(zero), period >= 21) << period;
  }
}

TEST(OdometryTest, StandsNotByReportsFromBefore) {
  Line line(4096, 10);
  line.PassAndReport(100);
  EXPECT_TRUE(line.odometry.StandsSince(At(0)));
  const auto later = line.now();
  EXPECT_FALSE(line.odometry.StandsSince(later));
  line.PassAndReport(20);
  EXPECT_FALSE(line.odometry.StandsSince(later)) << "the first one is what the others compare with";
  line.PassAndReport();
  EXPECT_TRUE(line.odometry.StandsSince(later));
}

TEST(OdometryTest, StandsNeverWithoutReports) {
  Odometry odometry(4096, milliseconds(10));
  EXPECT_FALSE(odometry.StandsSince(At(-1000)));
  odometry.Add(0, At(0));
  EXPECT_FALSE(odometry.StandsSince(At(-1000)));
}

TEST(OdometryTest, StandsNotWhileItCreeps) {
  for (const int period_ms : {2, 10, 50, 100, 255}) {
    for (const double rpm : {2.0, -2.0, 1.1}) {
      Line line(10'000, period_ms);
      line.TurnAt(rpm);
      for (int period = 0; period < 2000 / period_ms + 10; ++period) {
        line.PassAndReport();
        ASSERT_FALSE(line.odometry.StandsSince(At(-1000))) << period_ms << " ms " << rpm << " rpm";
      }
    }
    Line line(10'000, period_ms);
    line.TurnAt(0.9);
    line.PassAndReport(2000 / period_ms + 10);
    EXPECT_TRUE(line.odometry.StandsSince(At(-1000))) << period_ms;
  }
}

TEST(OdometryTest, StandsInSpiteOfLostAndDoubledReports) {
  for (const int period_ms : {2, 10, 50, 100, 255}) {
    std::mt19937 random(3);
    std::uniform_int_distribution<int> percent(0, 99);
    Line line(10'000, period_ms);
    for (int period = 0; period < 2000 / period_ms + 10; ++period) {
      line.Pass();
      const int chance = percent(random);
      for (int copies = chance < 20 ? 0 : chance < 40 ? 2 : 1; copies > 0; --copies) {
        line.Report();
      }
    }
    line.PassAndReport(2);
    EXPECT_TRUE(line.odometry.StandsSince(At(-1000))) << period_ms;
  }
}

// The reports of a wheel that turns are held up for longer than a window, then come together: in
// between it looks as if it had hardly moved for all that time.
TEST(OdometryTest, StandsNotInTheMiddleOfABurst) {
  Line line(10'000, 10);
  line.TurnAt(1.5);
  line.PassAndReport(30);
  std::vector<std::uint32_t> held;
  for (int period = 0; period < 30; ++period) {
    line.Pass();
    held.push_back(line.counter());
  }
  double late = 0;
  for (const std::uint32_t counts : held) {
    line.Arrive(counts, late += 0.01);
    ASSERT_FALSE(line.odometry.StandsSince(At(-1000))) << late;
  }
}

// Held up in a queue that stays full: each report is as late from now on.
TEST(OdometryTest, StandsNotWhenEveryReportIsLateFromNowOn) {
  for (const int late : {5, 10, 20, 40}) {
    Line line(10'000, 10);
    line.TurnAt(3);
    std::vector<std::uint32_t> queue;
    for (int period = 0; period < 200; ++period) {
      line.Pass();
      queue.push_back(line.counter());
      const int arrives = period < 30 ? period : period - late;
      if (arrives >= (period < 30 ? 0 : 30)) {
        line.Arrive(queue[static_cast<std::size_t>(arrives)]);
        ASSERT_FALSE(line.odometry.StandsSince(At(-1000))) << late << ", " << period;
      }
    }
  }
}

}  // namespace
