#include "output_relay.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "base/blocked_signals.h"
#include "logger.h"
#include "relay.h"

namespace {

constexpr std::size_t kCapacity = 1024;
constexpr auto kFarewell = std::chrono::milliseconds(100);

using Entries = std::vector<std::function<void()>>;

std::atomic<bool> g_relayed{false};  // Relay::active_, to be read without the lock
thread_local bool t_is_writer = false;

// What the host printed before comes first, but nothing waits for that: an output with room takes
// the buffer of its FILE whole.
void FlushStandardOutput() {
  pollfd output = {STDOUT_FILENO, POLLOUT, 0};
  if (::poll(&output, 1, 0) == 1 && output.revents == POLLOUT && ::ftrylockfile(stdout) == 0) {
    ::fflush_unlocked(stdout);
    ::funlockfile(stdout);
  }
}

class Relay {
 public:
  // Never destroyed: the end of the process must not wait for a writer that waits for an output.
  static Relay& Instance() {
    static Relay& instance = *std::make_unique<Relay>().release();
    return instance;
  }

  void Acquire();
  void Release();
  bool PutAside(std::function<void()> write);

 private:
  void Write();

  std::mutex users_mutex_;  // users_, writer_: for the whole of a beginning or an end
  int users_ = 0;
  std::thread writer_;

  std::mutex mutex_;  // what follows
  bool active_ = false;
  bool ending_ = false;
  Entries queue_;  // has its memory from the beginning, so that adding takes none under the lock
  std::size_t dropped_ = 0;
  std::condition_variable wake_;
  std::condition_variable ended_;

  Entries batch_;  // the writer's own
};

void Relay::Acquire() {
  const std::lock_guard<std::mutex> users_lock(users_mutex_);
  if (users_ == 0) {
    FlushStandardOutput();
    queue_.reserve(kCapacity);
    batch_.reserve(kCapacity + 1);  // and the line about what was dropped
    ending_ = false;
    const BlockedSignals inherited_by_the_thread;
    writer_ = std::thread(&Relay::Write, this);
    const std::lock_guard<std::mutex> lock(mutex_);
    active_ = true;
    g_relayed = true;
  }
  ++users_;
}

void Relay::Release() {
  const std::lock_guard<std::mutex> users_lock(users_mutex_);
  if (--users_ > 0) {
    return;
  }
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ending_ = true;
    wake_.notify_one();
    if (!ended_.wait_for(lock, kFarewell, [this] { return !active_; })) {
      pthread_cancel(writer_.native_handle());
    }
  }
  writer_.join();
  batch_.clear();
  Entries lost;  // declared before the lock, so freed after its release
  const std::lock_guard<std::mutex> lock(mutex_);
  active_ = false;
  g_relayed = false;
  queue_.swap(lost);
  dropped_ = 0;
}

bool Relay::PutAside(std::function<void()> write) {
  if (t_is_writer) {
    batch_.push_back(std::move(write));
    return true;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!active_) {
      return false;
    }
    if (queue_.size() == kCapacity) {
      ++dropped_;
      return true;
    }
    queue_.push_back(std::move(write));
  }
  wake_.notify_one();
  return true;
}

void Relay::Write() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  t_is_writer = true;
  for (;;) {
    std::size_t dropped = 0;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [this] { return !queue_.empty() || ending_; });
      if (queue_.empty()) {
        active_ = false;
        g_relayed = false;
        ended_.notify_one();
        return;
      }
      queue_.swap(batch_);
      dropped = std::exchange(dropped_, 0);
    }
    if (dropped > 0) {
      // Goes to the end of the batch, which is where the dropped ones would have followed.
      CORVEL_LOG_WARN("{} lines dropped, the output was held up", dropped);
    }
    // NOLINTNEXTLINE(modernize-loop-convert): a sink that logs adds to the batch
    for (std::size_t i = 0; i < batch_.size(); ++i) {
      const std::function<void()> write = std::move(batch_[i]);
      write();
    }
    batch_.clear();
  }
}

}  // namespace

namespace corvel {

bool IsRelayed() { return g_relayed; }

bool PutAside(std::function<void()> write) {
  return g_relayed && Relay::Instance().PutAside(std::move(write));
}

void WriteTo(int descriptor, const std::string& text) {
  const MayEndHere here;
  std::string_view rest = text;
  while (!rest.empty()) {
    pollfd output = {descriptor, POLLOUT, 0};
    ::poll(&output, 1, -1);
    // A pipe that is ready takes this much without waiting.
    const ssize_t written =
        ::write(descriptor, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
    if (written > 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EAGAIN && errno != EINTR) {
      return;
    }
  }
}

}  // namespace corvel

namespace motor_driver {

OutputRelay::OutputRelay() { Relay::Instance().Acquire(); }

OutputRelay::~OutputRelay() { Relay::Instance().Release(); }

}  // namespace motor_driver
