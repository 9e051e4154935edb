// motorctl jog NODE
//
// The one command that turns wheels. However it ends, zero speed is sent until the measured speed
// says that it arrived; when that cannot be had, it says so and fails.
#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "background_output.h"
#include "bring_up.h"
#include "chart.h"
#include "sdo_client.h"
#include "signals.h"

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;
using Json = nlohmann::ordered_json;
using std::chrono::milliseconds;

// A hub motor of 200 mm then moves a vehicle at about 1 m/s, a walking pace.
constexpr int kSafeRpm = 100;
constexpr int kHighestRpm = 6000;
constexpr double kLongestSeconds = 3600;
constexpr double kSteepestRamp = 10000;

constexpr auto kStartTime = std::chrono::seconds(5);
constexpr auto kFeedbackTime = milliseconds(250);
constexpr int kCyclesWithoutFeedback = 5;
constexpr auto kShowEvery = milliseconds(100);

// One reading is coarse: at 4096 counts per revolution and 10 ms, one count is 1.5 rpm.
constexpr auto kMeasuringTime = milliseconds(200);
constexpr double kStandingRpm = 1.0;

// A wheel that is further off for longer is blocked, or out of control.
constexpr double kFollows = 0.5;
constexpr double kFollowsRpm = 20;
constexpr auto kFollowTime = milliseconds(1000);

constexpr int kStopCycles = 20;
constexpr auto kStopTime = std::chrono::seconds(3);
// After the bus failed: someone may be at the plug.
constexpr auto kRecoveryTime = std::chrono::seconds(10);
constexpr auto kPause = milliseconds(20);
constexpr auto kBetweenPositions = milliseconds(300);

constexpr TargetRpm kZero = {};

struct Options {
  int node = 1;
  int rpm = 0;
  std::optional<int> rpm2;
  double seconds = 0;
  double ramp = 60;
  int period_ms = 10;
  std::string csv;
  std::string svg;
  bool yes = false;
  bool allow_fast = false;
};

double Seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

// The latest readings of each motor.
class Readings {
 public:
  explicit Readings(int period_ms)
      : wanted_(std::max<std::size_t>(
            10, static_cast<std::size_t>(kMeasuringTime.count() / period_ms))) {
    latest_.reserve(wanted_);
  }

  void Clear() { latest_.clear(); }
  void Add(const MeasuredRpm& rpm) {
    if (latest_.size() == wanted_) latest_.erase(latest_.begin());
    latest_.push_back(rpm);
  }
  MeasuredRpm Mean() const {
    MeasuredRpm mean = {};
    for (std::size_t motor = 0; motor < kMaxMotors && !latest_.empty(); ++motor) {
      for (const MeasuredRpm& rpm : latest_) mean[motor] += rpm[motor];
      mean[motor] /= static_cast<double>(latest_.size());
    }
    return mean;
  }
  bool Standing() const {
    const MeasuredRpm mean = Mean();
    return latest_.size() == wanted_ && std::abs(mean[0]) < kStandingRpm &&
           std::abs(mean[1]) < kStandingRpm;
  }

 private:
  std::size_t wanted_;
  std::vector<MeasuredRpm> latest_;
};

// Runs a loop once per period; a late cycle is not made up for.
class Pacer {
 public:
  explicit Pacer(milliseconds period) : period_(period), next_(Clock::now()) {}
  void Wait() {
    next_ = std::max(next_ + period_, Clock::now());
    std::this_thread::sleep_until(next_);
  }

 private:
  milliseconds period_;
  Clock::time_point next_;
};

// Speeds that approach what is wanted no faster than the ramp allows.
class Ramp {
 public:
  explicit Ramp(const Options& options)
      : wanted_({double(options.rpm), double(options.rpm2.value_or(0))}),
        slope_(options.ramp),
        seconds_(options.seconds),
        longest_step_(5.0 * options.period_ms / 1000) {
    const double highest = std::max(std::abs(wanted_[0]), std::abs(wanted_[1]));
    down_from_ = std::max(seconds_ / 2, seconds_ - highest / slope_);
  }

  bool OverAt(double second) const { return second >= seconds_; }

  // To be called with rising times. A loop that was held up must not jump.
  TargetRpm At(double second) {
    const double step = slope_ * std::min(second - second_, longest_step_);
    second_ = second;
    TargetRpm target = {};
    for (std::size_t motor = 0; motor < kMaxMotors; ++motor) {
      const double goal = second < down_from_ ? wanted_[motor] : 0;
      speed_[motor] += std::clamp(goal - speed_[motor], -step, step);
      target[motor] = static_cast<int>(std::lround(speed_[motor]));
    }
    return target;
  }

