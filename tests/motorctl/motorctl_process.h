// motorctl as a user meets it: a process with its outputs, on a pipe or on a terminal.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "eventually.h"
#include "makes.h"

using Json = nlohmann::json;
using Arguments = std::vector<std::string>;

// Four walks through all objects of a drive, side by side, take a minute.
constexpr auto kLongest = std::chrono::seconds(150);
// The process under test needs the processor more than who looks at it.
constexpr auto kPause = std::chrono::milliseconds(10);

// kFullPipe: standard output is a pipe that nobody reads and that takes nothing any more.
// kClosedPipe: its reader has gone away.
enum class Output { kFile, kTerminal, kFullPipe, kClosedPipe };

class Process {
 public:
  // `path`: searched for programs before the usual places. `variables`: "NAME=VALUE".
  explicit Process(const Arguments& arguments, Output output = Output::kFile,
                   const std::string& path = "", const Arguments& variables = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Everything so far; on a terminal both outputs together.
  std::string Out();
  std::string Err();

  void Type(const std::string& text);
  pid_t pid() const { return child_; }
  void Signal(int signal);

  // The exit status, -1 when a signal ended it. Fails the test when it does not end.
  int Wait();

 private:
  // Its end for writing; the other one is kept and not read.
  int FullPipe();

  static int ClosedPipe();

  pid_t child_ = -1;
  bool is_read_ = true;
  int unread_ = -1;
  int out_ = -1;
  int err_ = -1;
  int terminal_ = -1;
  std::string shown_;
};

struct Result {
  int status = -1;
  std::string out;
  std::string err;

  // Every line of standard output is one object.
  std::vector<Json> Objects() const;
};

Result Motorctl(const Arguments& arguments, const std::string& path = "",
                const Arguments& variables = {});

// As long as a process may take.
template <typename Condition>
bool Eventually(Condition condition) {
  return support::Eventually(condition, kLongest, kPause);
}

inline bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline std::string MakeName(const ::testing::TestParamInfo<tested::Make>& info) {
  return info.param.name;
}
