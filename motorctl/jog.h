// Wheels turned for a while and stopped again.
#pragma once

#include <wheels.h>

#include <chrono>
#include <string>
#include <vector>

#include "chart.h"
#include "context.h"
#include "jog_view.h"
#include "signals.h"
#include "terminal.h"

namespace motorctl {

struct JogPlan {
  Vehicle vehicle;
  std::vector<double> rpm;  // of each wheel
  double seconds = 0;       // both ramps included
  double ramp = 60;         // rpm per second
};

class Jog {
 public:
  // Throws VehicleError.
  Jog(const Context& context, const JogPlan& plan, EndSignals& signals, BackgroundOutput& output);

  // False: nothing was enabled, so there is nothing to stop.
  bool BringUp();

  // Turns the wheels; `failure()` tells why not to the end.
  void Turn();

  // True when the wheels were measured to stand still.
  bool Stop();

  // Says it at once; the first failure is the one that counts.
  void Fail(const std::string& text) {
    if (!failure_.empty()) return;
    failure_ = text;
    output_.Say(text);
  }
  const std::string& failure() const { return failure_; }
  const Samples& samples() const { return samples_; }

 private:
  using Clock = std::chrono::steady_clock;

  void Command(double second);
  void Record();
  bool StopOnce();
  double SecondsSinceStart() const;

  const JogPlan& plan_;
  EndSignals& signals_;
  BackgroundOutput& output_;
  JogView view_;
  Samples samples_;
  std::string failure_;
  Clock::time_point start_ = Clock::now();
  std::vector<double> command_;
  motor_driver::Wheels wheels_;  // goes first, and stops them
};

}  // namespace motorctl
