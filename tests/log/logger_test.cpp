// The process-wide logger. It is made once per process, so every case has a process of its own: a
// probe built from the same source, or a forked child that uses the library itself. This process
// never logs.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bus_environment.h"
#include "driver_can.h"
#include "journal.h"
#include "output_capture.h"
#include "processes.h"

namespace {

using Environment = std::map<std::string, std::string>;

constexpr const char* kStdoutNotSet =
    "environment variable SPDLOG_STDOUT is not set, and set true\n";
constexpr const char* kStdoutInvalid =
    "environment variable SPDLOG_STDOUT is invalid, and set true\n";
constexpr const char* kSystemdNotSet =
    "environment variable SPDLOG_SYSTEMD is not set, and set false\n";
constexpr const char* kSystemdInvalid =
    "environment variable SPDLOG_SYSTEMD is invalid, and set false\n";
constexpr const char* kLevelNotSet =
    "environment variable SPDLOG_LEVEL is not set, and set default level\n";
constexpr const char* kLevelInvalid =
    "environment variable SPDLOG_LEVEL is invalid, and set default level\n";

const Environment kQuietDefaults = {
    {"SPDLOG_STDOUT", "true"}, {"SPDLOG_SYSTEMD", "false"}, {"SPDLOG_LEVEL", "info"}};

Environment With(const std::string& variable, const std::string& value) {
  Environment environment = kQuietDefaults;
  environment[variable] = value;
  return environment;
}

Environment Without(const std::string& variable) {
  Environment environment = kQuietDefaults;
  environment.erase(variable);
  return environment;
}

// Standard output of the probe; it must end well and leave standard error empty.
std::string Probe(const Environment& environment, std::vector<std::string> commands) {
  commands.insert(commands.begin(), LOGGER_PROBE);
  const support::ProcessResult result = support::RunProgram(commands, environment);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  return result.out;
}

const std::vector<std::string> kOneOfEach = {"debug:d", "info:i", "warn:w", "error:e"};
constexpr const char* kOneOfEachAtInfo = "  1 [INFO] i\n  2 [WARN] w\n  3 [ERROR] e\n";

TEST(LoggerTest, ReportsEachMissingVariableOnceInOrder) {
  EXPECT_EQ(Probe({}, {"info:first", "info:second"}), std::string(kStdoutNotSet) + kSystemdNotSet +
                                                          kLevelNotSet +
                                                          "  1 [INFO] first\n  2 [INFO] second\n");
}

TEST(LoggerTest, ReportsEachInvalidVariableOnceInOrder) {
  EXPECT_EQ(Probe({{"SPDLOG_STDOUT", "1"}, {"SPDLOG_SYSTEMD", "yes"}, {"SPDLOG_LEVEL", "warn"}},
                  {"info:first", "info:second"}),
            std::string(kStdoutInvalid) + kSystemdInvalid + kLevelInvalid +
                "  1 [INFO] first\n  2 [INFO] second\n");
}

TEST(LoggerTest, IsSilentAboutValidVariables) {
  EXPECT_EQ(Probe(kQuietDefaults, kOneOfEach), kOneOfEachAtInfo);
}

TEST(LoggerTest, StandardOutputMayBeSwitchedOff) {
  EXPECT_EQ(Probe(With("SPDLOG_STDOUT", "false"), kOneOfEach), "");
}

TEST(LoggerTest, StandardOutputStaysOnWhenUnsetOrInvalid) {
  EXPECT_EQ(Probe(Without("SPDLOG_STDOUT"), kOneOfEach),
            std::string(kStdoutNotSet) + kOneOfEachAtInfo);
  for (const char* invalid : {"TRUE", "True", "FALSE", "False", "1", "0", "yes", "no", "on", "",
                              " true", "true ", "truee", "fals"}) {
    EXPECT_EQ(Probe(With("SPDLOG_STDOUT", invalid), kOneOfEach),
              std::string(kStdoutInvalid) + kOneOfEachAtInfo)
        << '"' << invalid << '"';
  }
}

TEST(LoggerTest, TheJournalStaysOffWhenUnsetOrInvalid) {
  EXPECT_EQ(Probe(Without("SPDLOG_SYSTEMD"), {"record"}),
            std::string(kSystemdNotSet) +
                "name some other name, level 2, logger level 2, sequence 0, sinks 1, "
                "registered 0\n");
  for (const char* invalid : {"TRUE", "True", "FALSE", "yes", "1", "0", "", "true\n"}) {
    EXPECT_EQ(Probe(With("SPDLOG_SYSTEMD", invalid), {"info:i", "record"}),
              std::string(kSystemdInvalid) +
                  "  1 [INFO] i\n"
                  "name spdlog, level 2, logger level 2, sequence 1, sinks 1, registered 0\n")
        << '"' << invalid << '"';
  }
}

TEST(LoggerTest, HasTheSinksThatWereAskedFor) {
  for (const auto& [to_stdout, to_journal, sinks] :
       {std::tuple("true", "true", '2'), std::tuple("true", "false", '1'),
        std::tuple("false", "true", '1'), std::tuple("false", "false", '0')}) {
    Environment environment = With("SPDLOG_STDOUT", to_stdout);
    environment["SPDLOG_SYSTEMD"] = to_journal;
    EXPECT_EQ(Probe(environment, {"instance:spdlog", "record"}),
              std::string("name spdlog, level 2, logger level 2, sequence 0, sinks ") + sinks +
                  ", registered 0\n");
  }
}

TEST(LoggerTest, WithoutAnySinkDropsEveryLineAndGoesOnCounting) {
  Environment environment = With("SPDLOG_STDOUT", "false");
  environment["SPDLOG_LEVEL"] = "debug";
  std::vector<std::string> commands = kOneOfEach;
  commands.emplace_back("record");
  EXPECT_EQ(Probe(environment, commands),
            "name spdlog, level 1, logger level 1, sequence 4, sinks 0, registered 0\n");
}

struct LevelCase {
  const char* name;
  const char* output;  // of kOneOfEach
  const char* record;
};

TEST(LoggerTest, EveryLevelNameFiltersLinesAndNumbersTogether) {
  // clang-format off
  const LevelCase cases[] = {
      {"trace",    "  1 [DEBUG] d\n  2 [INFO] i\n  3 [WARN] w\n  4 [ERROR] e\n", "level 0, logger level 0, sequence 4"},
      {"debug",    "  1 [DEBUG] d\n  2 [INFO] i\n  3 [WARN] w\n  4 [ERROR] e\n", "level 1, logger level 1, sequence 4"},
      {"info",                     "  1 [INFO] i\n  2 [WARN] w\n  3 [ERROR] e\n", "level 2, logger level 2, sequence 3"},
      {"warning",                                  "  1 [WARN] w\n  2 [ERROR] e\n", "level 3, logger level 3, sequence 2"},
      {"error",                                                    "  1 [ERROR] e\n", "level 4, logger level 4, sequence 1"},
      {"critical", "",                                                                "level 5, logger level 5, sequence 0"},
  };
  // clang-format on
  std::vector<std::string> commands = kOneOfEach;
  commands.emplace_back("record");
  for (const LevelCase& level : cases) {
    EXPECT_EQ(
        Probe(With("SPDLOG_LEVEL", level.name), commands),
        std::string(level.output) + "name spdlog, " + level.record + ", sinks 1, registered 0\n")
        << level.name;
  }
}

TEST(LoggerTest, AnyOtherLevelNameMeansInfo) {
  EXPECT_EQ(Probe(Without("SPDLOG_LEVEL"), kOneOfEach),
            std::string(kLevelNotSet) + kOneOfEachAtInfo);
  for (const char* invalid : {"warn", "err", "off", "", "TRACE", "Debug", "INFO", "Warning",
                              "ERROR", "Critical", "2", "info ", " info"}) {
    EXPECT_EQ(Probe(With("SPDLOG_LEVEL", invalid), kOneOfEach),
              std::string(kLevelInvalid) + kOneOfEachAtInfo)
        << '"' << invalid << '"';
  }
}

TEST(LoggerTest, NumbersOnlyTheLinesThatPassTheLevel) {
  EXPECT_EQ(Probe(With("SPDLOG_LEVEL", "error"),
                  {"info:a", "error:b", "warn:c", "debug:d", "info:e", "error:f"}),
            "  1 [ERROR] b\n  2 [ERROR] f\n");
}

TEST(LoggerTest, NumbersRunFrom0To127InThreeCharacters) {
  std::string expected;
  for (int i = 1; i <= 300; ++i) {
    char line[32];
    std::snprintf(line, sizeof(line), "%3d [INFO] n\n", i % 128);
    expected += line;
  }
  EXPECT_EQ(Probe(kQuietDefaults, {"repeat:300"}), expected);
}

TEST(LoggerTest, TheStoredCounterWrapsFrom255To0) {
  Environment silent = With("SPDLOG_STDOUT", "false");
  for (const auto& [statements, sequence] :
       {std::pair("127", "127"), std::pair("128", "128"), std::pair("255", "255"),
        std::pair("256", "0"), std::pair("257", "1")}) {
    EXPECT_EQ(Probe(silent, {std::string("repeat:") + statements, "record"}),
              std::string("name spdlog, level 2, logger level 2, sequence ") + sequence +
                  ", sinks 0, registered 0\n");
  }
}

TEST(LoggerTest, KeepsTheNameOfTheFirstCall) {
  EXPECT_EQ(Probe(kQuietDefaults, {"instance:first", "instance:second", "info:i", "record"}),
            "  1 [INFO] i\n"
            "name first, level 2, logger level 2, sequence 1, sinks 1, registered 0\n");
}

TEST(LoggerTest, IgnoresTheEnvironmentOnceItIsMade) {
  EXPECT_EQ(
      Probe(kQuietDefaults, {"info:a", "setenv:SPDLOG_STDOUT=false", "setenv:SPDLOG_LEVEL=critical",
                             "setenv:SPDLOG_SYSTEMD=yes", "debug:b", "info:c", "record"}),
      "  1 [INFO] a\n  2 [INFO] c\n"
      "name spdlog, level 2, logger level 2, sequence 2, sinks 1, registered 0\n");
}

TEST(LoggerTest, FormatsArgumentsAndLeavesTheResultAlone) {
  EXPECT_EQ(Probe(kQuietDefaults, {"format", "info:{} {0} {x} %s %v \\n", "info:"}),
            "  1 [INFO] 0xff -1 0.33 text {}    c|\n"
            "  2 [INFO] {} {0} {x} %s %v \\n\n"
            "  3 [INFO] \n");
}

TEST(LoggerTest, IsMadeOnceWhenManyThreadsLogFirst) {
  const std::string output = Probe({}, {"threads:8"});
  const std::string head = std::string(kStdoutNotSet) + kSystemdNotSet + kLevelNotSet;
  ASSERT_EQ(output.substr(0, head.size()), head);
  std::string lines;
  for (int i = 0; i < 8; ++i) {
    lines += "[INFO] thread\n";
  }
  EXPECT_EQ(support::WithoutNumbers(output.substr(head.size())), lines);
}

TEST(LoggerTest, WritesNoColoursWhereThereIsNoTerminal) {
  Environment environment = kQuietDefaults;
  environment["TERM"] = "xterm-256color";
  environment["COLORTERM"] = "truecolor";
  EXPECT_EQ(Probe(environment, kOneOfEach), kOneOfEachAtInfo);
}

// As Probe(), with a journal that listens; its entries are printed after the probe's own output.
std::string ProbeWithJournal(const Environment& environment, std::vector<std::string> commands) {
  commands.insert(commands.begin(), LOGGER_PROBE);
  const support::ProcessResult result = support::RunForked([&] {
    const Journal journal;
    const support::ProcessResult probe = support::RunProgram(commands, environment);
    std::printf("%s", probe.out.c_str());
    for (const Journal::Entry& entry : journal.Entries()) {
      std::printf("journal: %s|%s|%s\n", entry.at("MESSAGE").c_str(), entry.at("PRIORITY").c_str(),
                  entry.at("CODE_FUNC").c_str());
    }
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  return result.out;
}

TEST(LoggerTest, TheJournalGetsTheSameLinesWithTheirPriority) {
  Environment environment = With("SPDLOG_SYSTEMD", "true");
  environment["SPDLOG_LEVEL"] = "debug";
  EXPECT_EQ(ProbeWithJournal(environment, kOneOfEach),
            "  1 [DEBUG] d\n  2 [INFO] i\n  3 [WARN] w\n  4 [ERROR] e\n"
            "journal:   1 [DEBUG] d|7|Do\n"
            "journal:   2 [INFO] i|6|Do\n"
            "journal:   3 [WARN] w|4|Do\n"
            "journal:   4 [ERROR] e|3|Do\n");
}

TEST(LoggerTest, TheJournalMayBeTheOnlySink) {
  Environment environment = With("SPDLOG_SYSTEMD", "true");
  environment["SPDLOG_STDOUT"] = "false";
  environment["SPDLOG_LEVEL"] = "error";
  EXPECT_EQ(ProbeWithJournal(environment, kOneOfEach), "journal:   1 [ERROR] e|3|Do\n");
}

TEST(LoggerTest, TheJournalGetsNothingUnlessAskedFor) {
  EXPECT_EQ(ProbeWithJournal(With("SPDLOG_SYSTEMD", "false"), kOneOfEach), kOneOfEachAtInfo);
  EXPECT_EQ(ProbeWithJournal(With("SPDLOG_SYSTEMD", "TRUE"), kOneOfEach),
            std::string(kSystemdInvalid) + kOneOfEachAtInfo);
}

std::string SourceLine(const std::string& path, int number) {
  std::ifstream source(path);
  std::string line;
  while (number-- > 0) {
    std::getline(source, line);
  }
  return line;
}

class LibraryLogTest : public bus::BusTest {};

TEST_F(LibraryLogTest, TheJournalGetsTheSourceOfEveryStatement) {
  const support::ProcessResult result = support::RunForked([] {
    setenv("SPDLOG_SYSTEMD", "true", 1);
    const Journal journal;
    { const DriverCan can("can0"); }
    for (const Journal::Entry& entry : journal.Entries()) {
      const std::string file = entry.at("CODE_FILE");
      std::printf("%s|%s|%s|%s\n", entry.at("MESSAGE").c_str(), entry.at("PRIORITY").c_str(),
                  file.c_str(), entry.at("CODE_FUNC").c_str());
      std::printf(
          "%s\n",
          SourceLine(SOURCE_DIR + file.substr(1), std::stoi(entry.at("CODE_LINE"))).c_str());
    }
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out,
            "  1 [INFO] device is can0\n"
            "  2 [INFO] Initializing CAN socket for device: can0\n"
            "  3 [INFO] DriverCan destroyed successfully\n"
            "  1 [INFO] device is can0|6|./src/driver/driver_can.cpp|DriverCan\n"
            "  CORVEL_LOG_INFO(\"device is {}\", device_name_);\n"
            "  2 [INFO] Initializing CAN socket for device: can0|6|./src/driver/driver_can.cpp|"
            "InitCanSocket\n"
            "  CORVEL_LOG_INFO(\"Initializing CAN socket for device: {}\", device_name_);\n"
            "  3 [INFO] DriverCan destroyed successfully|6|./src/driver/driver_can.cpp|~DriverCan\n"
            "  CORVEL_LOG_INFO(\"DriverCan destroyed successfully\");\n");
}

TEST_F(LibraryLogTest, TheFirstStatementOfAHostTellsAboutMissingVariables) {
  const support::ProcessResult result = support::RunForked([] {
    for (const char* variable : {"SPDLOG_STDOUT", "SPDLOG_SYSTEMD", "SPDLOG_LEVEL"}) {
      unsetenv(variable);
    }
    { const DriverCan can("can0"); }
  });
  EXPECT_EQ(result.out, std::string(kStdoutNotSet) + kSystemdNotSet + kLevelNotSet +
                            "  1 [INFO] device is can0\n"
                            "  2 [INFO] Initializing CAN socket for device: can0\n"
                            "  3 [INFO] DriverCan destroyed successfully\n");
}

TEST_F(LibraryLogTest, PrintsTheBracesOfADeviceName) {
  const support::ProcessResult result = support::RunForked([] { const DriverCan can("{}{0}{x"); });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out,
            "  1 [INFO] device is {}{0}{x\n"
            "  2 [INFO] Initializing CAN socket for device: {}{0}{x\n"
            "  3 [ERROR] get can interface index failed, errno: 19\n"
            "  4 [ERROR] Failed to initialize CAN socket in constructor\n"
            "  5 [INFO] DriverCan destroyed successfully\n");
}

}  // namespace
