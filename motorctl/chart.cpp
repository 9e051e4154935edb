#include "chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <utility>

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

// 1, 2, 5, 10, 20, 50 and so on times `smallest`.
double NextRoundStep(double step, double smallest) {
  double decade = smallest;
  while (decade * 10 <= step * 1.001) decade *= 10;
  for (const int factor : {2, 5}) {
    if (step * 1.001 < decade * factor) return decade * factor;
  }
  return decade * 10;
}

// Round marks of an axis, as multiples of `step`.
struct Marks {
  double step = 1;
  int first = 0;
  int last = 0;
};

// Some marks between the ends, and beyond them only where an end is well off the next one.
Marks MarksOf(const Range& range, double smallest_step) {
  constexpr int kMost = 8;
  constexpr double kNear = 0.1;  // of a step
  Marks marks;
  marks.step = smallest_step;
  while ((range.high - range.low) / marks.step > kMost + 2 * kNear) {
    marks.step = NextRoundStep(marks.step, smallest_step);
  }
  marks.first = static_cast<int>(std::floor(range.low / marks.step + kNear));
  marks.last = static_cast<int>(std::ceil(range.high / marks.step - kNear));
  return marks;
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char letter : text) {
    switch (letter) {
      case '<':
        escaped += "&lt;";
        break;
      case '&':
        escaped += "&amp;";
        break;
      default:
        escaped += letter;
    }
  }
  return escaped;
}

// A line through all samples, in the coordinates of the picture.
class Curve {
 public:
  explicit Curve(std::string style) : style_(std::move(style)) {}
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
  const long most = static_cast<long>(height) - 1;
  double step = 1;
  while (std::lround(range.high / step) - std::lround(range.low / step) > most) {
    step = NextRoundStep(step, 1);
  }
  // Rows that are left over continue the side that the wheel turns to.
  const long lowest = std::lround(range.low / step);
  const long top = lowest == 0 ? most : std::lround(range.high / step);
  const auto row = [&](double rpm) {
    return static_cast<std::size_t>(std::clamp(top - std::lround(rpm / step), 0L, most));
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
    rows[i] = Text("%7g |", static_cast<double>(top - static_cast<long>(i)) * step) + rows[i];
  }
  return rows;
}

std::string Csv(const Samples& samples, std::size_t wheels) {
  std::string text = "second,target_rpm,measured_rpm";
  for (std::size_t wheel = 2; wheel <= wheels; ++wheel) {
    const std::string number = std::to_string(wheel);
    text.append(",target").append(number).append("_rpm,measured").append(number).append("_rpm");
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

std::string Svg(const Samples& samples, const std::vector<std::string>& wheels,
                const std::string& title) {
  constexpr double kWidth = 800;
  constexpr double kHeight = 400;
  constexpr double kLeft = 60;
  constexpr double kRight = 20;
  constexpr double kTop = 40;
  constexpr double kBottom = 50;
  constexpr double kLegendLine = 16;
  static const char* const colours[kMaxWheels] = {"#06c", "#c60", "#084", "#a0a",
                                                  "#a00", "#088", "#666", "#860"};
  Range range = SpeedRange(samples, 0, wheels.size());
  const Marks speeds = MarksOf(range, 1);
  range.low = std::min(range.low, speeds.first * speeds.step);
  range.high = std::max(range.high, speeds.last * speeds.step);
  const double seconds = samples.empty() ? 1 : std::max(samples.back().second, 0.001);
  const auto x = [&](double second) {
    return kLeft + second / seconds * (kWidth - kLeft - kRight);
  };
  const auto y = [&](double rpm) {
    return kTop + (range.high - rpm) / (range.high - range.low) * (kHeight - kTop - kBottom);
  };
  std::string svg = Text(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" "
      "viewBox=\"0 0 %.0f %.0f\" font-family=\"sans-serif\" font-size=\"12\">\n",
      kWidth, kHeight, kWidth, kHeight);
  svg += "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  svg += Text("<text x=\"%.0f\" y=\"22\" font-size=\"14\">", kLeft) + Escaped(title) + "</text>\n";
  for (int mark = speeds.first; mark <= speeds.last; ++mark) {
    const double rpm = mark * speeds.step;
    svg += Text("<line x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\" stroke=\"%s\"/>\n", kLeft,
                y(rpm), kWidth - kRight, y(rpm), mark == 0 ? "#999" : "#ddd");
    svg += Text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%g</text>\n", kLeft - 6,
                y(rpm) + 4, rpm);
  }
  const Marks times = MarksOf({0, seconds}, 0.001);
  for (int mark = 0; mark * times.step <= seconds; ++mark) {
    const double second = mark * times.step;
    svg += Text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%g</text>\n", x(second),
                kHeight - kBottom + 18, second);
  }
  svg += Text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">seconds</text>\n", kWidth / 2,
              kHeight - 12);
  svg += "<text x=\"12\" y=\"22\">rpm</text>\n";
  for (std::size_t wheel = 0; wheel < wheels.size(); ++wheel) {
    const std::string colour = Text("stroke=\"%s\"", colours[wheel % kMaxWheels]);
    Curve target(colour + " stroke-dasharray=\"5 4\"");
    Curve measured(colour + " stroke-width=\"1.5\"");
    double reported = -1;
    for (const Sample& sample : samples) {
      target.Add(x(sample.second), y(sample.target[wheel]));
      // Without a new report there is no new speed: nothing is drawn, a zero least of all.
      const double middle = sample.reported[wheel] - kMeanSeconds / 2;
      if (sample.reported[wheel] == reported || middle < 0) continue;
      reported = sample.reported[wheel];
      measured.Add(x(middle), y(sample.measured[wheel]));
    }
    svg += target.Element() + measured.Element();
    svg += Text("<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" fill=\"%s\">", kWidth - kRight - 4,
                kTop + kLegendLine * static_cast<double>(wheel + 1), colours[wheel % kMaxWheels]) +
           Escaped(wheels[wheel]) + "</text>\n";
  }
  return svg + "</svg>\n";
}

}  // namespace motorctl
