#include "node_lock.h"

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

constexpr int kWaiting = 16;

int Socket() { return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

// 0: nobody knows.
pid_t HolderOf(const sockaddr_un& address, socklen_t size) {
  const int socket = Socket();
  ucred holder = {};
  socklen_t holder_size = sizeof(holder);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
      ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &holder, &holder_size) != 0) {
    holder.pid = 0;
  }
  ::close(socket);
  return holder.pid;
}

std::vector<int> Once(std::vector<int> nodes) {
  std::sort(nodes.begin(), nodes.end());
  nodes.erase(std::unique(nodes.begin(), nodes.end()), nodes.end());
  return nodes;
}

}  // namespace

NodeLock::NodeLock(const std::string& interface, const std::vector<int>& nodes,
                   const std::string& name, const std::string& taken) {
  const std::string names = "motor-driver-" + name + "/" + interface + "/";
  for (const int node : nodes) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // The first byte stays 0.
    const std::string path = names + std::to_string(node);
    std::copy(path.begin(), path.end(), address.sun_path + 1);
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
    const int socket = Socket();
    sockets_.push_back(socket);
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), size) == 0 &&
        ::listen(socket, kWaiting) == 0) {
      continue;
    }
    const int failure = errno;
    Close();
    if (failure != EADDRINUSE) {
      throw std::system_error(failure, std::generic_category(), "lock of a node");
    }
    const pid_t holder = HolderOf(address, size);
    std::string failed = "node " + std::to_string(node);
    failed.append(" on ").append(interface).append(" ").append(taken);
    if (holder > 0) failed.append(", by process ").append(std::to_string(holder));
    throw CommandFailed(failed);
  }
}

NodeLock::~NodeLock() { Close(); }

void NodeLock::Answer() {
  for (const int socket : sockets_) {
    for (int asking = 0; (asking = ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      ::close(asking);
    }
  }
}

void NodeLock::Close() {
  for (const int socket : sockets_) ::close(socket);
  sockets_.clear();
}

// A node that was named twice is no other process.
UseLock::UseLock(const std::string& interface, const std::vector<int>& nodes)
    : NodeLock(interface, Once(nodes), "use", "is saved, restored, brought up or turned already") {}

}  // namespace motorctl
