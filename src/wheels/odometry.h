// From the position reports of one motor to the way it went and its speed, whatever the bus does to
// the reports: lost, doubled, late, in a burst after a pause.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace motor_driver {

// Standstill: less than this, over this time.
constexpr double kStandingRpm = 1.0;  // of the motor
constexpr auto kStandingTime = std::chrono::milliseconds(200);

class Odometry {
 public:
  using Clock = std::chrono::steady_clock;

  Odometry(double counts_per_revolution, std::chrono::milliseconds period)
      : counts_per_revolution_(counts_per_revolution), period_(period) {}

  // A report: the encoder's 32-bit counter, and when it arrived.
  void Add(std::uint32_t counts, Clock::time_point arrival);

  // The counter begins anew, the way does not: the next report is where the last one was.
  void CounterRestarts() { restarts_ = true; }

  double revolutions() const {
    return static_cast<double>(Back(0).position) / counts_per_revolution_;
  }
  // Over the last 100 ms before the latest report.
  double rpm() const { return rpm_; }
  bool heard() const { return count_ > 0; }
  Clock::time_point latest_arrival() const { return Back(0).arrival; }
  std::uint32_t lost_reports() const { return lost_; }

  // Whether reports of at least 200 ms that all arrived after `since` show less than 1 rpm.
  bool StandsSince(Clock::time_point since) const;

 private:
  // The finest period is 2 ms; a window is 200 ms.
  static constexpr std::size_t kKept = 256;

  // A gap between arrivals, and the reports at its end: those that came together.
  struct Gap {
    double periods = 0;
    double reports = 0;
    double end = 0;          // in periods of the drive, of which arrivals are a late copy
    double reports_end = 0;  // reports so far
    std::int64_t position = 0;
    Clock::time_point arrival;

    // Where fewer reports came than were sent, nobody knows which: the last may be missing.
    bool complete() const { return reports >= periods; }
  };

  // `age` 0: the latest.
  const Gap& Back(std::size_t age) const { return gaps_[(next_ + kKept - 1 - age) % kKept]; }
  Gap& Latest() { return gaps_[(next_ + kKept - 1) % kKept]; }
  // Age of the latest gap that no further report will share.
  std::size_t Settled() const { return count_ > 1 && !Back(0).complete() ? 1 : 0; }

  void Begin(double periods, std::int64_t position, Clock::time_point arrival);
  bool IsImpossible(std::int32_t way, double periods) const;
  void MeasureSpeed();
  std::size_t Find(std::size_t age, double after_periods, double within_periods) const;
  double Rpm(const Gap& from, const Gap& to) const;
  double CountsPerPeriod(double rpm) const;
  double PeriodsOf(double ms) const;

  double counts_per_revolution_;
  std::chrono::milliseconds period_;

  std::array<Gap, kKept> gaps_;
  std::size_t next_ = 0;
  std::size_t count_ = 0;  // at most kKept

  std::uint32_t last_counts_ = 0;
  Clock::time_point last_arrival_;
  bool restarts_ = false;
  double rpm_ = 0;
  std::uint32_t lost_ = 0;  // before the latest gap

  // When the latest report was due, as far as arrivals tell.
  Clock::time_point phase_;
};

}  // namespace motor_driver
