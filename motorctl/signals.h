// Signals that ask a command to end, taken where the command wants them and nowhere else.
#pragma once

#include <signal.h>

namespace motorctl {

// While it exists, every signal that would end or stop the process waits instead, Ctrl-Z and
// Ctrl-\ included: a process that is stopped cannot stop a wheel. To be made before any thread is
// started. Only SIGKILL, SIGSTOP and the signals of a crash keep their effect.
class EndSignals {
 public:
  EndSignals() {
    sigfillset(&signals_);
    for (const int harmless : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGCHLD,
                               SIGCONT, SIGURG, SIGWINCH, SIGPIPE, SIGTTIN, SIGTTOU}) {
      sigdelset(&signals_, harmless);
    }
    // In the background of a terminal, writing to it would stop the process.
    previous_output_ = ::signal(SIGTTOU, SIG_IGN);
    ::sigprocmask(SIG_BLOCK, &signals_, &previous_);
  }
  ~EndSignals() {
    Arrived();  // one that still waits must not end the process now
    ::sigprocmask(SIG_SETMASK, &previous_, nullptr);
    ::signal(SIGTTOU, previous_output_);
  }
  EndSignals(const EndSignals&) = delete;
  EndSignals& operator=(const EndSignals&) = delete;

  // Whether one has arrived, now or earlier. Does not wait.
  bool Arrived() {
    const timespec no_wait = {0, 0};
    for (int signal = 0; (signal = ::sigtimedwait(&signals_, nullptr, &no_wait)) > 0;) {
      arrived_ = true;
      suspend_ = suspend_ || signal == SIGTSTP;
    }
    return arrived_;
  }

  // Whether Ctrl-Z was among them, which is expected to suspend, and does not.
  bool suspend() const { return suspend_; }

 private:
  sigset_t signals_ = {};
  sigset_t previous_ = {};
  sighandler_t previous_output_ = SIG_DFL;
  bool arrived_ = false;
  bool suspend_ = false;
};

}  // namespace motorctl
