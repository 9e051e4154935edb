#include "network.h"

#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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
