// Where the guarded command tells that it lives, and who is told in turn.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "wheels/notify_protocol.h"

namespace motorctl {

class NotifySocket {
 public:
  using Clock = std::chrono::steady_clock;

  // Looks at the environment: what was asked of this process is asked of the command. Throws
  // std::system_error.
  NotifySocket();
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The environment of the command: `environment`, with this socket in the place of the outer one.
  std::vector<std::string> EnvironmentOf(std::vector<std::string> environment,
                                         std::optional<std::chrono::milliseconds> fresh) const;

  int descriptor() const { return socket_; }

  // Takes all that has arrived and passes it on. `group`: that of the command, which may be another
  // user's.
  void Take(pid_t group);

  // Of the last sign of life; nothing before the first and after an orderly end.
  const std::optional<Clock::time_point>& alive_at() const { return alive_at_; }

  // Something could not be passed on yet: Take() tries again.
  bool has_untold() const { return !untold_.empty(); }

  // To whoever watches this process. Never waits.
  void Tell(std::string_view text);
  // How often that one wants to hear something.
  std::optional<std::chrono::microseconds> interval() const;

 private:
  void Heard(const std::string& text);

  const motor_driver::NotifyAddress outer_;
  std::optional<std::chrono::microseconds> outer_time_;
  int socket_ = -1;
  std::string name_;
  std::string untold_;  // what the outer one had no room for
  std::optional<Clock::time_point> alive_at_;
};

}  // namespace motorctl
