// A process of the guard's benchmark; ends with this object at the latest.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

// Where it writes times; what the library prints goes to standard output.
constexpr int kTimeDescriptor = 3;

class Process {
 public:
  // Its output goes nowhere. Throws std::runtime_error.
  explicit Process(std::vector<std::string> words);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t id() const { return process_; }
  // Throws std::runtime_error without one.
  pid_t Child() const;
  void Wait();
  // What a host writes that stopped commanding.
  std::chrono::steady_clock::time_point ReadTime() const;

 private:
  pid_t process_ = -1;
  int output_ = -1;
};
