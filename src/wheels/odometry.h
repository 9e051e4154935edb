// From the position reports of one motor to the way it went and its speed, whatever the bus does to
// the reports: lost, doubled, late, in a burst after a pause.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace motor_driver {

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
    return static_cast<double>(Latest().position) / counts_per_revolution_;
  }
  // Over the last 100 ms before the latest report.
  double rpm() const { return rpm_; }
  bool heard() const { return count_ > 0; }
  Clock::time_point latest_arrival() const { return Latest().arrival; }
  std::uint32_t lost_reports() const { return lost_ + LostInGroup(); }

  // Whether reports of at least 200 ms that all arrived after `since` show less than 1 rpm.
  bool StandsSince(Clock::time_point since) const;

 private:
  // The finest period is 2 ms; a window is 200 ms.
  static constexpr std::size_t kKept = 256;

  struct Sample {
    double time = 0;  // in periods of the drive, of which the arrival is a late copy
    std::int64_t position = 0;
    Clock::time_point arrival;
  };

  const Sample& Latest() const { return Back(0); }
  // `age` 0: the latest.
  const Sample& Back(std::size_t age) const { return samples_[(next_ + kKept - 1 - age) % kKept]; }
  void Push(double time, std::int64_t position, Clock::time_point arrival);
  void BeginGroup(double periods);
  void ShareGroup();
  void MeasureSpeed();
  double Rpm(const Sample& from, const Sample& to) const;
  std::uint32_t LostInGroup() const;

  double counts_per_revolution_;
  std::chrono::milliseconds period_;

  std::array<Sample, kKept> samples_;
  std::size_t next_ = 0;
  std::size_t count_ = 0;  // at most kKept

  std::uint32_t last_counts_ = 0;
  bool restarts_ = true;
  double rpm_ = 0;

  // When the latest period began, as far as arrivals tell: the earliest ones know best.
  Clock::time_point phase_;

  // The latest gap between arrivals, in periods, and the reports that share it: those that came at
  // its end together.
  double group_begin_ = 0;
  double group_periods_ = 0;
  std::size_t group_reports_ = 0;
  std::size_t group_samples_ = 0;  // of these reports; one that says nothing new is not kept
  std::uint32_t lost_ = 0;         // before this group
};

}  // namespace motor_driver
