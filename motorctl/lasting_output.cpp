#include "lasting_output.h"

#include <chrono>

#include "context.h"

namespace motorctl {
namespace {

constexpr std::size_t kMostWaiting = 1024;
constexpr auto kFarewell = std::chrono::milliseconds(100);
constexpr auto kAtOnce = std::chrono::milliseconds(0);

}  // namespace

LastingOutput::LastingOutput(const Context& context)
    : data_(
          [&context, this](const std::string& text) {
            try {
              context.Write(text);
            } catch (const motorctl::NobodyReads&) {
              throw;
            } catch (const CommandFailed&) {
              ++lost_lines_;  // there may be room for the next one
            }
          },
          kMostWaiting),
      status_([&context](const std::string& text) { context.Say(text); }, kMostWaiting) {}

LastingOutput::~LastingOutput() {
  data_.AwaitIdle(kFarewell);
  TellLost();
  data_.End(kAtOnce);
  status_.End(kFarewell);
}

void LastingOutput::Line(const std::string& text) {
  TellLost();
  if (!data_.Push(text + '\n') && !data_.Failed()) ++lost_lines_;
}

void LastingOutput::Say(const std::string& text) {
  TellLost();
  if (!status_.Push(text)) ++lost_status_;
}

void LastingOutput::TellLost() {
  const auto tell = [this](std::size_t lines, const char* output) {
    const bool taken = status_.Push(std::to_string(lines) + " lines of standard " + output +
                                    " are lost: it took nothing");
    return taken ? std::size_t{0} : lines;
  };
  if (lost_status_ > 0 && status_.AwaitIdle(kAtOnce)) lost_status_ = tell(lost_status_, "error");
  if (lost_lines_ > 0 && data_.AwaitIdle(kAtOnce)) {
    lost_lines_ += tell(lost_lines_.exchange(0), "output");
  }
}

}  // namespace motorctl
