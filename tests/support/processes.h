// Child processes, and what this process holds.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace support {

struct ProcessResult {
  int exit_status = -1;  // -1 when ended by a signal
  int signal = 0;        // 0 when it exited
  std::string out;
  std::string err;
};

// Runs `body` in a forked child, which exits with 0 after it (or ends as the body ends it). A child
// that takes longer than 30 s is ended by SIGALRM. Exceptions end it by SIGABRT.
ProcessResult RunForked(const std::function<void()>& body);

// Runs a program with exactly this environment.
ProcessResult RunProgram(const std::vector<std::string>& arguments,
                         const std::map<std::string, std::string>& environment);

// Open descriptors of this process.
std::size_t OpenDescriptors();

// Threads of this process.
std::size_t Threads();

// Waits until the process has `count` threads: a joined thread may stay listed for a moment.
bool WaitThreads(std::size_t count);

// Everything in a file, from its beginning; its position stays.
std::string ReadWhole(int descriptor);

}  // namespace support
