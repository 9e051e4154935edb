// main() of every test binary that meets a real bus.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "bus_environment.h"

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
  return RUN_ALL_TESTS();
}
