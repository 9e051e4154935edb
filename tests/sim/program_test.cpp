// The program without a bus: wrong usage, help and version.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>

#include "sim/makes.h"
#include "tests/sim/shell.h"

namespace {

class ProgramTest : public testing::Test {
 protected:
  // Wrong usage: status 2, one line that names the mistake.
  static void ExpectWrongUsage(const std::string& options, const std::string& mistake) {
    const auto result = Shell("$SIM " + options);
    EXPECT_EQ(result.exit_status, 2) << options;
    EXPECT_EQ(result.out, "") << options;
    EXPECT_NE(result.err.find(mistake), std::string::npos) << options << ": " << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << "one line: " << result.err;
  }
};

TEST_F(ProgramTest, RefusesWrongUsage) {
  ExpectWrongUsage("", "--interface is required");
  ExpectWrongUsage("--interface can1", "--make is required");
  ExpectWrongUsage("--make zl", "--interface is required");
  ExpectWrongUsage("--eds", "--make is required");
  ExpectWrongUsage("--eds --make xy", "unknown make 'xy'");
  ExpectWrongUsage("--interface can1 --make xy",
                   "unknown make 'xy'; there are: zl tt hls amps kinco");
  ExpectWrongUsage("--interface can1 --make zl --node 0", "--node");
  ExpectWrongUsage("--interface can1 --make zl --node 128", "--node");
  ExpectWrongUsage("--interface can1 --make zl --node -1", "--node");
  ExpectWrongUsage("--interface can1 --make zl --node x", "--node");
  ExpectWrongUsage("--interface can1 --make zl --node 3 --node 3", "the same node twice");
  ExpectWrongUsage("--interface can1 --make zl --node $(seq -s ' ' 33)", "at most 32 nodes");
  ExpectWrongUsage("--interface can1 --make hls --node 1 --node 2 --tpdo1-id 0x180", "--tpdo1-id");
  ExpectWrongUsage("--interface can1 --make hls --tpdo1-id 0x800", "--tpdo1-id");
  ExpectWrongUsage("--interface can1 --make kinco --counts-per-revolution 0", "--counts-per-rev");
  ExpectWrongUsage("--interface can1 --make zl --inactive", "make 'zl' has no activation");
  ExpectWrongUsage("--interface can1 --make zl --heartbeat-ms 65536", "--heartbeat-ms");
  ExpectWrongUsage("--interface can1 --make zl --fault abort-write=0", "abort-write=0");
  ExpectWrongUsage("--interface can1 --make zl --fault nonsense", "'nonsense': unknown");
  ExpectWrongUsage("--interface can1 --make zl --start-position 1 2 3 4 5", "5");
  ExpectWrongUsage("--interface can1 --make zl --speed 3", "--speed");
  ExpectWrongUsage("--interface can1 --make zl can2", "can2");
  ExpectWrongUsage("--interface can1 --make zl --replay bus.log", "--make excludes --replay");
  ExpectWrongUsage("--interface can1 --replay bus.log --node 2", "--node excludes --replay");
  ExpectWrongUsage("--interface can1 --make zl --patience 3", "--patience requires --replay");
  ExpectWrongUsage("--interface can1 --replay bus.log --patience nan", "--patience");
}

TEST_F(ProgramTest, ExplainsItself) {
  const auto result = Shell("$SIM --help");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  for (const char* word : {"--interface",
                           "--make",
                           "--node",
                           "--heartbeat-ms",
                           "--start-position",
                           "--counts-per-revolution",
                           "--tpdo1-id",
                           "--inactive",
                           "--eds",
                           "--fault",
                           "abort-write=N",
                           "zl",
                           "tt",
                           "hls",
                           "amps",
                           "kinco",
                           "SIGUSR1",
                           "Exit status",
                           "--replay",
                           "--patience"}) {
    EXPECT_NE(result.out.find(word), std::string::npos) << word;
  }
}

TEST_F(ProgramTest, ListsItsMakes) {
  const auto result = Shell("$SIM --list-makes");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out.substr(0, result.out.find('\n')),
            "zl     two motors in one node, 4096 counts per revolution, target velocity in rpm");
  EXPECT_NE(result.out.find("\ntt     one motor, "), std::string::npos) << result.out;
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'),
            static_cast<std::ptrdiff_t>(sim::AllMakes().size()));
}

TEST_F(ProgramTest, TellsItsVersion) {
  const auto result = Shell("$SIM --version");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "motor-drive-sim " MOTOR_DRIVE_SIM_VERSION "\n");
}

TEST_F(ProgramTest, FailsInOneLineWithoutItsInterface) {
  // Whether this kernel lacks SocketCAN or only the interface.
  const auto result = Shell("$SIM --interface absent7 --make zl");
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.substr(0, 17), "motor-drive-sim: ");
  EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
}

}  // namespace
