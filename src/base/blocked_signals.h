// Signals belong to the host: the threads of the library take none.
#pragma once

#include <pthread.h>
#include <signal.h>

// Threads inherit the mask of their creator: while this lives, only the faults a thread causes
// itself stay deliverable, so that a host's handlers run on the host's threads alone.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
      sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &previous_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t previous_ = {};
};
