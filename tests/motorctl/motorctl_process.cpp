#include "motorctl_process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "processes.h"

Process::Process(const Arguments& arguments, Output output, const std::string& path,
                 const Arguments& variables) {
  Arguments words = {MOTORCTL};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::string search = "PATH=" + (path.empty() ? "" : path + ":") + "/usr/sbin:/usr/bin:/sbin:/bin";
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
  child_ = output == Output::kTerminal ? ::forkpty(&terminal_, nullptr, nullptr, &size) : ::fork();
  if (child_ == 0) {
    if (output != Output::kTerminal) {
      ::dup2(nothing, 0);
      ::dup2(out_, 1);
      ::dup2(err_, 2);
    }
    ::setpriority(PRIO_PROCESS, 0, 0);  // starting it keeps a processor busy
    ::execve(MOTORCTL, argv.data(), environment.data());
    ::_exit(127);
  }
  ::close(nothing);
  EXPECT_GT(child_, 0);
}

Process::~Process() {
  if (child_ > 0) {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  for (const int descriptor : {out_, err_, terminal_, unread_}) {
    if (descriptor >= 0) ::close(descriptor);
  }
}

std::string Process::Out() {
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

std::string Process::Err() { return support::ReadWhole(err_); }

void Process::Type(const std::string& text) {
  EXPECT_EQ(::write(terminal_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void Process::Signal(int signal) { ::kill(child_, signal); }

int Process::Wait() {
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

int Process::FullPipe() {
  int ends[2] = {};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  unread_ = ends[0];
  while (::write(ends[1], "x", 1) == 1) {
  }
  ::fcntl(ends[1], F_SETFL, 0);
  return ends[1];
}

int Process::ClosedPipe() {
  int ends[2] = {};
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ::close(ends[0]);
  return ends[1];
}

std::vector<Json> Result::Objects() const {
  std::vector<Json> objects;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    Json object = Json::parse(line, nullptr, false);
    EXPECT_TRUE(object.is_object()) << line;
    if (object.is_object()) objects.push_back(std::move(object));
  }
  return objects;
}

Result Motorctl(const Arguments& arguments, const std::string& path, const Arguments& variables) {
  Process process(arguments, Output::kFile, path, variables);
  Result result;
  result.status = process.Wait();
  result.out = process.Out();
  result.err = process.Err();
  return result;
}
