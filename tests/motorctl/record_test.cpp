// What the recorder keeps, and how it writes it.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "record_bench.h"

namespace {

TEST_F(RecordTest, KeepsBothDirectionsOfAHostWithoutLoopBack) {
  const sim::SimulatedDrive drive(Options("zl"));
  Process recorder(Recording({"--make", "zl"}));
  AwaitStart(recorder);
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0);
  recorder.Signal(SIGUSR1);
  ASSERT_TRUE(AwaitFolders(1));
  const std::string folder = Folders()[0];
  EXPECT_TRUE(
      std::regex_match(folder, std::regex(directory_ + "/incident-\\d{8}T\\d{6}\\.\\d{3}Z-can0")))
      << folder;
  const std::string log = Text(folder + "/bus.log");
  EXPECT_TRUE(Contains(log, " can0 000#8101 T\n")) << log;
  EXPECT_TRUE(Contains(log, " can0 701#00 R\n")) << log;
  EXPECT_TRUE(Contains(log, " can0 601#2B40600006000000 T\n")) << log;
  EXPECT_TRUE(Contains(log, " can0 581#6040600000000000 R\n")) << log;
  const Json trigger = Trigger(folder);
  EXPECT_EQ(trigger["event"], "request");
  EXPECT_EQ(trigger["text"], "SIGUSR1");
  EXPECT_TRUE(Contains(Text(folder + "/system.txt"), "motorctl " MOTORCTL_VERSION));
  EXPECT_TRUE(Contains(Text(folder + "/system.txt"), "can0"));

  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0) << recorder.Err();
  EXPECT_EQ(recorder.Out(), folder + "\n");
}

TEST_F(RecordTest, WritesALogThatIsInOrderAndThatDecodeReads) {
  const sim::SimulatedDrive drive(Options("zl"));
  Process recorder(Recording());
  AwaitStart(recorder);
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0);
  recorder.Signal(SIGUSR1);
  ASSERT_TRUE(AwaitFolders(1));
  const std::string path = Folders()[0] + "/bus.log";
  std::istringstream lines(Text(path));
  double last = 0;
  std::size_t count = 0;
  for (std::string line; std::getline(lines, line); ++count) {
    const double time = std::stod(line.substr(1));
    EXPECT_GE(time, last) << line;
    last = time;
  }
  EXPECT_GT(count, 100U);
  const Result decoded = Motorctl({"decode", path});
  EXPECT_EQ(decoded.status, 0) << decoded.err;
  EXPECT_TRUE(Contains(decoded.out, "NMT: reset, node 1"));
}

// cansend leaves the loop-back on: its frame comes twice.
TEST_F(RecordTest, KeepsAFrameOnceThatItsSenderHearsItself) {
  Process recorder(Recording());
  AwaitStart(recorder);
  bus::Command("cansend can0 123#0102");
  bus::Command("cansend can1 124#0304");
  recorder.Signal(SIGUSR1);
  ASSERT_TRUE(AwaitFolders(1));
  const std::string log = Text(Folders()[0] + "/bus.log");
  EXPECT_TRUE(std::regex_match(
      log, std::regex("\\(\\d{10}\\.\\d{6}\\) can0 123#0102 T\n\\(\\d{10}\\.\\d{6}\\) can0 "
                      "124#0304 R\n")))
      << log;
}

TEST_F(RecordTest, WaitsForWhatFollowsTheTrigger) {
  Process recorder(Recording({}, "3"));
  AwaitStart(recorder);
  bus::Command("cansend can1 081#1023010000000000; sleep 0.1; cansend can1 123#01");
  ASSERT_TRUE(AwaitFolders(1));
  const std::string log = Text(Folders()[0] + "/bus.log");
  EXPECT_TRUE(Contains(log, "081#1023010000000000 R\n")) << log;
  EXPECT_TRUE(Contains(log, "123#01 R\n")) << log;
}

TEST_F(RecordTest, LeavesOutWhatIsTooOld) {
  Process recorder(Recording({"--seconds", "0.2"}));
  AwaitStart(recorder);
  bus::Command("cansend can1 123#01; sleep 3; cansend can1 124#02");
  recorder.Signal(SIGUSR1);
  ASSERT_TRUE(AwaitFolders(1));
  const std::string log = Text(Folders()[0] + "/bus.log");
  EXPECT_FALSE(Contains(log, "123#01")) << log;
  EXPECT_TRUE(Contains(log, "124#02")) << log;
}

