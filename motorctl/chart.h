// Target and measured speed over time, as text, table and picture.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace motorctl {

constexpr std::size_t kMaxWheels = 8;  // of a vehicle

// A measured speed is the mean of this time before the report that it was measured with.
constexpr double kMeanSeconds = 0.1;

struct Sample {
  double second = 0;
  std::array<float, kMaxWheels> target = {};
  std::array<float, kMaxWheels> measured = {};
  std::array<double, kMaxWheels> reported = {};  // second of that report; below 0: before the start
};

using Samples = std::vector<Sample>;

// Lines of `width` columns for one wheel: '-' the target, '*' the measured speed. Their labels are
// multiples of 1, 2 or 5 and a power of ten.
std::vector<std::string> DrawChart(const Samples& samples, std::size_t wheel, std::size_t width,
                                   std::size_t height);

// With a line of headings.
std::string Csv(const Samples& samples, std::size_t wheels);

// One curve of targets and one of measured speeds for each of `wheels`, by name. A measured speed
// stands in the middle of the time that it is the mean of: the curves can be held against each other.
std::string Svg(const Samples& samples, const std::vector<std::string>& wheels,
                const std::string& title);

}  // namespace motorctl
