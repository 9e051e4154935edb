#include "guard_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

Process::Process(std::vector<std::string> words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_adddup2(&files, ends[1], kTimeDescriptor);
  for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
    ::posix_spawn_file_actions_addopen(&files, output, "/dev/null", O_WRONLY, 0);
  }
  const int error =
      ::posix_spawn(&process_, pointers[0], &files, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&files);
  ::close(ends[1]);
  output_ = ends[0];
  if (error != 0) {
    ::close(output_);
    throw std::runtime_error("cannot start " + words[0]);
  }
}

Process::~Process() {
  if (process_ > 0) ::kill(process_, SIGKILL);
  Wait();
  ::close(output_);
}

void Process::Wait() {
  if (process_ > 0) ::waitpid(process_, nullptr, 0);
  process_ = -1;
}

pid_t Process::Child() const {
  std::ifstream file(fmt::format("/proc/{0}/task/{0}/children", process_));
  pid_t child = 0;
  if (!(file >> child)) throw std::runtime_error("the guard has no host");
  return child;
}

std::chrono::steady_clock::time_point Process::ReadTime() const {
  std::chrono::steady_clock::time_point time;
  if (::read(output_, &time, sizeof(time)) != sizeof(time)) {
    throw std::runtime_error("the host has died");
  }
  return time;
}
