#include "guarded_command.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <system_error>
#include <thread>

namespace motorctl {
namespace {

constexpr auto kBetweenLooks = std::chrono::milliseconds(1);

std::vector<char*> Pointers(const std::vector<std::string>& words) {
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  // execve() takes them so and changes nothing.
  for (const std::string& word : words) pointers.push_back(const_cast<char*>(word.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

int StatusOf(const siginfo_t& info) {
  return info.si_code == CLD_EXITED ? info.si_status : GuardedCommand::kBySignal + info.si_status;
}

bool Ends(int signal) {
  return signal == SIGINT || signal == SIGTERM || signal == SIGHUP || signal == SIGQUIT;
}

}  // namespace

GuardedCommand::GuardedCommand() {
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const int terminal = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (terminal < 0) return;
  if (::tcgetpgrp(terminal) == ::getpgrp()) {
    terminal_ = terminal;
  } else {
    ::close(terminal);
  }
}

GuardedCommand::~GuardedCommand() {
  TakeTerminal();
  if (terminal_ >= 0) ::close(terminal_);
}

int GuardedCommand::Start(const Plan& plan) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    throw std::system_error(errno, std::generic_category(), "pipe");
  }
  const pid_t parent = ::getpid();
  pid_ = ::fork();
  if (pid_ == 0) Become(plan, ends[1], parent);
  const int fork_error = errno;
  ::close(ends[1]);
  if (pid_ < 0) {
    ::close(ends[0]);
    throw std::system_error(fork_error, std::generic_category(), "fork");
  }
  // Its end closes when the program is executed.
  int failure = 0;
  ssize_t bytes = 0;
  do {
    bytes = ::read(ends[0], &failure, sizeof(failure));
  } while (bytes < 0 && errno == EINTR);
  ::close(ends[0]);
  if (bytes != sizeof(failure)) failure = 0;
  if (failure != 0) {
    ::waitpid(pid_, nullptr, 0);
    TakeTerminal();
    return failure;
  }
  state_ = State::kRunning;
  return 0;
}

// Another thread may have held any lock at the time of the fork: system calls only.
void GuardedCommand::Become(const Plan& plan, int failure_pipe, pid_t parent) {
  // Before the mask opens: the group gets signals of the terminal from then on.
  ::setpgid(0, 0);
  if (terminal_ >= 0) ::tcsetpgrp(terminal_, ::getpid());
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  // It may have died before it could be told.
  if (::getppid() != parent) ::_exit(0);
  ::dup2(plan.output, STDOUT_FILENO);
  ::signal(SIGPIPE, SIG_DFL);
  ::sigprocmask(SIG_SETMASK, &plan.signal_mask, nullptr);
  const std::vector<char*> words = Pointers(plan.words);
  const std::vector<char*> environment = Pointers(plan.environment);
  ::execvpe(words.front(), words.data(), environment.data());
  const int failure = errno;
  [[maybe_unused]] const ssize_t written = ::write(failure_pipe, &failure, sizeof(failure));
  ::_exit(0);
}

void GuardedCommand::Pass(int signal) {
  if (state_ == State::kEnded) return;
  if (signal == SIGCONT) GiveTerminal(pid_);
  ::kill(-pid_, signal);
  // What is stopped would keep it until it is continued.
  if (state_ == State::kStopped && Ends(signal)) ::kill(-pid_, SIGCONT);
}

GuardedCommand::State GuardedCommand::Look() {
  siginfo_t info = {};
  while (::waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WCONTINUED | WNOHANG) == 0 &&
         info.si_pid != 0) {
    state_ = info.si_code == CLD_CONTINUED ? State::kRunning : State::kStopped;
    if (state_ == State::kRunning) {
      GiveTerminal(pid_);
    } else {
      TakeTerminal();  // so that a person can end it, or let it go on
    }
    info = {};
  }
  // Left in the process table, so that its group keeps its number until everything in it has ended.
  while (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0) {
    if (info.si_pid == pid_) {
      status_ = StatusOf(info);
      state_ = State::kEnded;
      return state_;
    }
    ::waitpid(info.si_pid, nullptr, WNOHANG);
    info = {};
  }
  return state_;
}

bool GuardedCommand::EndAll(std::chrono::milliseconds limit, bool& found) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  found = false;
  if (pid_ > 0) ::kill(-pid_, SIGKILL);
  for (;;) {
    siginfo_t info = {};
    while (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0) {
      if (info.si_pid == pid_) {
        if (state_ != State::kEnded) status_ = StatusOf(info);
        state_ = State::kEnded;
        pid_ = -1;
        TakeTerminal();
      }
      ::waitpid(info.si_pid, nullptr, WNOHANG);
      info = {};
    }
    // Nothing below this process: orphans would have come to it.
    if (::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD) {
      return true;
    }
    // Only its own children, whose numbers nobody else can have got meanwhile; theirs come next.
    for (const pid_t child : ChildrenOf(::getpid())) {
      found = true;
      ::kill(child, SIGKILL);
    }
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

void GuardedCommand::GiveTerminal(pid_t group) {
  if (terminal_ >= 0 && group > 0 && ::tcgetpgrp(terminal_) == ::getpgrp()) {
    ::tcsetpgrp(terminal_, group);
  }
}

void GuardedCommand::TakeTerminal() {
  if (terminal_ >= 0) ::tcsetpgrp(terminal_, ::getpgrp());
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
  std::vector<pid_t> children;
  const std::unique_ptr<DIR, int (*)(DIR*)> processes(::opendir("/proc"), ::closedir);
  if (processes == nullptr) return children;
  while (const dirent* const entry = ::readdir(processes.get())) {
    const long process = std::strtol(entry->d_name, nullptr, 10);
    if (process <= 0) continue;
    std::ifstream file("/proc/" + std::string(entry->d_name) + "/stat");
    std::string text;
    std::getline(file, text, '\0');
    // "PID (NAME) STATE PPID ...", where the name may hold anything.
    const std::size_t name_end = text.rfind(')');
    if (name_end == std::string::npos) continue;
    std::istringstream rest(text.substr(name_end + 1));
    char state = ' ';
    pid_t its_parent = 0;
    if (rest >> state >> its_parent && its_parent == parent && state != 'Z') {
      children.push_back(static_cast<pid_t>(process));
    }
  }
  return children;
}

}  // namespace motorctl
