// The protocol of sd_notify, as far as a host and its guard speak it.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace motor_driver {

constexpr const char* kNotifySocket = "NOTIFY_SOCKET";
constexpr const char* kWatchdogTime = "WATCHDOG_USEC";

constexpr std::string_view kAlive = "WATCHDOG=1";
// Of a host whose wheels were measured to stand and are no longer driven. Nobody else knows it: a
// service manager leaves aside what begins with X_.
constexpr std::string_view kWheelsOff = "X_WHEELS=OFF";

struct NotifyAddress {
  sockaddr_un address = {};
  socklen_t size = 0;  // 0: none

  // Of the value of NOTIFY_SOCKET: a path, or with '@' a name in no file system.
  explicit NotifyAddress(const char* value) {
    const std::string_view path = value != nullptr ? value : "";
    if (path.size() < 2 || path.size() >= sizeof(address.sun_path) ||
        (path.front() != '/' && path.front() != '@')) {
      return;
    }
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    if (path.front() == '@') {
      address.sun_path[0] = '\0';
    }
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  }

  // Never waits: sd_notify() itself does, for a receiver that hangs.
  bool Send(int socket, std::string_view text) const {
    return ::sendto(socket, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                    reinterpret_cast<const sockaddr*>(&address),
                    size) == static_cast<ssize_t>(text.size());
  }
};

}  // namespace motor_driver
