#include "chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace motorctl {
namespace {

struct Range {
  double low = 0;
  double high = 0;
};

// Of all speeds shown, zero included, and wide enough not to magnify single counts.
Range SpeedRange(const Samples& samples, std::size_t first, std::size_t last) {
  Range range;
  for (const Sample& sample : samples) {
    for (std::size_t wheel = first; wheel < last; ++wheel) {
      range.low = std::min<double>({range.low, sample.target[wheel], sample.measured[wheel]});
      range.high = std::max<double>({range.high, sample.target[wheel], sample.measured[wheel]});
    }
  }
  constexpr double kNarrowest = 10;
  if (range.high - range.low < kNarrowest) range.high = range.low + kNarrowest;
  return range;
}

template <typename... Values>
std::string Text(const char* format, Values... values) {
  char text[160];
  std::snprintf(text, sizeof(text), format, values...);
  return text;
}

// A line through all samples, in the coordinates of the picture.
class Curve {
 public:
  explicit Curve(const char* style) : style_(style) {}
  void Add(double x, double y) { points_ += Text("%.1f,%.1f ", x, y); }
  std::string Element() const {
    return "<polyline fill=\"none\" " + style_ + " points=\"" + points_ + "\"/>\n";
  }

 private:
  std::string style_;
  std::string points_;
};

}  // namespace

std::vector<std::string> DrawChart(const Samples& samples, std::size_t wheel, std::size_t width,
                                   std::size_t height) {
  constexpr std::size_t kLabel = 9;  // "%7.1f |"
  const std::size_t columns = std::max<std::size_t>(width, kLabel + 10) - kLabel;
  std::vector<std::string> rows(height, std::string(columns, ' '));
  const Range range = SpeedRange(samples, wheel, wheel + 1);
  const auto row = [&](double rpm) {
    const double share = (range.high - rpm) / (range.high - range.low);
    return static_cast<std::size_t>(std::lround(share * static_cast<double>(height - 1)));
  };
  std::fill(rows[row(0)].begin(), rows[row(0)].end(), '.');
  for (const char mark : {'-', '*'}) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
      const std::size_t column = samples.size() <= columns ? i : i * columns / samples.size();
      const Sample& sample = samples[i];
      rows[row(mark == '-' ? sample.target[wheel] : sample.measured[wheel])][column] = mark;
    }
  }
  for (std::size_t i = 0; i < height; ++i) {
    const double rpm = range.high - (range.high - range.low) * static_cast<double>(i) /
                                        static_cast<double>(height - 1);
    rows[i] = Text("%7.1f |", rpm) + rows[i];
  }
  return rows;
}

std::string Csv(const Samples& samples, std::size_t wheels) {
  std::string text = "second,target_rpm,measured_rpm";
  for (std::size_t wheel = 2; wheel <= wheels; ++wheel) {
    const std::string number = std::to_string(wheel);
    text += ",target" + number + "_rpm,measured" + number + "_rpm";
  }
  text += '\n';
  for (const Sample& sample : samples) {
    text += Text("%.3f", sample.second);
    for (std::size_t wheel = 0; wheel < wheels; ++wheel) {
      text += Text(",%.6g,%.2f", sample.target[wheel], sample.measured[wheel]);
    }
    text += '\n';
  }
  return text;
}

std::string Svg(const Samples& samples, std::size_t wheels, const std::string& title) {
  constexpr double kWidth = 800;
  constexpr double kHeight = 400;
  constexpr double kLeft = 60;
  constexpr double kRight = 20;
  constexpr double kTop = 40;
  constexpr double kBottom = 50;
  static const char* const target_styles[] = {
      "stroke=\"#888\" stroke-width=\"2\"",
      "stroke=\"#888\" stroke-width=\"2\" stroke-dasharray=\"6 4\""};
  static const char* const measured_styles[] = {"stroke=\"#06c\" stroke-width=\"1.5\"",
                                                "stroke=\"#c60\" stroke-width=\"1.5\""};
  const Range range = SpeedRange(samples, 0, wheels);
  const double seconds = samples.empty() ? 1 : std::max(samples.back().second, 0.001);
  const auto x = [&](double second) {
    return kLeft + second / seconds * (kWidth - kLeft - kRight);
  };
  const auto y = [&](double rpm) {
    return kTop + (range.high - rpm) / (range.high - range.low) * (kHeight - kTop - kBottom);
  };
  std::string svg = Text(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
      "font-family=\"sans-serif\" font-size=\"12\">\n<rect width=\"100%%\" height=\"100%%\" "
      "fill=\"white\"/>\n",
      kWidth, kHeight);
  svg += Text("<text x=\"%.0f\" y=\"22\" font-size=\"14\">", kLeft) + title + "</text>\n";
  constexpr int kTicks = 5;
  for (int i = 0; i <= kTicks; ++i) {
    const double rpm = range.low + (range.high - range.low) * i / kTicks;
    svg += Text("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"#ddd\"/>\n", kLeft,
                y(rpm), kWidth - kRight, y(rpm));
    svg += Text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%.1f</text>\n", kLeft - 6,
                y(rpm) + 4, rpm);
    const double second = seconds * i / kTicks;
    svg += Text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%.1f</text>\n", x(second),
                kHeight - kBottom + 18, second);
  }
  svg += Text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">seconds</text>\n", kWidth / 2,
              kHeight - 12);
  svg += Text("<text x=\"12\" y=\"%.1f\">rpm</text>\n", kTop - 8);
  for (std::size_t wheel = 0; wheel < wheels; ++wheel) {
    Curve target(target_styles[wheel % 2]);
    Curve measured(measured_styles[wheel % 2]);
    for (const Sample& sample : samples) {
      target.Add(x(sample.second), y(sample.target[wheel]));
      measured.Add(x(sample.second), y(sample.measured[wheel]));
    }
    svg += target.Element() + measured.Element();
  }
  return svg + "</svg>\n";
}

}  // namespace motorctl
