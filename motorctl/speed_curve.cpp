#include "speed_curve.h"

#include <algorithm>

namespace motorctl {
namespace {

constexpr std::int64_t kSlices = 600;
constexpr std::int64_t kNear = 1'500'000'000;
constexpr std::size_t kMostPoints = 4000;

}  // namespace

SpeedCurve::SpeedCurve(std::int64_t begin, std::int64_t end, std::int64_t moment, bool steps)
    : begin_(begin), slice_((end - begin) / kSlices + 1), moment_(moment), steps_(steps) {}

void SpeedCurve::Add(std::int64_t nanoseconds, double value) {
  if (steps_ && any_ && value == last_.value) return;
  any_ = true;
  const bool near = nanoseconds >= moment_ - kNear && nanoseconds <= moment_ + kNear &&
                    points_.size() < kMostPoints;
  const std::int64_t number = (nanoseconds - begin_) / slice_;
  if (near || number != number_) EndSlice();
  const CurvePoint point = {nanoseconds, value};
  last_ = point;
  if (near) {
    points_.push_back(point);
    return;
  }
  if (number != number_) {
    number_ = number;
    lowest_ = highest_ = point;
    return;
  }
  if (value < lowest_.value) lowest_ = point;
  if (value > highest_.value) highest_ = point;
}

void SpeedCurve::EndSlice() {
  if (number_ < 0) return;
  number_ = -1;
  CurvePoint kept[] = {lowest_, highest_, last_};
  std::sort(std::begin(kept), std::end(kept), [](const CurvePoint& left, const CurvePoint& right) {
    return left.nanoseconds < right.nanoseconds;
  });
  for (const CurvePoint& point : kept) {
    const bool again = !points_.empty() && points_.back().nanoseconds == point.nanoseconds &&
                       points_.back().value == point.value;
    if (!again) points_.push_back(point);
  }
}

const std::vector<CurvePoint>& SpeedCurve::Finish() {
  EndSlice();
  return points_;
}

}  // namespace motorctl
