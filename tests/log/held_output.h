// An output that nobody reads: a terminal held by Ctrl-S, a pager that waits, a full pipe.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <string>

// While this lives, the descriptor leads into a pipe without room.
class HeldOutput {
 public:
  explicit HeldOutput(int descriptor) : descriptor_(descriptor), saved_(::dup(descriptor)) {
    EXPECT_EQ(::pipe2(pipe_, O_CLOEXEC), 0);
    ::fcntl(pipe_[1], F_SETFL, O_NONBLOCK);
    const std::string block(4096, '-');
    for (std::size_t size = block.size(); size > 0; size /= 16) {
      while (::write(pipe_[1], block.data(), size) > 0) {
        filling_ += size;
      }
    }
    ::fcntl(pipe_[1], F_SETFL, 0);
    ::dup2(pipe_[1], descriptor_);
    ::close(pipe_[1]);
  }
  ~HeldOutput() {
    ::dup2(saved_, descriptor_);
    ::close(saved_);
    CloseReader();
  }
  HeldOutput(const HeldOutput&) = delete;
  HeldOutput& operator=(const HeldOutput&) = delete;

  // Begins to read: what was written since the last call, until it ends with this text or nothing
  // has come for two seconds.
  std::string Read(const std::string& end) {
    std::string text;
    const auto ended = [&] {
      return text.size() >= end.size() &&
             text.compare(text.size() - end.size(), end.size(), end) == 0;
    };
    pollfd output = {pipe_[0], POLLIN, 0};
    while (!ended() && ::poll(&output, 1, 2000) == 1) {
      char buffer[4096];
      const ssize_t bytes = ::read(pipe_[0], buffer, sizeof(buffer));
      if (bytes <= 0) {
        break;
      }
      text.append(buffer, static_cast<std::size_t>(bytes));
      const std::size_t cut = std::min(filling_, text.size());
      text.erase(0, cut);
      filling_ -= cut;
    }
    return text;
  }

  // Writing is an error from now on.
  void CloseReader() {
    if (pipe_[0] >= 0) {
      ::close(pipe_[0]);
      pipe_[0] = -1;
    }
  }

 private:
  int descriptor_;
  int saved_;
  int pipe_[2] = {-1, -1};
  std::size_t filling_ = 0;
};
