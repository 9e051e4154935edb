#include "notify_socket.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <system_error>

namespace motorctl {
namespace {

using std::chrono::microseconds;

constexpr const char* kWatchdogProcess = "WATCHDOG_PID";

// As many as a queue of the kernel holds: others wait for the next look.
constexpr int kMostMessages = 512;
constexpr std::size_t kMostUntold = 4096;

bool StartsWith(const std::string& text, std::string_view start) {
  return text.compare(0, start.size(), start) == 0;
}

// Of the command's own process or descriptors: they would mean those of this process, or nothing.
bool IsPassedOn(const std::string& line) {
  return !line.empty() && !StartsWith(line, "MAINPID") && !StartsWith(line, "FDSTORE") &&
         !StartsWith(line, "FDNAME") && !StartsWith(line, "BARRIER") && !StartsWith(line, "X_");
}

std::optional<microseconds> AskedTime() {
  const char* const time = std::getenv(motor_driver::kWatchdogTime);
  const char* const process = std::getenv(kWatchdogProcess);
  if (time == nullptr || (process != nullptr && std::strtol(process, nullptr, 10) != ::getpid())) {
    return std::nullopt;
  }
  const long value = std::strtol(time, nullptr, 10);
  return value > 0 ? std::optional<microseconds>(value) : std::nullopt;
}

}  // namespace

NotifySocket::NotifySocket()
    : outer_(std::getenv(motor_driver::kNotifySocket)),
      outer_time_(outer_.size > 0 ? AskedTime() : std::nullopt),
      socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  socklen_t size = sizeof(address);
  const int enabled = 1;
  // Without a name the kernel finds one, in no file system.
  if (socket_ < 0 ||
      ::setsockopt(socket_, SOL_SOCKET, SO_PASSCRED, &enabled, sizeof(enabled)) != 0 ||
      ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(sa_family_t)) != 0 ||
      ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::system_error(errno, std::generic_category(), "socket of the command");
  }
  name_ = "@" + std::string(address.sun_path + 1, size - offsetof(sockaddr_un, sun_path) - 1);
}

NotifySocket::~NotifySocket() { ::close(socket_); }

std::vector<std::string> NotifySocket::EnvironmentOf(
    std::vector<std::string> environment, std::optional<std::chrono::milliseconds> fresh) const {
  environment.erase(std::remove_if(environment.begin(), environment.end(),
                                   [](const std::string& entry) {
                                     return StartsWith(entry, "NOTIFY_SOCKET=") ||
                                            StartsWith(entry, "WATCHDOG_USEC=") ||
                                            StartsWith(entry, "WATCHDOG_PID=");
                                   }),
                    environment.end());
  environment.push_back(motor_driver::kNotifySocket + ("=" + name_));
  std::optional<microseconds> time = outer_time_;
  if (fresh && (!time || *fresh < *time)) time = *fresh;
  if (time) {
    environment.push_back(motor_driver::kWatchdogTime + ("=" + std::to_string(time->count())));
  }
  return environment;
}

void NotifySocket::Take(pid_t group) {
  if (!untold_.empty() && outer_.Send(socket_, untold_)) untold_.clear();
  char text[4096];
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
  for (int message = 0; message < kMostMessages; ++message) {
    iovec data = {text, sizeof(text)};
    msghdr header = {};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control;  // no room for descriptors: they are closed
    header.msg_controllen = sizeof(control);
    const ssize_t bytes = ::recvmsg(socket_, &header, MSG_CMSG_CLOEXEC);
    if (bytes < 0) return;
    ucred sender = {};
    const cmsghdr* const first = CMSG_FIRSTHDR(&header);
    if (first == nullptr || first->cmsg_level != SOL_SOCKET ||
        first->cmsg_type != SCM_CREDENTIALS) {
      continue;
    }
    std::memcpy(&sender, CMSG_DATA(first), sizeof(sender));
    // Anybody can send here.
    if (sender.uid == ::geteuid() || (sender.pid > 0 && ::getpgid(sender.pid) == group)) {
      Heard(std::string(text, static_cast<std::size_t>(bytes)));
    }
  }
}

void NotifySocket::Heard(const std::string& text) {
  std::istringstream lines(text);
  std::string passed_on;
  for (std::string line; std::getline(lines, line);) {
    if (line == motor_driver::kAlive) alive_at_ = Clock::now();
    if (line == motor_driver::kWheelsOff) alive_at_.reset();
    if (IsPassedOn(line)) passed_on += line + '\n';
  }
  if (!passed_on.empty()) Tell(passed_on);
}

void NotifySocket::Tell(std::string_view text) {
  if (outer_.size == 0 || outer_.Send(socket_, text)) return;
  // A sign of life that comes late is none.
  if (text.substr(0, motor_driver::kAlive.size()) != motor_driver::kAlive &&
      untold_.size() + text.size() <= kMostUntold) {
    untold_ += text;
  }
}

std::optional<microseconds> NotifySocket::interval() const {
  constexpr int kMessagesPerTime = 4;
  if (!outer_time_) return std::nullopt;
  return *outer_time_ / kMessagesPerTime;
}

}  // namespace motorctl
