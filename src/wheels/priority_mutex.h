// A mutex for what threads of different urgency share: whoever holds it is as urgent as whoever
// waits for it, so that a slow thread does not hold up the one that carries motion.
#pragma once

#include <pthread.h>

#include <system_error>

namespace motor_driver {

class PriorityMutex {
 public:
  PriorityMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    const int error = pthread_mutex_init(&mutex_, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (error != 0) {
      throw std::system_error(error, std::generic_category(), "priority mutex");
    }
  }
  ~PriorityMutex() { pthread_mutex_destroy(&mutex_); }
  PriorityMutex(const PriorityMutex&) = delete;
  PriorityMutex& operator=(const PriorityMutex&) = delete;

  void lock() { pthread_mutex_lock(&mutex_); }      // NOLINT(readability-identifier-naming)
  void unlock() { pthread_mutex_unlock(&mutex_); }  // NOLINT(readability-identifier-naming)

 private:
  pthread_mutex_t mutex_ = {};
};

}  // namespace motor_driver
