// What comes again and again, and when it has not come for too long.
#pragma once

#include <algorithm>
#include <chrono>
#include <optional>

namespace motorctl {

// Of one kind of message of a node. Its period is learned.
class Rhythm {
 public:
  using Time = std::chrono::nanoseconds;  // of any clock

  void Hear(Time now) {
    // Of the last ones the longest: after one that came late the next comes early.
    if (last_) {
      period_ = std::max(period_ - period_ / 8, now - *last_);
      ++periods_;
    }
    last_ = now;
  }

  // Another period may follow, or none.
  void Forget() { *this = Rhythm(); }

  // Nothing is known of this time.
  void PassOver(Time time) {
    if (last_) *last_ += time;
  }

  // Missed twice and once more is late, not a busy bus.
  bool Overdue(Time now) const {
    constexpr int kMissed = 3;
    constexpr auto kGrace = std::chrono::milliseconds(100);
    // Divided, for a log may hold times that are centuries apart.
    return last_ && period_ > Time::zero() && (now - *last_ - kGrace) / kMissed >= period_;
  }

  const std::optional<Time>& last() const { return last_; }
  Time period() const { return period_; }  // 0: not known
  int periods() const { return periods_; }

 private:
  std::optional<Time> last_;
  Time period_ = Time::zero();
  int periods_ = 0;
};

}  // namespace motorctl
