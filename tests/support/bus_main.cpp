// main() of every test binary that meets a real bus.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>

#include "bus_environment.h"

namespace {

// A machine that stands still for 100 ms fails a case that is right. Where this names a file, failed
// cases get two more tries, and why they failed is added to the file: a program that passes in the
// end shows nothing else of it.
constexpr const char* kFile = "MOTOR_DRIVER_TRIED_AGAIN";
constexpr const char* kTriesLeft = "MOTOR_DRIVER_TRIES_LEFT";  // in another try
constexpr int kMoreTries = 2;

// As a filter. Empty where something failed that belongs to no case.
std::string FailedCases(std::ostream& why) {
  const ::testing::UnitTest& all = *::testing::UnitTest::GetInstance();
  std::string failed;
  if (all.ad_hoc_test_result().Failed()) {
    return failed;
  }
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const ::testing::TestSuite& suite = *all.GetTestSuite(i);
    if (suite.ad_hoc_test_result().Failed()) {
      return "";
    }
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const ::testing::TestInfo& test = *suite.GetTestInfo(j);
      if (!test.result()->Failed()) {
        continue;
      }
      const std::string name = std::string(suite.name()) + "." + test.name();
      failed += (failed.empty() ? "" : ":") + name;
      why << name << '\n';
      for (int k = 0; k < test.result()->total_part_count(); ++k) {
        const ::testing::TestPartResult& part = test.result()->GetTestPartResult(k);
        if (part.failed()) {
          why << "  line " << part.line_number() << ": " << part.summary() << '\n';
        }
      }
    }
  }
  return failed;
}

// Only what failed, in a process that remembers nothing.
void TryFailedCasesAgain() {
  const char* const file = std::getenv(kFile);
  const char* const set = std::getenv(kTriesLeft);
  const int left = set == nullptr ? kMoreTries : std::atoi(set);
  if (file == nullptr || left == 0) {
    return;
  }
  std::ostringstream why;
  const std::string failed = FailedCases(why);
  if (failed.empty()) {
    return;
  }
  std::ofstream(file, std::ios::app) << why.str();  // at once: others write, too
  setenv(kTriesLeft, std::to_string(left - 1).c_str(), 1);
  unsetenv("GTEST_TOTAL_SHARDS");
  unsetenv("GTEST_SHARD_INDEX");
  std::fflush(nullptr);
  const std::string filter = "--gtest_filter=" + failed;
  ::execl("/proc/self/exe", "another-try", filter.c_str(), nullptr);
  std::perror("another try");
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) {  // also done at build time, on a kernel without SocketCAN
    return RUN_ALL_TESTS();
  }
  if (!bus::Enter()) {
    std::fputs("no SocketCAN here: run me through tools/with-can\n", stderr);
    return EXIT_FAILURE;
  }
  // Every line of the library's log reaches standard output, and nothing but the lines.
  setenv("SPDLOG_STDOUT", "true", 1);
  setenv("SPDLOG_SYSTEMD", "false", 1);
  setenv("SPDLOG_LEVEL", "debug", 1);
  // No colours, should standard output be a terminal.
  setenv("TERM", "dumb", 1);
  unsetenv("COLORTERM");
  const int result = RUN_ALL_TESTS();
  if (result != EXIT_SUCCESS) {
    TryFailedCasesAgain();
  }
  if (std::getenv(kTriesLeft) != nullptr &&
      ::testing::UnitTest::GetInstance()->test_to_run_count() == 0) {
    return EXIT_FAILURE;  // the filter did not find them
  }
  return result;
}
