// Which file and function a sink of the library's log is told for each line.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "log/logger.h"

// Listens from construction to destruction. No other thread may log while either happens.
class LogSources {
 public:
  LogSources() : sink_(std::make_shared<Sink>()) { Sinks().push_back(sink_); }
  ~LogSources() { Sinks().pop_back(); }
  LogSources(const LogSources&) = delete;
  LogSources& operator=(const LogSources&) = delete;

  // "file function" of each line so far.
  std::vector<std::string> Heard() { return sink_->Heard(); }

 private:
  class Sink : public spdlog::sinks::base_sink<std::mutex> {
   public:
    std::vector<std::string> Heard() {
      const std::lock_guard<std::mutex> lock(mutex_);
      return heard_;
    }

   protected:
    void sink_it_(const spdlog::details::log_msg& message) override {
      heard_.push_back(std::string(message.source.filename) + " " + message.source.funcname);
    }
    void flush_() override {}

   private:
    std::vector<std::string> heard_;
  };

  static std::vector<spdlog::sink_ptr>& Sinks() {
    return corvel::Logger::Instance("spdlog").logger->sinks();
  }

  std::shared_ptr<Sink> sink_;
};
