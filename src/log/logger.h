// The process-wide logger and the four macros that every log line of the library goes through.
#pragma once

#include <fmt/format.h>
#include <spdlog/logger.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "base/export.h"

namespace corvel {

// One record per process, made by the first log statement from SPDLOG_STDOUT, SPDLOG_SYSTEMD and
// SPDLOG_LEVEL. It never changes afterwards, whatever happens to the environment.
class CORVEL_EXPORT Logger {
 public:
  // The one record; `name` counts only in the call that creates it. Any thread may call.
  static Logger& Instance(const std::string& name);

  // Writes one line: number, tag and message. `message` is data, braces in it are not interpreted.
  static void Line(spdlog::level::level_enum level, const spdlog::source_loc& location,
                   const std::string& message);

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  std::shared_ptr<spdlog::logger> logger;
  // Every logging thread counts it up with a separate load and store: two lines may share a number
  // or skip one, which is accepted. Atomic only so that the race is harmless.
  std::atomic<std::uint8_t> sequence{0};
  std::int32_t level = 2;

 private:
  CORVEL_LOCAL explicit Logger(const std::string& name);
};

// `checked_text` is the literal `text` as FMT_STRING made it: the compiler holds it against the
// arguments. It comes twice because a standard macro cannot take a list apart that may be empty.
template <typename CheckedText, typename... Args>
std::string FormatMessage(const CheckedText& checked_text, const char* /*text*/,
                          const Args&... args) {
  return fmt::format(checked_text, args...);
}

}  // namespace corvel

// Format text and arguments as for fmt. __FILE__ is relative to the repository root, see the prefix
// map in src/CMakeLists.txt.
#define CORVEL_LOG_DEBUG(...) CORVEL_LOG_AT(::spdlog::level::debug, __VA_ARGS__)
#define CORVEL_LOG_INFO(...) CORVEL_LOG_AT(::spdlog::level::info, __VA_ARGS__)
#define CORVEL_LOG_WARN(...) CORVEL_LOG_AT(::spdlog::level::warn, __VA_ARGS__)
#define CORVEL_LOG_ERROR(...) CORVEL_LOG_AT(::spdlog::level::err, __VA_ARGS__)

#define CORVEL_LOG_AT(level, ...)                                \
  ::corvel::Logger::Line(                                        \
      level, ::spdlog::source_loc{__FILE__, __LINE__, __func__}, \
      ::corvel::FormatMessage(FMT_STRING(CORVEL_FIRST(__VA_ARGS__, 0)), __VA_ARGS__))
#define CORVEL_FIRST(first, ...) first
