#include "wheels/notifier.h"

#include <unistd.h>

#include <cstdlib>

namespace motor_driver {
namespace {

using std::chrono::microseconds;

// Without a time that is asked for.
constexpr auto kUsualInterval = std::chrono::milliseconds(50);
constexpr long kMessagesPerTime = 4;

}  // namespace

Notifier::Notifier() : address_(std::getenv(kNotifySocket)), interval_(kUsualInterval) {
  if (address_.size == 0) {
    return;
  }
  if (const char* watchdog = std::getenv(kWatchdogTime)) {
    const long time_us = std::strtol(watchdog, nullptr, 10);
    if (time_us > 0) {
      interval_ = microseconds(time_us / kMessagesPerTime);
    }
  }
  socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

Notifier::~Notifier() {
  if (socket_ >= 0) {
    ::close(socket_);
  }
}

void Notifier::Alive(Clock::time_point now) {
  if (now >= next_) {
    next_ = now + interval_;
    Send(kAlive);
  }
}

void Notifier::Over() { Send(kWheelsOff); }

// Whoever does not take it will ask for it by what it does.
void Notifier::Send(std::string_view text) {
  if (socket_ >= 0) {
    address_.Send(socket_, text);
  }
}

}  // namespace motor_driver
