#include "jog_view.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kShowEverySeconds = 0.1;

// A whole number where it is one: that of a wheel without a gear.
Json Rounded(double number) {
  const double rounded = std::round(number * 100) / 100;
  if (rounded == std::round(rounded)) return static_cast<long>(rounded);
  return rounded;
}

}  // namespace

JogView::JogView(const Context& context, std::size_t wheels, BackgroundOutput& output)
    : context_(context), wheels_(wheels), output_(output) {
  winsize size = {};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 20) return;
  columns_ = size.ws_col - 1U;
  // All of it must fit, or drawing in place would scroll.
  const std::size_t rows = size.ws_row > 3U * wheels_ + 3U ? size.ws_row - 3U : 3U * wheels_;
  height_ = std::min(height_, rows / wheels_);
}

void JogView::Show(const Sample& sample) {
  if (shown_ && sample.second < next_) return;
  next_ = sample.second + kShowEverySeconds;
  shown_ = true;
  if (context_.json) {
    Json target = Json::array();
    Json measured = Json::array();
    for (std::size_t wheel = 0; wheel < wheels_; ++wheel) {
      target.push_back(Rounded(sample.target[wheel]));
      measured.push_back(std::round(sample.measured[wheel] * 100.0) / 100);
    }
    output_.Line(Json{
        {"command", "jog"},
        {"event", "sample"},
        {"second", std::round(sample.second * 1000) / 1000},
        {"target_rpm", target},
        {"measured_rpm",
         measured}}.dump());
  } else if (context_.live()) {
    Draw(sample);
  } else {
    output_.Line(Line(sample));
  }
}

std::string JogView::Line(const Sample& sample) const {
  std::string line;
  char text[64];
  std::snprintf(text, sizeof(text), "%6.1f s", sample.second);
  line += text;
  for (std::size_t wheel = 0; wheel < wheels_; ++wheel) {
    std::snprintf(text, sizeof(text), "  target %4.0f, measured %6.1f rpm", sample.target[wheel],
                  sample.measured[wheel]);
    line += text;
  }
  return line;
}

void JogView::Draw(const Sample& sample) {
  shown_samples_.push_back(sample);
  std::string picture;
  std::size_t lines = 0;
  const auto add = [&](const std::string& line) {
    picture += line.substr(0, columns_) + "\x1b[K\n";
    ++lines;
  };
  add("    rpm   (- target, * measured)");
  for (std::size_t wheel = 0; wheel < wheels_; ++wheel) {
    for (const std::string& row : DrawChart(shown_samples_, wheel, columns_, height_)) add(row);
  }
  add(Line(sample));
  if (drawn_lines_ > 0) picture = "\x1b[" + std::to_string(drawn_lines_) + "A" + picture;
  // Each picture begins at the top of the one before it: one that is left out does no harm.
  if (drawn_lines_ == 0) {
    output_.Write(picture);
  } else {
    output_.Draw(picture);
  }
  drawn_lines_ = lines;
}

}  // namespace motorctl
