// What the logger and the console give to the relay instead of writing it themselves.
#pragma once

#include <pthread.h>

#include <functional>
#include <string>

namespace corvel {

// Cheap; may have changed by the time of PutAside(), which decides.
bool IsRelayed();

// Has `write` called by the relay's thread, after everything put aside before. False when there is
// no relay: the caller writes by itself. Never waits for an output; what does not fit is dropped.
bool PutAside(std::function<void()> write);

// For the relay's thread. Past FILE*, whose lock a thread of the host may hold that waits for the
// same output. What the output does not take because it is gone is lost.
void WriteTo(int descriptor, const std::string& text);

// While this lives, the relay may end the calling thread inside a system call that waits.
// Everything in its scope must stand being unwound.
class MayEndHere {
 public:
  MayEndHere() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous_); }
  ~MayEndHere() { pthread_setcancelstate(previous_, nullptr); }
  MayEndHere(const MayEndHere&) = delete;
  MayEndHere& operator=(const MayEndHere&) = delete;

 private:
  int previous_ = 0;
};

}  // namespace corvel
