// The words of a line of a log.
#pragma once

#include <charconv>
#include <cstdint>
#include <string_view>
#include <system_error>

namespace candump {

// Takes the words of a line one after the other.
class LogWords {
 public:
  explicit LogWords(std::string_view line) : rest_(line) {}

  // Empty at the end.
  std::string_view Next() {
    constexpr std::string_view kBlanks = " \t\r";
    std::size_t begin = 0;
    while (begin < rest_.size() && kBlanks.find(rest_[begin]) != std::string_view::npos) ++begin;
    std::size_t end = begin;
    while (end < rest_.size() && kBlanks.find(rest_[end]) == std::string_view::npos) ++end;
    const std::string_view word = rest_.substr(begin, end - begin);
    rest_.remove_prefix(end);
    return word;
  }

  std::string_view rest() const { return rest_; }

 private:
  std::string_view rest_;
};

// The whole text as a number; from_chars takes neither signs of unsigned numbers nor blanks.
template <typename Number>
bool ParseNumber(std::string_view text, int base, Number& number) {
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number, base);
  return error == std::errc() && stop == end;
}

}  // namespace candump
