#include "record_control.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <system_error>

#include "context.h"

namespace motorctl {
namespace {

constexpr int kWaiting = 8;
// What comes after the trigger, then a slow disk.
constexpr int kLongestMilliseconds = 180'000;

struct Address {
  sockaddr_un address = {};
  socklen_t size = 0;

  explicit Address(const std::string& interface) {
    address.sun_family = AF_UNIX;
    // The first byte stays 0: a name that goes with its holder.
    const std::string name = "motor-driver-record/" + interface;
    std::copy(name.begin(), name.end(), address.sun_path + 1);
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

int Socket(int flags) {
  const int socket = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0);
  if (socket < 0) throw std::system_error(errno, std::generic_category(), "socket");
  return socket;
}

}  // namespace

RecordControl::RecordControl(const std::string& interface) : socket_(Socket(SOCK_NONBLOCK)) {
  const Address name(interface);
  if (::bind(socket_, name.get(), name.size) == 0 && ::listen(socket_, kWaiting) == 0) return;
  const int error = errno;
  ::close(socket_);
  if (error == EADDRINUSE) {
    throw CommandFailed(interface +
                        " is recorded already; \"motorctl record --now\" asks that recorder");
  }
  throw std::system_error(error, std::generic_category(), "address of the recorder");
}

void RecordControl::Close() {
  for (const int asking : asking_) ::close(asking);
  asking_.clear();
  if (socket_ >= 0) ::close(socket_);
  socket_ = -1;
}

bool RecordControl::Asked() {
  bool asked = false;
  for (int asking = 0;
       (asking = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;) {
    asking_.push_back(asking);
    asked = true;
  }
  return asked;
}

void RecordControl::Answer(const std::string& text) {
  const auto end = asking_.begin() + static_cast<std::ptrdiff_t>(promised_);
  std::for_each(asking_.begin(), end, [&text](int asking) {
    ::send(asking, text.data(), text.size(), MSG_NOSIGNAL);
    ::close(asking);
  });
  asking_.erase(asking_.begin(), end);
  promised_ = 0;
}

std::string AskForRecord(const std::string& interface) {
  const int socket = Socket(0);
  const Address name(interface);
  if (::connect(socket, name.get(), name.size) == 0) {
    char text[4096];
    pollfd readable = {socket, POLLIN, 0};
    ::poll(&readable, 1, kLongestMilliseconds);
    const ssize_t bytes = ::recv(socket, text, sizeof(text), MSG_DONTWAIT);
    ::close(socket);
    if (bytes > 0) return std::string(text, static_cast<std::size_t>(bytes));
    throw CommandFailed("the recorder of " + interface + " ended, or does not answer");
  }
  ::close(socket);
  throw CommandFailed("nobody records " + interface + "; start \"motorctl record\" first");
}

}  // namespace motorctl
