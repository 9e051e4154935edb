// What a jog shows while it turns.
#pragma once

#include <cstddef>
#include <string>

#include "chart.h"
#include "context.h"
#include "terminal.h"

namespace motorctl {

// Shows samples as they come: a chart in place, lines, or JSON.
class JogView {
 public:
  JogView(const Context& context, std::size_t wheels, BackgroundOutput& output);
  void Show(const Sample& sample);

 private:
  std::string Line(const Sample& sample) const;
  void Draw(const Sample& sample);

  const Context& context_;
  std::size_t wheels_;
  BackgroundOutput& output_;
  Samples shown_samples_;
  std::size_t columns_ = 79;
  std::size_t height_ = 9;
  std::size_t drawn_lines_ = 0;
  bool shown_ = false;
  double next_ = 0;
};

}  // namespace motorctl