TEST_F(RecordTest, AnswersToNowWithTheFolder) {
  EXPECT_TRUE(Contains(Motorctl({"record", "--now"}).err, "nobody records can0"));
  Process recorder(Recording());
  AwaitStart(recorder);
  const Result now = Motorctl({"record", "--now"});
  EXPECT_EQ(now.status, 0) << now.err;
  ASSERT_EQ(Folders().size(), 1U);
  EXPECT_EQ(now.out, Folders()[0] + "\n");
  EXPECT_EQ(Trigger(Folders()[0])["text"], "motorctl record --now");

  const Result second = Motorctl(Recording());
  EXPECT_EQ(second.status, 1);
  EXPECT_TRUE(Contains(second.err, "can0 is recorded already")) << second.err;
}

TEST_F(RecordTest, ListsTheTriggerAmongMoreEventsThanItKeeps) {
  Process recorder(Recording());
  AwaitStart(recorder);
  bus::Command("cangen can1 -g 0 -n 2100 -I 081 -L 8 -D 1023010000000000 -p 10");
  ASSERT_TRUE(AwaitFolders(1));
  ASSERT_EQ(Motorctl({"record", "--now"}).status, 0);
  EXPECT_EQ(Trigger(Folders().back())["event"], "request");
  EXPECT_EQ(Events(Folders().back()).size(), 2001U);
}

TEST_F(RecordTest, AnswersToNowWhenNothingCanBeWritten) {
  Process recorder(Recording());
  AwaitStart(recorder);
  std::set<int> open;
  const std::string descriptors = "/proc/" + std::to_string(recorder.pid()) + "/fd";
  for (const auto& entry : std::filesystem::directory_iterator(descriptors)) {
    open.insert(std::stoi(entry.path().filename()));
  }
  // One for the connection of the asker, none for a pipe.
  int next = 0;
  while (open.count(next) != 0) ++next;
  const std::string limit = std::to_string(next + 1);
  ASSERT_EQ(static_cast<int>(open.size()), next) << "there is a gap";
  bus::Command("prlimit --pid " + std::to_string(recorder.pid()) + " --nofile=" + limit);
  const Result now = Motorctl({"record", "--now"});
  EXPECT_EQ(now.status, 1);
  EXPECT_EQ(now.err, "motorctl: not recorded: no pipe for the process that writes\n");
}

TEST_F(RecordTest, WritesWhatItHasWhenItIsEnded) {
  Process recorder(Recording({}, "60"));
  AwaitStart(recorder);
  bus::Command("cansend can1 081#1023010000000000");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "emergency"); }));
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
  ASSERT_EQ(Folders().size(), 1U);
  EXPECT_EQ(Trigger(Folders()[0])["event"], "emergency");
}

TEST_F(RecordTest, HearsWhatItReceivesWithoutTheCapability) {
  const std::string out = directory_ + "/err";
  bus::Command("setpriv --bounding-set -net_raw --inh-caps -net_raw bash -c '" MOTORCTL
               " record --after 0.2 --directory " +
               directory_ + " & until grep -q recording " + out +
               "; do sleep 0.05; done; cansend can0 123#01; cansend can1 124#02; " MOTORCTL
               " record --now; kill $!; wait' > " +
               out + " 2>&1");
  EXPECT_TRUE(Contains(Text(out), "CAP_NET_RAW")) << Text(out);
  ASSERT_EQ(Folders().size(), 1U) << Text(out);
  const std::string log = Text(Folders()[0] + "/bus.log");
  EXPECT_TRUE(Contains(log, "124#02 R\n")) << log;
  EXPECT_TRUE(Contains(log, "123#01 T\n")) << log;  // from its echo
  EXPECT_TRUE(Contains(Text(Folders()[0] + "/system.txt"), "without CAP_NET_RAW"));
}

TEST_F(RecordTest, SaysWhatToDoAboutBadInput) {
  const Result none = Motorctl({"record", "--interface", "can9", "--directory", directory_});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err,
            "motorctl: cannot record can9: there is no such interface; "
            "\"ip link\" lists them\n");
  const Result place = Motorctl({"record", "--directory", "/proc/records"});
  EXPECT_EQ(place.status, 1);
  EXPECT_TRUE(Contains(place.err, "motorctl: cannot write to /proc/records: ")) << place.err;
  EXPECT_TRUE(Contains(place.err, "; name another place with --directory\n")) << place.err;
  const Result other = Motorctl({"record", "--interface", "lo", "--directory", directory_});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.err, "motorctl: cannot record lo: it is not a CAN interface\n");
}

}  // namespace
