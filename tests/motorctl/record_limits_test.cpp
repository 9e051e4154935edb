// What the recorder leaves behind, whatever becomes of it and of its disk.
#include <gtest/gtest.h>

#include "record_bench.h"

namespace {

// A log of some size.
constexpr char kTraffic[] =
    "cangen can1 -g 0 -n 20000 -I 123 -L 8 -D r -p 10; cangen can0 -g 0 -n 20000 -I 124 -L 8 -p 10";

TEST_F(RecordTest, KeepsAsManyFoldersAsItMay) {
  Process recorder(Recording({"--keep", "2"}));
  AwaitStart(recorder);
  std::vector<std::string> written;
  for (int i = 0; i < 4; ++i) written.push_back(Motorctl({"record", "--now"}).out);
  ASSERT_EQ(Folders().size(), 2U);
  EXPECT_EQ(Folders()[0] + "\n", written[2]);
  EXPECT_EQ(Folders()[1] + "\n", written[3]);
}

TEST_F(RecordTest, KeepsAsManyBytesAsItMay) {
  std::filesystem::create_directories(directory_ + "/incident-20200101T000000.000Z-x-can0");
  // As long as one of the recorder's, and somebody else's; so is what a link points to.
  const std::string foreign = directory_ + "/incident-front-left-customer1-can0";
  std::filesystem::create_directories(foreign);
  std::ofstream(directory_ + "/kept") << "no line";
  std::filesystem::create_symlink(directory_ + "/kept",
                                  directory_ + "/bus-20200101T000000.000Z-can0.log");
  bus::Command("mkdir " + directory_ +
               "/incident-20200101T000000.000Z-can0 && "
               "head -c 999900 /dev/zero > " +
               directory_ + "/incident-20200101T000000.000Z-can0/bus.log");
  Process recorder(Recording({"--limit-mb", "1", "--continuous"}));
  AwaitStart(recorder);
  const Result small = Motorctl({"record", "--now"});
  EXPECT_EQ(small.status, 0);
  bus::Command("cansend can0 123#01");
  ASSERT_EQ(Folders().size(), 3U);
  // Another interface's is not touched.
  EXPECT_TRUE(Contains(Folders()[0], "-x-can0"));
  EXPECT_EQ(Folders()[1] + "\n", small.out);
  EXPECT_EQ(Folders()[2], foreign);
  EXPECT_EQ(Text(directory_ + "/kept"), "no line");
}

TEST_F(RecordTest, SaysThatTheDiskIsFullAndGoesOn) {
  const Mount disk(directory_, "1m");
  Process recorder(Recording());
  AwaitStart(recorder);
  ASSERT_EQ(Motorctl({"record", "--now"}).status, 0);
  bus::Command(kTraffic);
  const Result full = Motorctl({"record", "--now"});
  EXPECT_EQ(full.status, 1);
  EXPECT_TRUE(Contains(full.err, "No space left on device")) << full.err;
  EXPECT_TRUE(Eventually([&] { return Contains(recorder.Err(), "AN INCIDENT WAS NOT WRITTEN"); }))
      << recorder.Err();
  EXPECT_EQ(Folders().size(), 1U);
  EXPECT_EQ(Listed(".").size(), 0U);
  bus::Command("mount -o remount,size=20m " + directory_);
  EXPECT_EQ(Motorctl({"record", "--now"}).status, 0);
  EXPECT_EQ(Folders().size(), 2U);
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
}

// At many moments of the writing, some thousand lines of it; the first time tells how long it takes.
TEST_F(RecordTest, LeavesNoHalfFolderWhenItIsKilled) {
  using Clock = std::chrono::steady_clock;
  constexpr int kMoments = 15;
  int unfinished = 0;
  Clock::duration whole = {};
  for (int i = 0; i <= kMoments; ++i) {
    Process recorder(Recording({}, "0.01"));
    AwaitStart(recorder);
    EXPECT_EQ(Listed(".").size(), 0U) << "the one before is not tidied up";
    bus::Command("cangen can1 -g 0 -n 3000 -I 123 -L 8 -p 10");
    const auto begin = Clock::now();
    recorder.Signal(SIGUSR1);
    if (i == 0) {
      ASSERT_TRUE(AwaitFolders(1));
      whole = Clock::now() - begin;
    }
    std::this_thread::sleep_until(begin + whole * i / kMoments);
    recorder.Signal(SIGKILL);
    recorder.Wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    unfinished += Listed(".").empty() ? 0 : 1;
  }
  EXPECT_GT(unfinished, 0) << "it was never killed while it wrote";
  for (const std::string& folder : Folders()) {
    const std::string log = Text(folder + "/bus.log");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3000) << folder;
    EXPECT_EQ(Trigger(folder)["event"], "request");
    EXPECT_TRUE(Contains(Text(folder + "/system.txt"), "vxcan")) << folder;
  }
}

TEST_F(RecordTest, LosesNothingOfAFullBus) {
  Process recorder(Recording());
  AwaitStart(recorder);
  bus::Command(kTraffic);
  const Result now = Motorctl({"record", "--now"});
  ASSERT_EQ(now.status, 0);
  const std::string folder = Folders()[0];
  const std::string log = Text(folder + "/bus.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), 'T'), 20000);
  EXPECT_EQ(std::count(log.begin(), log.end(), 'R'), 20000);
  EXPECT_TRUE(
      Contains(Text(folder + "/system.txt"), "frames lost by the recorder since its start: 0\n"));
}

// What waits while the machine stalls takes some, once: with each frame kept, every time takes 960.
TEST_F(RecordTest, DoesNotGrow) {
  Process recorder(Recording());
  AwaitStart(recorder);
  const auto kibibytes = [&] {
    const std::string status = Text("/proc/" + std::to_string(recorder.pid()) + "/status");
    return std::stol(status.substr(status.find("RssAnon:") + 8));
  };
  std::vector<long> growth;
  for (int i = 0; i < 4; ++i) {
    const long before = kibibytes();
    bus::Command(kTraffic);
    ASSERT_EQ(Motorctl({"record", "--now"}).status, 0);
    growth.push_back(kibibytes() - before);
  }
  EXPECT_LT(*std::min_element(growth.begin(), growth.end()), 480) << growth[0];
}

}  // namespace