 private:
  MeasuredRpm wanted_;
  double slope_;
  double seconds_;
  double longest_step_;
  double down_from_ = 0;
  double second_ = 0;
  MeasuredRpm speed_ = {};
};

// Shows samples as they come: a chart in place, lines, or JSON.
class View {
 public:
  View(const Context& context, std::size_t motors, BackgroundOutput& output)
      : context_(context), motors_(motors), output_(output) {
    winsize size = {};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 20) return;
    columns_ = size.ws_col - 1U;
    // All of it must fit, or drawing in place would scroll.
    const std::size_t rows = size.ws_row > 3U * motors_ + 3U ? size.ws_row - 3U : 3U * motors_;
    height_ = std::min(height_, rows / motors_);
  }

  void Show(const Sample& sample) {
    if (shown_ && sample.second < next_) return;
    next_ = sample.second + Seconds(kShowEvery);
    shown_ = true;
    if (context_.json) {
      Json target = Json::array();
      Json measured = Json::array();
      for (std::size_t motor = 0; motor < motors_; ++motor) {
        target.push_back(sample.target[motor]);
        measured.push_back(std::round(sample.measured[motor] * 100) / 100);
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

 private:
  std::string Line(const Sample& sample) const {
    std::string line;
    char text[64];
    std::snprintf(text, sizeof(text), "%6.1f s", sample.second);
    line += text;
    for (std::size_t motor = 0; motor < motors_; ++motor) {
      std::snprintf(text, sizeof(text), "  target %4d, measured %6.1f rpm", sample.target[motor],
                    sample.measured[motor]);
      line += text;
    }
    return line;
  }

  void Draw(const Sample& sample) {
    shown_samples_.push_back(sample);
    std::string picture;
    std::size_t lines = 0;
    const auto add = [&](const std::string& line) {
      picture += line.substr(0, columns_) + "\x1b[K\n";
      ++lines;
    };
    add("    rpm   (- target, * measured)");
    for (std::size_t motor = 0; motor < motors_; ++motor) {
      for (const std::string& row : DrawChart(shown_samples_, motor, columns_, height_)) add(row);
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

  const Context& context_;
  std::size_t motors_;
  BackgroundOutput& output_;
  Samples shown_samples_;
  std::size_t columns_ = 79;
  std::size_t height_ = 9;
  std::size_t drawn_lines_ = 0;
  bool shown_ = false;
  double next_ = 0;
};

class Jog {
 public:
  Jog(const Context& context, const Options& options, EndSignals& signals, BackgroundOutput& output)
      : options_(options),
        signals_(signals),
        output_(output),
        drive_(context, FindMake(context.make), options.node, options.period_ms),
        period_(options.period_ms),
        view_(context, drive_.make().motors, output),
        readings_(options.period_ms) {
    // Enough for everything: the loop that stops a wheel must not fail for want of memory.
    samples_.reserve(static_cast<std::size_t>((options.seconds + 20) * 1000 / options.period_ms));
  }

  // False: nothing was enabled, so there is nothing to stop.
  bool BringUp();

  // Turns the wheels; `failure()` tells why not to the end.
  void Turn();

  // True when the measured speed confirms that the wheels stand still.
  bool Stop();

  void Fail(const std::string& text) {
    if (failure_.empty()) failure_ = text;
  }
  const std::string& failure() const { return failure_; }
  const Samples& samples() const { return samples_; }
  std::size_t motors() const { return drive_.make().motors; }

 private:
  bool AwaitFeedback();
  bool Healthy();
  bool Follows(const TargetRpm& target);
  bool Command(const TargetRpm& target);
  bool TakeReadings();
  bool StopByFrames();
  bool StopByObjects();
  void Record(const TargetRpm& target);
  DriverCommon& driver() { return drive_.driver(); }

  const Options& options_;
  EndSignals& signals_;
  BackgroundOutput& output_;
  Drive drive_;
  const milliseconds period_;
  View view_;
  Readings readings_;
  Samples samples_;
  std::string failure_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point last_reading_ = Clock::now();
  int cycles_without_reading_ = 0;
  Clock::time_point followed_ = Clock::now();
};

bool Jog::BringUp() {
  const BringUpResult result = drive_.BringUp([this] { return signals_.Arrived(); });
  for (const FailedWrite& failed : result.failed_writes) {
    output_.Say(drive_.Name() + ": failed: " + Describe(failed));
  }
  if (!result.done) Fail(result.failure);
  return result.enabled;
}

void Jog::Turn() {
  if (!failure_.empty() || !AwaitFeedback()) return;
  Ramp ramp(options_);
  Pacer pacer(period_);
  start_ = followed_ = last_reading_ = Clock::now();
  for (;;) {
    const double second = Seconds(Clock::now() - start_);
    if (ramp.OverAt(second)) return;
    if (signals_.Arrived()) return Fail("interrupted");
    if (output_.Failed()) return Fail("nobody reads the output any more");
    const TargetRpm target = ramp.At(second);
    Command(target);
    pacer.Wait();
    TakeReadings();
    Record(target);
    if (!Healthy() || !Follows(target)) return;
  }
}

// The drive is trusted with a speed once it was heard in operation and its wheels stand still.
bool Jog::AwaitFeedback() {
  Pacer pacer(period_);
  bool heard = false;
  for (const auto deadline = Clock::now() + kStartTime; Clock::now() < deadline;) {
    if (signals_.Arrived()) {
      Fail("interrupted");
      return false;
    }
    Command(kZero);
    pacer.Wait();
    heard = TakeReadings() || heard;
    if (driver().GetCanError() != 0) break;
    if (drive_.nmt_state() == kOperational && readings_.Standing()) return true;
  }
  if (driver().GetCanError() != 0) {
    Fail("the bus failed");
  } else if (!heard) {
    Fail(drive_.Name() + " sends no positions (TPDO1)");
  } else if (!readings_.Standing()) {
    Fail("a wheel turns although zero speed is commanded");
  } else {
    Fail(drive_.Name() + " sends no heartbeat, or is not operational");
  }
  return false;
}

// True when the frame was sent; some classes always answer true.
bool Jog::Command(const TargetRpm& target) {
  return drive_.make().command(driver(), drive_.node(), target) && driver().GetCanError() == 0 &&
         driver().GetWriteErrorCount() == 0;
}

// Takes every queued frame. True when there was a speed among them.
bool Jog::TakeReadings() {
  ++cycles_without_reading_;
  while (driver().GetReadQueueSize() > 0) {
    MeasuredRpm rpm = {};
    if (!drive_.make().measure(driver(), drive_.node(), rpm)) continue;
    readings_.Add(rpm);
    cycles_without_reading_ = 0;
    last_reading_ = Clock::now();
  }
  return cycles_without_reading_ == 0;
}

void Jog::Record(const TargetRpm& target) {
  const Sample sample = {Seconds(Clock::now() - start_), target, readings_.Mean()};
  if (samples_.size() < samples_.capacity()) samples_.push_back(sample);
  view_.Show(sample);
}

bool Jog::Healthy() {
  // A process that was held up has not looked: some cycles must have gone by, too.
  const bool silent = cycles_without_reading_ > kCyclesWithoutFeedback &&
                      Clock::now() - last_reading_ > kFeedbackTime + 5 * period_;
  if (driver().GetCanError() != 0) {
    Fail("the bus failed (error " + std::to_string(driver().GetCanError()) + ")");
  } else if (silent) {
    Fail(drive_.Name() + " sends no positions any more");
  } else if (!driver().IsNodeOnline(drive_.node())) {
    Fail(drive_.Name() + " sends no heartbeat any more");
  } else if (drive_.nmt_state() != kOperational) {
    Fail(drive_.Name() + " left the operational state: did it restart?");
  }
  return failure_.empty();
}

bool Jog::Follows(const TargetRpm& target) {
  const MeasuredRpm measured = readings_.Mean();
  bool follows = true;
  for (std::size_t motor = 0; motor < motors(); ++motor) {
    const double allowed = kFollows * std::abs(target[motor]) + kFollowsRpm;
    follows = follows && std::abs(measured[motor] - target[motor]) <= allowed;
  }
  if (follows) followed_ = Clock::now();
  if (Clock::now() - followed_ > kFollowTime) {
    Fail("a wheel does not follow its speed command: is it blocked, is there an error?");
  }
  return failure_.empty();
}

bool Jog::Stop() {
  const bool confirmed = StopByFrames();
  if (confirmed) {
    output_.Say(motors() == 2 ? "zero speed sent; both wheels were measured to stand still"
                              : "zero speed sent; the wheel was measured to stand still");
    return true;
  }
  if (StopByObjects()) {
    output_.Say("zero speed written to the drive; its position does not change any more");
    return true;
  }
  Fail("the stop is not confirmed");
  for (int i = 0; i < 3; ++i) {
    output_.Say("*** THE STOP IS NOT CONFIRMED: " + drive_.Name() +
                " MAY STILL TURN. SECURE THE VEHICLE, SWITCH THE DRIVE OFF. ***");
  }
  return false;
}

// Leaves the drive enabled: at zero speed it holds the wheels; released, it would let a vehicle on
// a slope roll.
bool Jog::StopByFrames() {
  Pacer pacer(period_);
  const auto begin = Clock::now();
  auto deadline = begin + kStopTime;
  int sent = 0;
  driver().ClearReadQueue();
  readings_.Clear();
  while (Clock::now() < deadline) {
    if (driver().GetCanError() != 0) {
      // Whatever happened to the bus, the wheels may still turn at the last speed commanded.
      deadline = begin + kRecoveryTime;
      try {
        driver().CanRecover();
      } catch (const std::exception&) {
        // No thread to be had: the next attempt may find one.
      }
      readings_.Clear();
      sent = 0;
      std::this_thread::sleep_for(kPause);
    }
    // Only what went out counts: on a bus that was away the drive has heard none of it.
    sent = Command(kZero) ? sent + 1 : 0;
    pacer.Wait();
    const bool measured = TakeReadings();
    try {
      if (measured) Record(kZero);
    } catch (const std::exception&) {
      // What is shown is not worth a wheel that turns.
    }
    if (sent >= kStopCycles && readings_.Standing()) return true;
  }
  return false;
}

// A drive that is not in operation hears and sends no PDOs, but still SDOs.
bool Jog::StopByObjects() {
  std::string ignored;
  if (driver().GetCanError() != 0 || !drive_.ZeroTargetVelocities(ignored)) return false;
  const double counts_per_turn = driver().GetNumberOfPulsesPerRevolution();
  for (const Object& object : drive_.make().positions) {
    const auto begin = Clock::now();
    const SdoAnswer first = ReadObject(driver(), drive_.node(), object.index, object.sub_index);
    std::this_thread::sleep_for(kBetweenPositions);
    const SdoAnswer second = ReadObject(driver(), drive_.node(), object.index, object.sub_index);
    if (!first.ok() || !second.ok()) return false;
    const auto moved = static_cast<std::int32_t>(second.value - first.value);
    if (std::abs(moved / counts_per_turn / Seconds(Clock::now() - begin) * 60) >= kStandingRpm) {
      return false;
    }
  }
  return true;
}

// A person at the keyboard is asked; nothing has been sent yet.
bool Confirmed(const Context& context, const Options& options) {
  if (options.yes) return true;
  if (::isatty(STDIN_FILENO) == 0) {
    context.Say("refusing to turn a wheel without --yes: standard input is no terminal");
    return false;
  }
  std::fprintf(stderr,
               "motorctl: node %d will turn at %d rpm%s for %.1f s. Is the wheel off the ground? "
               "[y/N] ",
               options.node, options.rpm,
               options.rpm2 ? (" and " + std::to_string(*options.rpm2) + " rpm").c_str() : "",
               options.seconds);
  char answer[16] = {};
  const ssize_t bytes = ::read(STDIN_FILENO, answer, sizeof(answer) - 1);
  if (bytes > 0 && (answer[0] == 'y' || answer[0] == 'Y')) return true;
  context.Say("nothing was moved");
  return false;
}

// Opened before anything turns: a name that cannot be written must not cost the measurement.
class ResultFile {
 public:
  explicit ResultFile(const std::string& name) : name_(name) {
    if (name_.empty()) return;
    file_.open(name_, std::ios::trunc);
    if (!file_) throw CommandFailed("cannot write " + name_);
  }
  bool Write(const std::string& text) {
    if (name_.empty()) return true;
    file_ << text << std::flush;
    return file_.good();
  }

 private:
  std::string name_;
  std::ofstream file_;
};

int Run(const Context& context, const Options& options) {
  if (!Confirmed(context, options)) return ::isatty(STDIN_FILENO) != 0 ? kFailure : kUsage;
  ResultFile csv(options.csv);
  ResultFile svg(options.svg);

  std::optional<EndSignals> signals;
  signals.emplace();
  bool stopped = true;
  std::string failure;
  {
    BackgroundOutput output(context);
    Jog jog(context, options, *signals, output);
    bool enabled = true;  // until the opposite is known
    try {
      enabled = jog.BringUp();
      jog.Turn();
    } catch (const std::exception& error) {
      jog.Fail(error.what());
    }
    if (enabled) {
      stopped = jog.Stop();
    } else {
      output.Say(jog.failure() + "; nothing was moved");
    }
    if (!csv.Write(Csv(jog.samples(), jog.motors()))) jog.Fail("cannot write " + options.csv);
    if (!svg.Write(Svg(jog.samples(), jog.motors(),
                       std::string(context.make) + " node " + std::to_string(options.node) +
                           ": target (grey) and measured speed"))) {
      jog.Fail("cannot write " + options.svg);
    }
    failure = jog.failure();
    if (enabled && !failure.empty()) output.Say(failure);
    if (context.json) {
      output.Line(Json{{"command", "jog"},
                       {"event", "end"},
                       {"ok", failure.empty()},
                       {"failure", failure.empty() ? Json(nullptr) : Json(failure)},
                       {"enabled", enabled},
                       {"stop_confirmed", enabled ? Json(stopped) : Json(nullptr)}}
                      .dump());
    }
    // The wheels stand: from here on a signal may end a program that waits for its reader.
    signals.reset();
  }
  return stopped && failure.empty() ? kSuccess : kFailure;
}

void CheckOptions(const Context& context, const Options& options) {
  context.RequireMake();
  const Make& make = FindMake(context.make);
  if (make.motors == 0) {
    throw CLI::ValidationError("--make",
                               "a fake drive has no wheel whose stop could be measured; "
                               "try motor-drive-sim");
  }
  if (std::find(make.nodes.begin(), make.nodes.end(), options.node) == make.nodes.end()) {
    std::string nodes;
    for (const int node : make.nodes) nodes += " " + std::to_string(node);
    throw CLI::ValidationError("NODE", "the speed of make " + context.make +
                                           " is measured at node" + nodes +
                                           " only, and what is not measured is not turned");
  }
  if (options.rpm2 && make.motors < 2) {
    throw CLI::ValidationError("--rpm2", "make " + context.make + " has one motor per node");
  }
  const int fastest = std::max(std::abs(options.rpm), std::abs(options.rpm2.value_or(0)));
  if (fastest > kSafeRpm && !options.allow_fast) {
    throw CLI::ValidationError("--rpm",
                               "more than " + std::to_string(kSafeRpm) + " rpm needs --allow-fast");
  }
}

// CLI11's own range lets "nan" pass.
CLI::Validator Between(double above, double most) {
  return CLI::Validator(
      [above, most](const std::string& text) {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (*end == '\0' && end != text.c_str() && value > above && value <= most) {
          return std::string();
        }
        char message[64];
        std::snprintf(message, sizeof(message), "not above %g and at most %g: ", above, most);
        return message + text;
      },
      "");
}

}  // namespace

void AddJog(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "jog", "turn the wheels of a node for a while, show the measured speed, stop");
  command->add_option("NODE", options->node, "node-ID")->required()->check(CLI::Range(1, 127));
  const std::string limit = " (100 at most without --allow-fast)";
  command->add_option("--rpm", options->rpm, "speed" + limit)
      ->required()
      ->check(CLI::Range(-kHighestRpm, kHighestRpm))
      ->type_name("RPM");
  command->add_option("--rpm2", options->rpm2, "speed of the node's second motor (0)")
      ->check(CLI::Range(-kHighestRpm, kHighestRpm))
      ->type_name("RPM");
  command->add_option("--seconds", options->seconds, "duration, both ramps included")
      ->required()
      ->check(Between(0, kLongestSeconds))
      ->type_name("S");
  command->add_option("--ramp", options->ramp, "rpm per second (60)")
      ->check(Between(0, kSteepestRamp))
      ->type_name("RPM_PER_S");
  command->add_option("--period", options->period_ms, "control period in milliseconds (10)")
      ->check(CLI::Range(2, 100))
      ->type_name("MS");
  command->add_option("--csv", options->csv, "write every cycle as a table")->type_name("FILE");
  command->add_option("--svg", options->svg, "write a picture of target and measured speed")
      ->type_name("FILE");
  command->add_flag("--yes", options->yes,
                    "do not ask; needed where standard input is no terminal");
  command->add_flag("--allow-fast", options->allow_fast, "more than 100 rpm");
  command->callback([&context, options] {
    CheckOptions(context, *options);
    context.run = [&context, options] { return Run(context, *options); };
  });
}

}  // namespace motorctl
