// The lines of a log, as they come.
#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <vector>

namespace candump {

class LogLines {
 public:
  // `idle` is called before a wait for input.
  LogLines(int log, std::function<void()> idle);

  // False at the end. Without line break. What goes beyond the longest line is dropped and the line
  // marked as cut, so that a file without line breaks does not fill the memory. Throws
  // std::system_error.
  bool Next(std::string_view& line, bool& cut);

  // False when the log ended before the line that was handed out last did.
  bool whole() const { return whole_; }

 private:
  bool ReadMore();

  int log_;
  std::function<void()> idle_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // of what was not handed out yet
  std::size_t end_ = 0;
  bool skipping_ = false;  // the rest of a line that was cut
  bool whole_ = true;
};

}  // namespace candump
