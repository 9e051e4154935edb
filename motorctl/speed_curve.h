// A curve with as many points as a picture can show.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace motorctl {

struct CurvePoint {
  std::int64_t nanoseconds = 0;
  double value = 0;
};

// Near one moment all points are kept. Elsewhere, of each slice of time the lowest, the highest and
// the last: what stands out stays.
class SpeedCurve {
 public:
  // `steps`: a value stays until the next one, so that one that repeats tells nothing.
  SpeedCurve(std::int64_t begin, std::int64_t end, std::int64_t moment, bool steps);

  // In order.
  void Add(std::int64_t nanoseconds, double value);
  // Once, at the end.
  const std::vector<CurvePoint>& Finish();

 private:
  void EndSlice();

  std::int64_t begin_ = 0;
  std::int64_t slice_ = 1;
  std::int64_t moment_ = 0;
  bool steps_ = false;
  std::vector<CurvePoint> points_;
  std::int64_t number_ = -1;  // of the slice
  CurvePoint lowest_;
  CurvePoint highest_;
  CurvePoint last_;
  bool any_ = false;
};

}  // namespace motorctl
