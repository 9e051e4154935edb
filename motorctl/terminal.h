// Outputs that neither mix nor hold anything up.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <thread>

#include "context.h"

namespace motorctl {

// While it exists, what anything but Context writes to standard output is kept in memory: the
// library's log and the fixed texts of its set-ups must not mix with data. One at a time; made
// before any thread.
class LibraryOutput {
 public:
  LibraryOutput();
  ~LibraryOutput();
  LibraryOutput(const LibraryOutput&) = delete;
  LibraryOutput& operator=(const LibraryOutput&) = delete;

  // What the library wrote since the last call.
  static std::string Take();
};

// Standard output as the caller gave it to us.
int DataDescriptor();

// Writes texts in order, on a thread of its own.
class Writer {
 public:
  // `write` may wait; it throws CommandFailed when nobody reads any more, which ends all writing.
  // `most`: as many texts wait.
  explicit Writer(std::function<void(const std::string&)> write,
                  std::size_t most = std::numeric_limits<std::size_t>::max());
  // Waits until everything is written.
  ~Writer();
  // Waits so long, and gives up what is not written by then. Nothing may be pushed after it.
  void End(std::chrono::milliseconds longest);

  // False when it is not taken.
  bool Push(std::string text);
  // False when that takes longer.
  bool AwaitIdle(std::chrono::milliseconds longest);
  bool Failed();

 private:
  void Run();

  std::function<void(const std::string&)> write_;
  const std::size_t most_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::string> waiting_;  // the first one is being written
  bool ended_ = false;
  bool failed_ = false;
  std::thread thread_;  // last: it uses the rest
};

// A terminal held by Ctrl-S, or a reader that does not read, must not hold up a loop that commands
// a wheel; and data that nobody reads must not hold up what a person has to know. So standard
// output and standard error have a thread each.
class BackgroundOutput {
 public:
  explicit BackgroundOutput(const Context& context);

  void Write(const std::string& text) { data_.Push(text); }
  void Line(const std::string& text) { data_.Push(text + '\n'); }
  // Drops `text` when the writer is behind: for what is drawn anew anyway.
  void Draw(const std::string& text) {
    if (data_.AwaitIdle(std::chrono::milliseconds(0))) data_.Push(text);
  }
  // After the data before it where they are read at once, and without them otherwise.
  void Say(const std::string& text) { status_.Push(text); }

  // Nobody reads standard output any more.
  bool Failed() { return data_.Failed(); }

 private:
  Writer data_;
  Writer status_;  // goes first: it waits for the data
};

}  // namespace motorctl
