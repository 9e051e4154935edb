// Logs as told on the command line, in a process whose environment the test chose:
//   debug:TEXT info:TEXT warn:TEXT error:TEXT  one statement, TEXT as the argument of "{}"
//   repeat:N                                   N INFO statements "n"
//   format                                     one INFO statement with every kind of argument used
//   setenv:NAME=VALUE                          changes the environment
//   instance:NAME                              Logger::Instance(NAME)
//   record                                     prints name, level, sequence, number of sinks
//   threads:N                                  N threads, each making the first statement at once
#include <spdlog/spdlog.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "log/logger.h"

namespace {

void PrintRecord() {
  const corvel::Logger& record = corvel::Logger::Instance("some other name");
  std::printf("name %s, level %d, logger level %d, sequence %d, sinks %zu, registered %d\n",
              record.logger->name().c_str(), record.level, record.logger->level(),
              static_cast<int>(record.sequence), record.logger->sinks().size(),
              spdlog::get(record.logger->name()) != nullptr ? 1 : 0);
  std::fflush(stdout);
}

void LogFromThreads(int count) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([] { CORVEL_LOG_INFO("thread"); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void Do(const std::string& command, const std::string& text) {
  if (command == "debug") {
    CORVEL_LOG_DEBUG("{}", text);
  } else if (command == "info") {
    CORVEL_LOG_INFO("{}", text);
  } else if (command == "warn") {
    CORVEL_LOG_WARN("{}", text);
  } else if (command == "error") {
    CORVEL_LOG_ERROR("{}", text);
  } else if (command == "repeat") {
    for (int i = std::stoi(text); i > 0; --i) {
      CORVEL_LOG_INFO("n");
    }
  } else if (command == "format") {
    CORVEL_LOG_INFO("{:#x} {} {:.2f} {} {{}} {:>4}|", 255, -1, 1.0 / 3, "text", 'c');
  } else if (command == "setenv") {
    const std::size_t equals = text.find('=');
    setenv(text.substr(0, equals).c_str(), text.substr(equals + 1).c_str(), 1);
  } else if (command == "instance") {
    corvel::Logger::Instance(text);
  } else if (command == "record") {
    PrintRecord();
  } else if (command == "threads") {
    LogFromThreads(std::stoi(text));
  } else {
    std::exit(2);
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const std::size_t colon = argument.find(':');
    Do(argument.substr(0, colon), colon == std::string::npos ? "" : argument.substr(colon + 1));
  }
}
