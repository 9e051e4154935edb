// The outputs of what goes on whatever becomes of them.
#pragma once

#include <atomic>
#include <cstddef>
#include <string>

#include "terminal.h"

namespace motorctl {

// Held by Ctrl-S, a pipe that nobody reads, a full disk: nothing waits for them, and it ends in time.
// What they do not take is dropped, and said once they take something again. For one thread; a
// process that was forked has to make one of its own.
class LastingOutput {
 public:
  explicit LastingOutput(const Context& context);
  // What waits has a moment more.
  ~LastingOutput();
  LastingOutput(const LastingOutput&) = delete;
  LastingOutput& operator=(const LastingOutput&) = delete;

  void Line(const std::string& text);
  void Say(const std::string& text);

  // The reader of standard output has gone away.
  bool NobodyReads() { return data_.Failed(); }

 private:
  void TellLost();

  std::atomic<std::size_t> lost_lines_{0};
  std::size_t lost_status_ = 0;
  Writer data_;
  Writer status_;
};

}  // namespace motorctl
