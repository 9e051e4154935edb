#include "record_control.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <system_error>

#include "context.h"
#include "printable.h"

namespace motorctl {
namespace {

constexpr int kWaiting = 8;
constexpr std::size_t kMostAsking = 8;
// What comes after the trigger, then a slow disk.
constexpr int kLongestMilliseconds = (kMostAfterSeconds + 180) * 1000;
constexpr timeval kLongestConnect = {10, 0};

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

// Who listens at the other end, or has connected; nothing where nobody tells.
std::optional<ucred> PeerOf(int socket) {
  ucred peer = {};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return std::nullopt;
  return peer;
}

std::string Name(const ucred& peer) {
  return "process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid);
}

std::optional<ucred> HolderOf(const Address& name) {
  // Without waiting: it may accept nobody.
  const int socket = Socket(SOCK_NONBLOCK);
  std::optional<ucred> holder;
  if (::connect(socket, name.get(), name.size) == 0) holder = PeerOf(socket);
  ::close(socket);
  return holder;
}

bool Trusts(const std::optional<ucred>& peer) {
  return peer && (peer->uid == 0 || peer->uid == ::geteuid());
}

void Refuse(int asking, const std::string& reason) {
  const std::string text = "!" + reason;
  ::send(asking, text.data(), text.size(), MSG_NOSIGNAL);
  ::close(asking);
}

}  // namespace

RecordControl::RecordControl(const std::string& interface) : socket_(Socket(SOCK_NONBLOCK)) {
  const Address name(interface);
  if (::bind(socket_, name.get(), name.size) == 0 && ::listen(socket_, kWaiting) == 0) return;
  const int error = errno;
  Close();
  if (error == EADDRINUSE) {
    const std::optional<ucred> holder = HolderOf(name);
    if (Trusts(holder)) {
      throw CommandFailed(interface + " is recorded already, by " + Name(*holder) +
                          "; \"motorctl record --now\" asks that recorder");
    }
    holder_ = holder ? Name(*holder) : "somebody who does not answer";
    return;
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
  // No more at once: whoever connects again and again must not keep it here.
  for (int i = 0; i < kWaiting; ++i) {
    const int asking = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (asking < 0) break;
    // Another user could have incidents written until the ones that matter are removed.
    if (!Trusts(PeerOf(asking))) {
      Refuse(asking, "only root and the user of the recorder may ask");
    } else if (asking_.size() >= kMostAsking) {
      Refuse(asking, "too many ask at once; wait for their records");
    } else {
      asking_.push_back(asking);
      asked = true;
    }
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

RecordAnswer AskForRecord(const std::string& interface) {
  const int socket = Socket(0);
  const std::unique_ptr<const int, void (*)(const int*)> closed(
      &socket, [](const int* descriptor) { ::close(*descriptor); });
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &kLongestConnect, sizeof(kLongestConnect));
  const Address name(interface);
  const std::string silent = "the recorder of " + interface + " ended, or does not answer";
  if (::connect(socket, name.get(), name.size) != 0) {
    if (errno == EAGAIN) throw CommandFailed(silent);
    throw CommandFailed("nobody records " + interface + "; start \"motorctl record\" first");
  }
  const std::optional<ucred> peer = PeerOf(socket);
  RecordAnswer answer;
  if (!peer || peer->uid != ::geteuid()) {
    answer.answerer = peer ? Name(*peer) : "somebody";
    if (::geteuid() != 0) {
      throw CommandFailed("the recorder of " + interface + " is " + answer.answerer +
                          ": ask as that user or as root");
    }
  }
  char text[4096];
  pollfd readable = {socket, POLLIN, 0};
  ::poll(&readable, 1, kLongestMilliseconds);
  const ssize_t bytes = ::recv(socket, text, sizeof(text), MSG_DONTWAIT);
  if (bytes <= 0) throw CommandFailed(silent);
  answer.written = text[0] == '+';
  answer.text = Visible(std::string_view(text, static_cast<std::size_t>(bytes)).substr(1));
  return answer;
}

}  // namespace motorctl
