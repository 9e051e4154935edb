#include "processes.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

#include "eventually.h"

namespace support {
namespace {

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WATCHED_BY_A_THREAD 1
#endif
#endif
#if defined(WATCHED_BY_A_THREAD) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kThreadsOfTheSanitizer = 1;
#else
constexpr std::size_t kThreadsOfTheSanitizer = 0;
#endif

constexpr unsigned kLongestChildSeconds = 30;

std::size_t EntriesOf(const char* directory) {
  const std::filesystem::directory_iterator entries(directory);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t ThreadsNow() { return EntriesOf("/proc/self/task") - kThreadsOfTheSanitizer; }

}  // namespace

std::string ReadWhole(int descriptor) {
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t bytes =
        ::pread(descriptor, buffer, sizeof(buffer), static_cast<off_t>(text.size()));
    if (bytes <= 0) {
      return text;
    }
    text.append(buffer, static_cast<std::size_t>(bytes));
  }
}

ProcessResult RunForked(const std::function<void()>& body) {
  std::fflush(nullptr);
  std::cout.flush();
  const int out = ::memfd_create("out", MFD_CLOEXEC);
  const int err = ::memfd_create("err", MFD_CLOEXEC);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(out, 1);
    ::dup2(err, 2);
    ::alarm(kLongestChildSeconds);
    const auto run_or_terminate = [&body]() noexcept { body(); };
    run_or_terminate();
    std::fflush(nullptr);
    std::cout.flush();
#ifdef MOTOR_DRIVER_COVERAGE
    ::close(2);    // whatever the handlers say is not the body's
    std::exit(0);  // whose handlers write the counters
#endif
    ::_exit(0);
  }
  EXPECT_GT(child, 0);
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  ProcessResult result;
  result.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  result.out = ReadWhole(out);
  result.err = ReadWhole(err);
  ::close(out);
  ::close(err);
  return result;
}

ProcessResult RunProgram(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment) {
  std::vector<std::string> variables;
  for (const auto& [name, value] : environment) {
    variables.push_back(name + '=' + value);
  }
  const auto pointers = [](const std::vector<std::string>& texts) {
    std::vector<char*> result;
    for (const std::string& text : texts) {
      result.push_back(const_cast<char*>(text.c_str()));
    }
    result.push_back(nullptr);
    return result;
  };
  const std::vector<char*> argument_pointers = pointers(arguments);
  const std::vector<char*> variable_pointers = pointers(variables);
  return RunForked([&] {
    ::execve(argument_pointers[0], argument_pointers.data(), variable_pointers.data());
    ::_exit(127);
  });
}

std::size_t OpenDescriptors() {
  return EntriesOf("/proc/self/fd") - 1;  // without the one that reads the directory
}

// The kernel lists a thread for a moment after it has been joined.
std::size_t Threads() {
  std::size_t least = ThreadsNow();
  for (int i = 0; i < 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    least = std::min(least, ThreadsNow());
  }
  return least;
}

bool WaitThreads(std::size_t count) {
  return Eventually([count] { return ThreadsNow() == count; }, std::chrono::seconds(1));
}

}  // namespace support
