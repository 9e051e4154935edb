#include "logger.h"

#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/sinks/systemd_sink.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace corvel {
namespace {

// Reads a variable that may only be "true" or "false"; anything else is reported once and replaced.
bool ReadSwitch(const char* variable, bool fallback) {
  const char* value = std::getenv(variable);
  if (value != nullptr && std::string(value) == "true") {
    return true;
  }
  if (value != nullptr && std::string(value) == "false") {
    return false;
  }
  std::cout << "environment variable " << variable
            << (value == nullptr ? " is not set" : " is invalid") << ", and set "
            << (fallback ? "true" : "false") << std::endl;
  return fallback;
}

spdlog::level::level_enum ReadLevel() {
  const std::map<std::string, spdlog::level::level_enum> levels = {
      {"trace", spdlog::level::trace}, {"debug", spdlog::level::debug},
      {"info", spdlog::level::info},   {"warning", spdlog::level::warn},
      {"error", spdlog::level::err},   {"critical", spdlog::level::critical},
  };
  const char* value = std::getenv("SPDLOG_LEVEL");
  if (value == nullptr) {
    std::cout << "environment variable SPDLOG_LEVEL is not set, and set default level" << std::endl;
    return spdlog::level::info;
  }
  try {
    return levels.at(value);
  } catch (const std::out_of_range&) {
    std::cout << "environment variable SPDLOG_LEVEL is invalid, and set default level" << std::endl;
    return spdlog::level::info;
  }
}

const char* Tag(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::debug:
      return "[DEBUG]";
    case spdlog::level::info:
      return "[INFO]";
    case spdlog::level::warn:
      return "[WARN]";
    default:
      return "[ERROR]";
  }
}

}  // namespace

Logger& Logger::Instance(const std::string& name) {
  static Logger instance(name);
  return instance;
}

Logger::Logger(const std::string& name) {
  // A sink that cannot be made must not stop the host: what was stored so far stands.
  try {
    std::vector<spdlog::sink_ptr> sinks;
    if (ReadSwitch("SPDLOG_STDOUT", true)) {
      sinks.push_back(std::make_shared<spdlog::sinks::ansicolor_stdout_sink_mt>());
    }
    if (ReadSwitch("SPDLOG_SYSTEMD", false)) {
      sinks.push_back(std::make_shared<spdlog::sinks::systemd_sink<std::mutex>>());
    }
    // Without any sink every line is dropped: deliberate, it is how a host silences the library.
    logger = std::make_shared<spdlog::logger>(name, sinks.begin(), sinks.end());
    const spdlog::level::level_enum chosen = ReadLevel();
    level = static_cast<std::int32_t>(chosen);
    logger->set_level(chosen);
    logger->set_pattern("%v");
  } catch (const spdlog::spdlog_ex&) {  // NOLINT(bugprone-empty-catch): see above
  }
}

void LogLine(spdlog::level::level_enum level, const spdlog::source_loc& location,
             const std::string& message) {
  Logger& record = Logger::Instance("spdlog");
  const std::shared_ptr<spdlog::logger> logger = record.logger;
  std::uint8_t number = record.sequence.load(std::memory_order_relaxed);
  if (record.level <= static_cast<std::int32_t>(level)) {
    ++number;
    record.sequence.store(number, std::memory_order_relaxed);
  }
  if (logger == nullptr) {
    return;
  }
  logger->log(location, level,
              fmt::format(FMT_STRING("{0:3d} {1} "), number & 0x7F, Tag(level)) + message);
}

}  // namespace corvel
