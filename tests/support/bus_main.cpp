// main() of every test binary that meets a real bus.
#include <errno.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "bus_environment.h"

namespace {

// For what the cases write. Kernels that run side by side share the files of their machine, and number
// their processes alike.
class OwnDirectory {
 public:
  OwnDirectory() {
    std::string name = ::testing::TempDir() + "/bus_test.XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
      std::perror(name.c_str());
      std::exit(EXIT_FAILURE);
    }
    path_ = name;
    setenv("TEST_TMPDIR", name.c_str(), 1);
  }
  ~OwnDirectory() {
    std::error_code failed;
    std::filesystem::remove_all(path_, failed);
  }
  OwnDirectory(const OwnDirectory&) = delete;
  OwnDirectory& operator=(const OwnDirectory&) = delete;

 private:
  std::filesystem::path path_;
};

// Where this names a directory, the cases that fail are noted there, and a program that is run again
// runs these alone: in another try of many cases another one would meet the machine's next stall.
std::string FileOfFailedCases() {
  const char* const directory = std::getenv("MOTOR_DRIVER_FAILED_CASES");
  if (directory == nullptr) {
    return "";
  }
  const char* const shard = std::getenv("GTEST_SHARD_INDEX");
  return std::string(directory) + "/" + program_invocation_short_name + "." +
         (shard == nullptr ? "0" : shard);
}

// What the last try noted: it is forgotten, so that after a crash all are run.
std::string TakeFailedCases(const std::string& file) {
  std::string failed;
  std::getline(std::ifstream(file), failed);
  std::remove(file.c_str());
  return failed;
}

// As a filter. Empty where something failed that belongs to no case.
std::string FailedCases() {
  const ::testing::UnitTest& all = *::testing::UnitTest::GetInstance();
  std::string failed;
  if (all.ad_hoc_test_result().Failed()) {
    return "";
  }
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const ::testing::TestSuite& suite = *all.GetTestSuite(i);
    if (suite.ad_hoc_test_result().Failed()) {
      return "";
    }
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const ::testing::TestInfo& test = *suite.GetTestInfo(j);
      if (test.result()->Failed()) {
        failed += std::string(failed.empty() ? "" : ":") + suite.name() + "." + test.name();
      }
    }
  }
  return failed;
}

// The result as an exit status.
int RunAll() {
  const std::string file = FileOfFailedCases();
  if (file.empty()) {
    return RUN_ALL_TESTS();
  }
  const std::string again = TakeFailedCases(file);
  if (!again.empty()) {
    GTEST_FLAG_SET(filter, again);
    unsetenv("GTEST_TOTAL_SHARDS");
    unsetenv("GTEST_SHARD_INDEX");
  }
  if (RUN_ALL_TESTS() != EXIT_SUCCESS) {
    std::ofstream(file) << FailedCases();
    return EXIT_FAILURE;
  }
  const bool ran = ::testing::UnitTest::GetInstance()->test_to_run_count() > 0;
  return again.empty() || ran ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  if (GTEST_FLAG_GET(list_tests)) {  // also done at build time, on a kernel without SocketCAN
    return RUN_ALL_TESTS();
  }
  // Before the processes that other tests start: where several are busy, User Mode Linux lets one that
  // wakes wait for 200 ms.
  ::setpriority(PRIO_PROCESS, 0, -10);
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
  const OwnDirectory directory;
  return RunAll();
}
