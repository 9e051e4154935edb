#include "candump/log_lines.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace candump {
namespace {

// The longest line of a frame that candump writes has some 700 characters: 64 bytes, -i.
constexpr std::size_t kLongestLine = 1024;
constexpr std::size_t kBlock = std::size_t{1} << 16;

}  // namespace

LogLines::LogLines(int log, std::function<void()> idle)
    : log_(log), idle_(std::move(idle)), buffer_(kBlock) {}

bool LogLines::Next(std::string_view& line, bool& cut) {
  std::size_t searched = 0;
  for (;;) {
    const char* const begin = buffer_.data() + begin_;
    const std::size_t size = end_ - begin_;
    const void* const found = std::memchr(begin + searched, '\n', size - searched);
    if (found != nullptr) {
      const auto length = static_cast<std::size_t>(static_cast<const char*>(found) - begin);
      begin_ += length + 1;
      if (std::exchange(skipping_, false)) {
        searched = 0;
        continue;
      }
      cut = length > kLongestLine;
      line = std::string_view(begin, std::min(length, kLongestLine));
      if (!cut && !line.empty() && line.back() == '\r') line.remove_suffix(1);
      return true;
    }
    if (skipping_) begin_ = end_;
    searched = end_ - begin_;
    if (searched > kLongestLine) {
      cut = true;
      line = std::string_view(begin, kLongestLine);
      begin_ = end_;
      skipping_ = true;
      return true;
    }
    if (!ReadMore()) break;
  }
  cut = false;
  whole_ = false;
  line = std::string_view(buffer_.data() + begin_, end_ - begin_);
  begin_ = end_;
  return !line.empty();
}

bool LogLines::ReadMore() {
  std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
            buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
  end_ -= begin_;
  begin_ = 0;
  for (;;) {
    ::pollfd input = {log_, POLLIN, 0};
    if (::poll(&input, 1, 0) == 0) {
      idle_();
      ::poll(&input, 1, -1);
    }
    const ssize_t bytes = ::read(log_, buffer_.data() + end_, buffer_.size() - end_);
    if (bytes >= 0) {
      end_ += static_cast<std::size_t>(bytes);
      return bytes > 0;
    }
    if (errno != EINTR && errno != EAGAIN) {
      throw std::system_error(errno, std::generic_category());
    }
  }
}

}  // namespace candump
