// Target and measured speed over time, as text, table and picture.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace motorctl {

constexpr std::size_t kMaxWheels = 8;  // of a vehicle

struct Sample {
  double second = 0;
  std::array<float, kMaxWheels> target = {};
  std::array<float, kMaxWheels> measured = {};
};

using Samples = std::vector<Sample>;

// Lines of `width` columns for one wheel: '-' the target, '*' the measured speed.
std::vector<std::string> DrawChart(const Samples& samples, std::size_t wheel, std::size_t width,
                                   std::size_t height);

// With a line of headings.
std::string Csv(const Samples& samples, std::size_t wheels);

std::string Svg(const Samples& samples, std::size_t wheels, const std::string& title);

}  // namespace motorctl
