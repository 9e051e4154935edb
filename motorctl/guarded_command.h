// The command that is guarded: a process with a group of its own, and whatever it starts.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace motorctl {

class GuardedCommand {
 public:
  struct Plan {
    std::vector<std::string> words;
    std::vector<std::string> environment;
    sigset_t signal_mask = {};
    int output = 1;  // its standard output
  };

  enum class State { kRunning, kStopped, kEnded };

  // What a shell adds to the number of the signal that ended a command.
  static constexpr int kBySignal = 128;

  // Makes this process the parent of every orphan below it.
  GuardedCommand();
  ~GuardedCommand();
  GuardedCommand(const GuardedCommand&) = delete;
  GuardedCommand& operator=(const GuardedCommand&) = delete;

  // 0, or the errno that tells why it cannot be executed. The terminal is its own while it runs,
  // if this process has it. When this process dies, it gets SIGTERM. To be called by the thread
  // that lives longest: the kernel takes the death of that one for the death of the process.
  int Start(const Plan& plan);

  // To the whole group.
  void Pass(int signal);

  // What it does now; collects the orphans that have ended.
  State Look();

  // SIGKILL to its group and to everything else that came from it, for as long as `limit`: then
  // true when nothing is left. `found`: something was still there at the beginning.
  bool EndAll(std::chrono::milliseconds limit, bool& found);

  // Once it has ended: exit status, or kBySignal + signal.
  int status() const { return status_; }
  pid_t pid() const { return pid_; }

 private:
  [[noreturn]] void Become(const Plan& plan, int failure_pipe, pid_t parent);
  void GiveTerminal(pid_t group);
  void TakeTerminal();

  pid_t pid_ = -1;
  State state_ = State::kEnded;
  int status_ = 0;
  int terminal_ = -1;  // where this process has the foreground
};

// Processes whose parent is `parent`, as far as /proc shows them.
std::vector<pid_t> ChildrenOf(pid_t parent);

}  // namespace motorctl
