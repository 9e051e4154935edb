// The recorder while somebody sets the clock of the machine.
#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>

#include "record_bench.h"

namespace {

constexpr time_t kHour = 3600;

time_t SecondOf(clockid_t clock) {
  timespec now = {};
  ::clock_gettime(clock, &now);
  return now.tv_sec;
}

// In a kernel of its own, never that of the machine; it gets its time back.
class RecordClockTest : public RecordTest {
 protected:
  void SetUp() override {
    const char* const kernel = std::getenv("WITH_CAN");
    ASSERT_TRUE(kernel != nullptr && std::string(kernel) == "uml") << "tools/with-can --kernel uml";
    RecordTest::SetUp();
  }
  void TearDown() override {
    if (!HasFatalFailure()) Set(start_ + SecondOf(CLOCK_BOOTTIME));
    RecordTest::TearDown();
  }

  static void SetBy(time_t seconds) { Set(SecondOf(CLOCK_REALTIME) + seconds); }

 private:
  static void Set(time_t second) {
    const timespec time = {second, 0};
    ASSERT_EQ(::clock_settime(CLOCK_REALTIME, &time), 0);
  }

  const time_t start_ = SecondOf(CLOCK_REALTIME) - SecondOf(CLOCK_BOOTTIME);
};

TEST_F(RecordClockTest, GoesOnWhenItIsSetForward) {
  Process recorder(Recording({}, "3"));
  AwaitStart(recorder);
  bus::Command("cansend can1 123#01; cansend can1 081#1023010000000000");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "emergency"); }));
  SetBy(24 * kHour);
  bus::Command("cansend can1 082#1023010000000000; cansend can1 123#02");
  ASSERT_TRUE(AwaitFolders(1));
  EXPECT_EQ(Trigger(Folders()[0])["frame"], "081#1023010000000000");
  EXPECT_EQ(Events(Folders()[0]).size(), 2U);
  const std::string log = Text(Folders()[0] + "/bus.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), 'R'), 4) << log;
}

// Whatever their names say.
TEST_F(RecordClockTest, RemovesWhatWasWrittenFirst) {
  for (const time_t first : {-kHour, kHour}) {
    std::filesystem::remove_all(directory_);
    Process recorder(Recording({"--keep", "2"}));
    AwaitStart(recorder);
    std::vector<std::string> written;
    for (const time_t by : {first, -first, -kHour, time_t{0}}) {
      const Result now = Motorctl({"record", "--now"});
      ASSERT_EQ(now.status, 0) << now.err;
      written.push_back(now.out.substr(0, now.out.size() - 1));
      SetBy(by);
    }
    std::sort(written.begin() + 2, written.end());
    EXPECT_EQ(Folders(), std::vector<std::string>(written.begin() + 2, written.end()));
  }
}

TEST_F(RecordClockTest, ALogFromTheFutureIsTheOldest) {
  const auto write = [this](int frames) {
    Process recorder(Recording({"--continuous", "--file-mb", "1", "--files-mb", "3"}));
    AwaitStart(recorder);
    bus::Command("cangen can1 -g 0 -n " + std::to_string(frames) +
                 " -I 123 -L 8 -p 10; cansend can1 124#01");
    recorder.Signal(SIGTERM);
    EXPECT_EQ(recorder.Wait(), 0);
  };
  write(12'000);
  ASSERT_EQ(Listed("bus-").size(), 1U);
  const std::string future = Listed("bus-")[0];
  SetBy(-kHour);
  write(12'000);
  const std::string newer = Listed("bus-")[0];
  ASSERT_NE(newer, future);
  write(30'000);  // one file and a half
  EXPECT_FALSE(std::filesystem::exists(future));
  EXPECT_TRUE(std::filesystem::exists(newer));
}

TEST_F(RecordClockTest, GoesOnWhenItIsSetBack) {
  Process recorder(Recording({"--keep", "1"}));
  AwaitStart(recorder);
  bus::Command("cansend can1 123#01");
  ASSERT_EQ(Motorctl({"record", "--now"}).status, 0);
  SetBy(-kHour);
  bus::Command("cansend can1 123#02; cansend can1 081#1023010000000000");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "emergency"); }));
  const Result now = Motorctl({"record", "--now"});
  ASSERT_EQ(now.status, 0) << now.err;
  // Its name is the older one; it stays.
  ASSERT_EQ(Folders().size(), 1U);
  EXPECT_EQ(Folders()[0] + "\n", now.out);
  const std::string log = Text(Folders()[0] + "/bus.log");
  EXPECT_TRUE(Contains(log, "123#01 R")) << log;
  EXPECT_TRUE(Contains(log, "123#02 R")) << log;
  EXPECT_EQ(Events(Folders()[0]).size(), 3U);
  EXPECT_EQ(Motorctl({"decode", Folders()[0] + "/bus.log"}).status, 0);
}

}  // namespace
