// The log that never ends: its files, whatever becomes of the recorder and of its disk.
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "record_bench.h"

namespace {

class ContinuousTest : public RecordTest {
 protected:
  Arguments Logging(const Arguments& more = {}) const {
    Arguments words = Recording({"--continuous"});
    words.insert(words.end(), more.begin(), more.end());
    return words;
  }

  static void AwaitRecorder(Process& recorder) {
    ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "recording can0"); }))
        << recorder.Err();
  }

  // The process that writes.
  static std::string Writer(const Process& recorder) {
    const std::string task = std::to_string(recorder.pid());
    const std::string writer = Text("/proc/" + task + "/task/" + task + "/children");
    EXPECT_FALSE(writer.empty());
    return writer;
  }

  // 48 bytes in the log for each of these; the data count upwards.
  static void Send(int frames, const std::string& id = "123") {
    bus::Command("cangen can1 -g 0 -n " + std::to_string(frames) + " -I " + id +
                 " -L 8 -D i -p 10");
  }

  std::vector<std::string> Logs() const { return Listed("bus-"); }

  std::string AllLogs() const {
    std::string all;
    for (const std::string& log : Logs()) all += Text(log);
    return all;
  }

  static std::ptrdiff_t Lines(const std::string& text) {
    return std::count(text.begin(), text.end(), '\n');
  }

  bool AwaitLines(std::ptrdiff_t count) const {
    return Eventually([&] { return Lines(AllLogs()) >= count; });
  }

  static void ExpectWholeLines(const std::string& path) {
    EXPECT_EQ(Motorctl({"decode", path}).status, 0) << path;
  }
};

TEST_F(ContinuousTest, KeepsAllFramesOfBothDirectionsBesideIncidents) {
  Process recorder(Logging());
  AwaitRecorder(recorder);
  bus::Command("cansend can0 123#01; cansend can1 124#02; cansend can1 081#1023010000000000");
  ASSERT_TRUE(AwaitFolders(1));
  ASSERT_TRUE(AwaitLines(3));
  bus::Command("cansend can1 125#03");
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
  ASSERT_EQ(Logs().size(), 1U);
  EXPECT_TRUE(std::regex_match(Logs()[0],
                               std::regex(directory_ + "/bus-\\d{8}T\\d{6}\\.\\d{3}Z-can0\\.log")));
  EXPECT_TRUE(std::regex_match(
      Text(Logs()[0]),
      std::regex("\\(\\d{10}\\.\\d{6}\\) can0 123#01 T\n\\(\\d{10}\\.\\d{6}\\) can0 124#02 R\n"
                 "\\(\\d{10}\\.\\d{6}\\) can0 081#1023010000000000 R\n"
                 "\\(\\d{10}\\.\\d{6}\\) can0 125#03 R\n")))
      << Text(Logs()[0]);
  EXPECT_TRUE(Contains(Text(Folders()[0] + "/bus.log"), "124#02 R\n"));
}

TEST_F(ContinuousTest, TakesTurnsAndRemovesTheOldestFile) {
  Process recorder(Logging({"--file-mb", "1", "--files-mb", "3"}));
  AwaitRecorder(recorder);
  for (int i = 0; i < 5; ++i) Send(20'000);  // 4.7 MB
  bus::Command("cansend can1 124#");
  ASSERT_TRUE(Eventually([this] { return Contains(AllLogs(), " 124#"); }));
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
  EXPECT_EQ(Logs().size(), 3U);
  std::uintmax_t all = 0;
  for (const std::string& log : Logs()) {
    EXPECT_LE(std::filesystem::file_size(log), 1'000'000U);
    all += std::filesystem::file_size(log);
    ExpectWholeLines(log);
  }
  EXPECT_LE(all, 3'000'000U);
  EXPECT_GT(all, 1'900'000U);
  // The newest frames, and none missing between the files: the last byte of the data counts.
  std::istringstream lines(AllLogs());
  constexpr int kLastByte = (20'000 - 1) % 256;
  int last = -1;
  for (std::string line; std::getline(lines, line) && !Contains(line, " 124#");) {
    const int byte = std::stoi(line.substr(line.find('#') + 1, 2), nullptr, 16);
    const bool begins_again = byte == 0 && last == kLastByte;
    ASSERT_TRUE(last < 0 || byte == (last + 1) % 256 || begins_again) << line;
    last = byte;
  }
  EXPECT_EQ(last, kLastByte);
}

TEST_F(ContinuousTest, LeavesOnlyWholeLinesWhenItIsKilled) {
  int cut = 0;
  for (int i = 0; i < 6; ++i) {
    Process recorder(Logging());
    AwaitRecorder(recorder);
    const std::string writer = Writer(recorder);
    Send(4'000);
    std::this_thread::sleep_for(std::chrono::milliseconds(150 * i));
    bus::Command("kill -KILL " + writer);
    recorder.Signal(SIGKILL);
    recorder.Wait();
    if (!Logs().empty()) {
      const std::string log = Text(Logs().back());
      cut += log.empty() || log.back() != '\n' ? 1 : 0;
    }
  }
  // As a supply that fails leaves it.
  ASSERT_FALSE(Logs().empty());
  std::ofstream(Logs().back(), std::ios::app) << "(1790000000.0000";
  Process recorder(Logging());
  AwaitRecorder(recorder);
  Send(1);
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
  for (const std::string& log : Logs()) ExpectWholeLines(log);
  std::printf("cut off when killed: %d of 6\n", cut);
}

TEST_F(ContinuousTest, WritesWhatItHasWhenOnlyTheRecorderIsKilled) {
  Process recorder(Logging());
  AwaitRecorder(recorder);
  bus::Command("cansend can1 123#01");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  recorder.Signal(SIGKILL);
  recorder.Wait();
  EXPECT_TRUE(AwaitLines(1));
}

// As one does whose disk does not take anything for a while.
TEST_F(ContinuousTest, WaitsForItsWriter) {
  Process recorder(Logging());
  AwaitRecorder(recorder);
  const std::string writer = Writer(recorder);
  bus::Command("kill -STOP " + writer);
  Send(20'000);
  recorder.Signal(SIGTERM);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  bus::Command("kill -CONT " + writer);
  EXPECT_EQ(recorder.Wait(), 0);
  EXPECT_EQ(Lines(AllLogs()), 20'000);
  EXPECT_FALSE(Contains(recorder.Err(), "missing")) << recorder.Err();
}

TEST_F(ContinuousTest, StartsItsWriterAgain) {
  Process recorder(Logging());
  AwaitRecorder(recorder);
  bus::Command("cansend can1 123#01");
  ASSERT_TRUE(AwaitLines(1));
  bus::Command("kill -KILL " + Writer(recorder));
  bus::Command("for i in 1 2 3 4 5 6 7 8; do cansend can1 124#02; sleep 0.3; done");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "it is started again"); }));
  EXPECT_TRUE(Eventually([&] { return Contains(AllLogs(), "124#02"); }));
}

TEST_F(ContinuousTest, StartsItsWriterOnceThereAreDescriptors) {
  Process recorder(Logging());
  AwaitRecorder(recorder);
  bus::Command("cansend can1 123#01");
  ASSERT_TRUE(AwaitLines(1));
  const std::string prlimit = "prlimit --pid " + std::to_string(recorder.pid()) + " --nofile=";
  const std::filesystem::path open = "/proc/" + std::to_string(recorder.pid()) + "/fd";
  const auto count = std::distance(std::filesystem::directory_iterator(open), {});
  // Room for one end of a connection, when that of the writer is closed.
  bus::Command("kill -KILL " + Writer(recorder) + "; " + prlimit + std::to_string(count) +
               ": ; cansend can1 124#02");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "it is started again"); }));
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  bus::Command("cansend can1 125#03");
  EXPECT_EQ(Lines(AllLogs()), 1);
  bus::Command(prlimit + "1024:");
  EXPECT_TRUE(AwaitLines(3));
  EXPECT_TRUE(Contains(AllLogs(), "124#02 R\n"));
  EXPECT_TRUE(Contains(AllLogs(), "125#03 R\n"));
}

