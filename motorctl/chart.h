// Target and measured speed over time, as text, table and picture.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "make.h"

namespace motorctl {

struct Sample {
  double second = 0;
  TargetRpm target = {};
  MeasuredRpm measured = {};
};

using Samples = std::vector<Sample>;

// Lines of `width` columns for one motor: '-' the target, '*' the measured speed.
std::vector<std::string> DrawChart(const Samples& samples, std::size_t motor, std::size_t width,
                                   std::size_t height);

// With a line of headings.
std::string Csv(const Samples& samples, std::size_t motors);

std::string Svg(const Samples& samples, std::size_t motors, const std::string& title);

}  // namespace motorctl
