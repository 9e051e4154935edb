#include "logger.h"

#include <spdlog/details/log_msg_buffer.h>
#include <spdlog/sinks/stdout_color_sinks.h>
#include <spdlog/sinks/systemd_sink.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "relay.h"

namespace corvel {
namespace {

// Hands its lines to the relay while there is one.
class RelayedLogger : public spdlog::logger, public std::enable_shared_from_this<RelayedLogger> {
 public:
  using spdlog::logger::logger;

 protected:
  void sink_it_(const spdlog::details::log_msg& line) override {
    const auto put_aside = [&] {
      return PutAside([self = shared_from_this(), kept = spdlog::details::log_msg_buffer(line)] {
        self->WriteLate(kept);
      });
    };
    if (!IsRelayed() || !put_aside()) {
      spdlog::logger::sink_it_(line);
    }
  }

 private:
  // On the relay's thread.
  void WriteLate(const spdlog::details::log_msg& line) {
    for (const spdlog::sink_ptr& sink : sinks_) {
      if (!sink->should_log(line.level)) {
        continue;
      }
      if (dynamic_cast<spdlog::sinks::ansicolor_stdout_sink_mt*>(sink.get()) != nullptr) {
        WriteTo(STDOUT_FILENO,
                fmt::to_string(line.payload) + "\n");  // what the pattern makes of it
        continue;
      }
      try {
        const MayEndHere here;
        sink->log(line);
      } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
        // The logger would complain on standard error, which may be held as well.
      }
    }
  }
};

void Announce(const std::string& line) {
  if (!PutAside([line] { WriteTo(STDOUT_FILENO, line + "\n"); })) {
    std::cout << line << std::endl;
  }
}

// Reads a variable that may only be "true" or "false"; anything else is reported once and replaced.
bool ReadSwitch(const char* variable, bool fallback) {
  const char* value = std::getenv(variable);
  if (value != nullptr && std::string(value) == "true") {
    return true;
  }
  if (value != nullptr && std::string(value) == "false") {
    return false;
  }
  Announce(std::string("environment variable ") + variable +
           (value == nullptr ? " is not set" : " is invalid") + ", and set " +
           (fallback ? "true" : "false"));
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
    Announce("environment variable SPDLOG_LEVEL is not set, and set default level");
    return spdlog::level::info;
  }
  try {
    return levels.at(value);
  } catch (const std::out_of_range&) {
    Announce("environment variable SPDLOG_LEVEL is invalid, and set default level");
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
    logger = std::make_shared<RelayedLogger>(name, sinks.begin(), sinks.end());
    const spdlog::level::level_enum chosen = ReadLevel();
    level = static_cast<std::int32_t>(chosen);
    logger->set_level(chosen);
    logger->set_pattern("%v");
  } catch (const spdlog::spdlog_ex&) {  // NOLINT(bugprone-empty-catch): see above
  }
}

void Logger::Line(spdlog::level::level_enum level, const spdlog::source_loc& location,
                  const std::string& message) {
  Logger& record = Instance("spdlog");
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
