// The program on a bus: what it says, what its options do, how it ends.
#include <gtest/gtest.h>

#include <string>

#include "bus_environment.h"
#include "tests/sim/shell.h"

namespace {

// Starts the program in the background with its status lines in a file, waits for the one that says
// it is ready, goes on with the script ($pid is the program), which ends it; the program's exit
// status counts.
support::ProcessResult WhileRunning(const std::string& options, const std::string& script) {
  return Shell(
      "lines=$(mktemp); trap 'rm -f $lines' EXIT; $SIM " + options +
      " 2>$lines & pid=$!; tries=0; until grep -q ready $lines; do sleep 0.05; tries=$((tries+1));"
      " [ $tries -lt 200 ] || break; done; " +
      script + "; wait $pid; status=$?; cat $lines >&2; exit $status");
}

class ProgramOnBusTest : public bus::BusTest {};

TEST_F(ProgramOnBusTest, SaysWhatToDoWithoutTheInterface) {
  const auto absent = Shell("$SIM --interface can7 --make zl");
  EXPECT_EQ(absent.exit_status, 1);
  EXPECT_NE(absent.err.find("can7"), std::string::npos);
  EXPECT_NE(absent.err.find("ip link add"), std::string::npos);
  EXPECT_EQ(absent.err.find('\n'), absent.err.size() - 1);

  bus::SetDown("can1");
  const auto down = Shell("$SIM --interface can1 --make zl");
  EXPECT_EQ(down.exit_status, 1);
  EXPECT_NE(down.err.find("ip link set can1 up"), std::string::npos);
}

TEST_F(ProgramOnBusTest, IsReadyOnTheBusAndEndsCleanlyBySignal) {
  for (const char* signal : {"TERM", "INT"}) {
    const auto result = WhileRunning("--interface can1 --make zl --node 7",
                                     std::string("kill -") + signal + " $pid");
    EXPECT_EQ(result.exit_status, 0) << signal;
    EXPECT_EQ(result.err,
              "motor-drive-sim: zl drive, node 7, ready on can1\n"
              "motor-drive-sim: node 7 unplugged\n");
  }
}

TEST_F(ProgramOnBusTest, ServesSeveralNodes) {
  const auto result = WhileRunning(
      "--interface can1 --make kinco --node 1 --node 32",
      "candump -L can0,580:780 -n 2 >$lines.bus & dump=$!; sleep 0.5; "
      "cansend can0 601#4041600000000000; sleep 0.1; cansend can0 620#4041600000000000; "
      "wait $dump; cut -d' ' -f3 $lines.bus; rm $lines.bus; kill $pid");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "581#4B41600050020000\n5A0#4B41600050020000\n");
  EXPECT_EQ(result.err,
            "motor-drive-sim: kinco drive, nodes 1, 32, ready on can1\n"
            "motor-drive-sim: nodes 1, 32 unplugged\n");
}

TEST_F(ProgramOnBusTest, SignalsPressAndReleaseTheEmergencyStop) {
  const auto result =
      WhileRunning("--interface can1 --make kinco --counts-per-revolution 65536",
                   "candump -L can0,581:7FF -n 3 >$lines.bus & dump=$!; sleep 0.5; "
                   "cansend can0 601#4010200A00000000; sleep 0.1; kill -USR1 $pid; sleep 0.3; "
                   "cansend can0 601#4010200A00000000; sleep 0.1; kill -USR2 $pid; sleep 0.3; "
                   "cansend can0 601#4010200A00000000; "
                   "wait $dump; cut -d' ' -f3 $lines.bus; rm $lines.bus; kill $pid");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "581#4B10200A00000000\n581#4B10200A01000000\n581#4B10200A00000000\n");
}

TEST_F(ProgramOnBusTest, StaysInactiveUntilItIsActivated) {
  const auto result =
      WhileRunning("--interface can1 --make tt --inactive",
                   "candump -L can0,701:7FF,081:7FF,581:7FF -n 2 >$lines.bus & dump=$!; sleep 0.5; "
                   "cansend can0 601#4041600000000000; sleep 0.2; cansend can0 001#1010; "
                   "wait $dump; cut -d' ' -f3 $lines.bus; rm $lines.bus; kill $pid");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "701#00\n081#0000000000000000\n");
}

TEST_F(ProgramOnBusTest, AnswersAndMisbehavesAsAskedTo) {
  const auto result = WhileRunning(
      "--interface can1 --make zl --heartbeat-ms 0 --start-position 1000 -1000 "
      "--fault abort-write=1/0x06090030 --fault ignore-object=0x1001",
      "candump -L can0,581:7FF -n 3 >$lines.bus & dump=$!; sleep 0.5; "
      "cansend can0 601#2F60600003000000; sleep 0.1; cansend can0 601#4001100000000000; sleep 0.1; "
      "cansend can0 601#2F60600003000000; sleep 0.1; cansend can0 601#4064600200000000; "
      "wait $dump; cut -d' ' -f3 $lines.bus; rm $lines.bus; kill $pid");
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.out, "581#8060600030000906\n581#6060600000000000\n581#4364600218FCFFFF\n");
}

TEST_F(ProgramOnBusTest, FailsWhenItsInterfaceDisappears) {
  const auto result =
      WhileRunning("--interface can1 --make zl --heartbeat-ms 10", "ip link delete can0");
  EXPECT_EQ(result.exit_status, 1);
  EXPECT_NE(result.err.find("can1 still there?"), std::string::npos) << result.err;
  bus::CreatePair();
}

}  // namespace
