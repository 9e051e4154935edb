// motorctl as a user meets it: a process with its outputs, on a pipe or on a terminal.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "eventually.h"
#include "makes.h"
#include "processes.h"

using Json = nlohmann::json;
using Arguments = std::vector<std::string>;

constexpr auto kLongest = std::chrono::seconds(60);
// The process under test needs the processor more than who looks at it.
constexpr auto kPause = std::chrono::milliseconds(10);

// kFullPipe: standard output is a pipe that nobody reads and that takes nothing any more.
// kClosedPipe: its reader has gone away.
enum class Output { kFile, kTerminal, kFullPipe, kClosedPipe };

class Process {
 public:
  // `path`: searched for programs before the usual places. `variables`: "NAME=VALUE".
  explicit Process(const Arguments& arguments, Output output = Output::kFile,
                   const std::string& path = "", const Arguments& variables = {}) {
    Arguments words = {MOTORCTL};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    std::string search =
        "PATH=" + (path.empty() ? "" : path + ":") + "/usr/sbin:/usr/bin:/sbin:/bin";
    std::string term = "TERM=xterm";
    Arguments all = variables;
    std::vector<char*> environment = {search.data(), term.data()};
    for (std::string& variable : all) environment.push_back(variable.data());
    environment.push_back(nullptr);
    out_ = output == Output::kFullPipe     ? FullPipe()
           : output == Output::kClosedPipe ? ClosedPipe()
                                           : ::memfd_create("out", MFD_CLOEXEC);
    is_read_ = output == Output::kFile || output == Output::kTerminal;
    err_ = ::memfd_create("err", MFD_CLOEXEC);
    const int nothing = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const winsize size = {24, 80, 0, 0};
    child_ =
        output == Output::kTerminal ? ::forkpty(&terminal_, nullptr, nullptr, &size) : ::fork();
    if (child_ == 0) {
      if (output != Output::kTerminal) {
        ::dup2(nothing, 0);
        ::dup2(out_, 1);
        ::dup2(err_, 2);
      }
      ::execve(MOTORCTL, argv.data(), environment.data());
      ::_exit(127);
    }
    ::close(nothing);
    EXPECT_GT(child_, 0);
  }
  ~Process() {
    if (child_ > 0) {
      ::kill(child_, SIGKILL);
      ::waitpid(child_, nullptr, 0);
    }
    for (const int descriptor : {out_, err_, terminal_, unread_}) {
      if (descriptor >= 0) ::close(descriptor);
    }
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // Everything so far; on a terminal both outputs together.
  std::string Out() {
    if (!is_read_) return "";
    if (terminal_ < 0) return support::ReadWhole(out_);
    pollfd readable = {terminal_, POLLIN, 0};
    char buffer[4096];
    while (::poll(&readable, 1, 0) > 0) {
      const ssize_t bytes = ::read(terminal_, buffer, sizeof(buffer));
      if (bytes <= 0) break;
      shown_.append(buffer, static_cast<std::size_t>(bytes));
    }
    return shown_;
  }
  std::string Err() { return support::ReadWhole(err_); }

  void Type(const std::string& text) {
    EXPECT_EQ(::write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  pid_t pid() const { return child_; }
  void Signal(int signal) { ::kill(child_, signal); }

  // The exit status, -1 when a signal ended it. Fails the test when it does not end.
  int Wait() {
    int status = 0;
    const auto has_ended = [&] {
      Out();  // or it waits for a reader of its terminal
      return ::waitpid(child_, &status, WNOHANG) != 0;
    };
    if (!support::Eventually(has_ended, kLongest, kPause)) {
      ADD_FAILURE() << "motorctl does not end\n" << Out() << Err();
      return -1;
    }
    child_ = -1;
    Out();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  // Its end for writing; the other one is kept and not read.
  int FullPipe() {
    int ends[2] = {};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    unread_ = ends[0];
    while (::write(ends[1], "x", 1) == 1) {
    }
    ::fcntl(ends[1], F_SETFL, 0);
    return ends[1];
  }

  static int ClosedPipe() {
    int ends[2] = {};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    ::close(ends[0]);
    return ends[1];
  }

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
  std::vector<Json> Objects() const {
    std::vector<Json> objects;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      Json object = Json::parse(line, nullptr, false);
      EXPECT_TRUE(object.is_object()) << line;
      if (object.is_object()) objects.push_back(std::move(object));
    }
    return objects;
  }
};

inline Result Motorctl(const Arguments& arguments, const std::string& path = "",
                       const Arguments& variables = {}) {
  Process process(arguments, Output::kFile, path, variables);
  Result result;
  result.status = process.Wait();
  result.out = process.Out();
  result.err = process.Err();
  return result;
}

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
