#include "network.h"

#include <net/if.h>
#include <sched.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <vector>

void RunCommand(std::vector<std::string> words) {
  std::string text;
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    text += word + ' ';
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  pid_t process = 0;
  int status = ::posix_spawnp(&process, arguments[0], nullptr, nullptr, arguments.data(), environ);
  if (status != 0) {
    throw std::system_error(status, std::generic_category(), "cannot run " + words[0]);
  }
  if (::waitpid(process, &status, 0) < 0 || status != 0) {
    throw std::runtime_error("failed: " + text);
  }
}

void EnterOwnNetwork(const std::string& interface, const std::string& far_interface) {
  if (::unshare(CLONE_NEWNET) < 0) {
    throw std::system_error(errno, std::generic_category(), "no network namespace of its own");
  }
  RunCommand(
      {"ip", "link", "add", "dev", interface, "type", "vxcan", "peer", "name", far_interface});
  RunCommand({"ip", "link", "set", interface, "up"});
  RunCommand({"ip", "link", "set", far_interface, "up"});
}

void SetInterface(const std::string& interface, bool up) {
  const int any = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::copy_n(interface.data(), std::min(interface.size(), sizeof(request.ifr_name) - 1),
              request.ifr_name);
  bool done = ::ioctl(any, SIOCGIFFLAGS, &request) == 0;
  const int flags = up ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP;
  request.ifr_flags = static_cast<short>(flags);
  done = done && ::ioctl(any, SIOCSIFFLAGS, &request) == 0;
  const int error = errno;
  ::close(any);
  if (!done) throw std::system_error(error, std::generic_category(), interface);
}
