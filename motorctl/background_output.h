// Output that never makes its caller wait.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "context.h"

namespace motorctl {

// A terminal held by Ctrl-S, or a reader that does not read, must not hold up a loop that has a
// wheel to stop: a thread of its own writes, in order, what it is given.
class BackgroundOutput {
 public:
  explicit BackgroundOutput(const Context& context)
      : context_(context), thread_([this] { Run(); }) {}

  // Waits until everything is written.
  ~BackgroundOutput() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ended_ = true;
    }
    changed_.notify_one();
    thread_.join();
  }

  void Write(const std::string& text) { Push({text, false}); }
  void Line(const std::string& text) { Push({text + '\n', false}); }
  void Say(const std::string& text) { Push({text, true}); }

  // Drops `text` when the writer is behind: for what is drawn anew anyway.
  void Draw(const std::string& text) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!waiting_.empty()) return;
    }
    Write(text);
  }

  // Nobody reads standard output any more.
  bool Failed() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return failed_;
  }

 private:
  struct Item {
    std::string text;
    bool is_status;
  };

  void Push(Item item) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      waiting_.push_back(std::move(item));
    }
    changed_.notify_one();
  }

  void Run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return ended_ || !waiting_.empty(); });
      if (waiting_.empty()) return;
      const Item item = std::move(waiting_.front());
      waiting_.pop_front();
      const bool skip = failed_ && !item.is_status;
      lock.unlock();
      bool written = true;
      if (!skip) {
        try {
          item.is_status ? context_.Say(item.text) : context_.Write(item.text);
        } catch (const CommandFailed&) {
          written = false;
        }
      }
      lock.lock();
      failed_ = failed_ || !written;
    }
  }

  const Context& context_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Item> waiting_;
  bool ended_ = false;
  bool failed_ = false;
  std::thread thread_;  // last: it uses the rest
};

}  // namespace motorctl