// As a disk does that takes a part of it and no more. What the process says goes to a file, too, which
// is shorter.
TEST_F(ContinuousTest, CutsOffWhatIsWrittenInPart) {
  Process recorder(Logging());
  AwaitRecorder(recorder);
  Send(100);
  ASSERT_TRUE(AwaitLines(100));
  std::string writer = Writer(recorder);
  writer.resize(writer.find_first_not_of("0123456789"));
  const std::string limit = "prlimit --pid " + writer + " --fsize=";
  const std::string whole = AllLogs();
  bus::Command(limit + std::to_string(whole.size() + 20) + ": ; cansend can1 124#02");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "THE LOG IS NOT WRITTEN"); }));
  EXPECT_EQ(AllLogs(), whole);
  bus::Command(limit + "unlimited: ; cansend can1 125#03");
  ASSERT_TRUE(AwaitLines(101));
  EXPECT_EQ(AllLogs().substr(0, whole.size() + 1), whole + "(");
  EXPECT_TRUE(Contains(AllLogs(), " can0 125#03 R\n")) << AllLogs();
  EXPECT_FALSE(Contains(AllLogs(), "124#02")) << AllLogs();
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
}

// With limits that the disk has no room for.
TEST_F(ContinuousTest, KeepsTheNewestOfASmallDisk) {
  const Mount disk(directory_, "4m");
  Process recorder(Logging({"--file-mb", "1", "--files-mb", "1000"}));
  AwaitRecorder(recorder);
  EXPECT_TRUE(Eventually([&] {
    return Contains(recorder.Err(), "the disk has room for 3 MB of the 1000 MB of logs");
  })) << recorder.Err();
  for (int i = 0; i < 6; ++i) Send(20'000);  // 5.6 MB
  bus::Command("cansend can1 777#01");
  EXPECT_TRUE(Eventually([&] { return Contains(AllLogs(), "777#01 R\n"); }));
  EXPECT_FALSE(Contains(recorder.Err(), "NOT WRITTEN")) << recorder.Err();
  for (const std::string& log : Logs()) ExpectWholeLines(log);
  // There is room for an incident.
  EXPECT_GE(std::filesystem::space(directory_).available, 400'000U);
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
}

TEST_F(ContinuousTest, SaysThatTheDiskIsFullAndGoesOn) {
  const Mount disk(directory_, "2m");
  Process recorder(Logging({"--files-mb", "2"}));
  AwaitRecorder(recorder);
  bus::Command("cansend can1 123#01");
  ASSERT_TRUE(AwaitLines(1));
  bus::Command("dd if=/dev/zero of=" + directory_ + "/other bs=1k count=3000 2>/dev/null || true");
  bus::Command("cansend can1 124#02");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Err(), "THE LOG IS NOT WRITTEN"); }));
  EXPECT_TRUE(Contains(recorder.Err(), "No space left on device")) << recorder.Err();
  bus::Command("rm " + directory_ + "/other; cansend can1 125#03");
  ASSERT_TRUE(Eventually([&] { return Contains(AllLogs(), "125#03 R\n"); }));
  EXPECT_TRUE(Contains(recorder.Err(), "the log goes on; 1 frames are missing")) << recorder.Err();
  EXPECT_TRUE(Contains(AllLogs(), "123#01 R\n"));
  EXPECT_FALSE(Contains(AllLogs(), "124#02"));
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
}

}  // namespace
