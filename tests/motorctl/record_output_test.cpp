// The recorder whatever becomes of its outputs.
#include <gtest/gtest.h>

#include "record_bench.h"

namespace {

using Clock = std::chrono::steady_clock;

// Of an output that is held; a whole minute is what a test waits for anything.
constexpr auto kUsualEnd = std::chrono::seconds(20);

class RecordOutputTest : public RecordTest {
 protected:
  void ExpectTwoIncidents() {
    for (const std::size_t count : {1U, 2U}) {
      const Result now = Motorctl({"record", "--now"});
      EXPECT_EQ(now.status, 0) << now.err;
      ASSERT_EQ(Folders().size(), count);
    }
  }

  static void ExpectUsualEnd(Process& recorder) {
    const auto begin = Clock::now();
    recorder.Signal(SIGTERM);
    EXPECT_EQ(recorder.Wait(), 0);
    EXPECT_LT(Clock::now() - begin, kUsualEnd);
  }
};

TEST_F(RecordOutputTest, RecordsThoughNobodyReadsItsData) {
  for (const Arguments& more : {Arguments{}, Arguments{"--json"}}) {
    std::filesystem::remove_all(directory_);
    Process recorder(Recording(more), Output::kFullPipe);
    AwaitStart(recorder);
    ExpectTwoIncidents();
    ExpectUsualEnd(recorder);
  }
}

// Both outputs, in the middle of an incident.
TEST_F(RecordOutputTest, RecordsThoughItsTerminalIsHeld) {
  Process recorder(Recording(), Output::kTerminal);
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Out(), "recording can0"); }));
  recorder.Type("\x13");  // Ctrl-S
  bus::Command("sleep 0.2; cansend can1 081#1023010000000000");
  ASSERT_TRUE(AwaitFolders(1));
  EXPECT_EQ(Motorctl({"record", "--now"}).status, 0);
  bus::SetDown("can0");
  ASSERT_TRUE(AwaitFolders(3));
  EXPECT_FALSE(Contains(recorder.Out(), "emergency")) << "the terminal is not held";
  recorder.Type("\x11");  // Ctrl-Q
  EXPECT_TRUE(Eventually([&] { return Contains(recorder.Out(), Folders()[2]); })) << recorder.Out();
  EXPECT_TRUE(Contains(recorder.Out(), "motorctl: emergency of node 1"));
  EXPECT_TRUE(Contains(recorder.Out(), Folders()[0]));
  recorder.Type("\x13");
  bus::SetUp("can0");
  ExpectUsualEnd(recorder);
}

TEST_F(RecordOutputTest, WritesItsLogThoughItsTerminalIsHeld) {
  const Mount disk(directory_, "2m");
  Process recorder(Recording({"--continuous", "--files-mb", "2"}), Output::kTerminal);
  ASSERT_TRUE(Eventually([&] { return Contains(recorder.Out(), "recording can0"); }));
  recorder.Type("\x13");
  const std::string other = directory_ + "/other";
  bus::Command("dd if=/dev/zero of=" + other +
               " bs=1k count=3000 2>/dev/null; cansend can1 124#02");
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // it is not written, which is said
  bus::Command("rm " + other + "; cansend can1 125#03");
  EXPECT_TRUE(Eventually([&] {
    const std::vector<std::string> logs = Listed("bus-");
    return !logs.empty() && Contains(Text(logs.back()), "125#03 R\n");
  }));
  EXPECT_FALSE(Contains(recorder.Out(), "NOT WRITTEN")) << "the terminal is not held";
  ExpectUsualEnd(recorder);
}

// No text that JSON could have.
TEST_F(RecordOutputTest, TellsOfADirectoryWhoseNameIsNoText) {
  const std::string odd = directory_ + "/\xff";
  Process recorder({"record", "--json", "--after", "0.2", "--directory", odd});
  AwaitStart(recorder);
  EXPECT_EQ(Motorctl({"record", "--now"}).status, 0);
  EXPECT_EQ(Motorctl({"record", "--now"}).status, 0);
  EXPECT_TRUE(Eventually([&] { return Contains(recorder.Out(), "can0\""); }));
  const Json object = Json::parse(recorder.Out().substr(0, recorder.Out().find('\n')));
  EXPECT_TRUE(Contains(object["folder"], directory_ + "/\xEF\xBF\xBD/incident-")) << object;
}

TEST_F(RecordOutputTest, GoesOnWithoutRoomForItsLines) {
  bus::Command(MOTORCTL " record --after 0.2 --directory " + directory_ + " >/dev/full 2>" +
               directory_ + ".err & until grep -qs recording " + directory_ +
               ".err; do sleep 0.05; done; " MOTORCTL " record --now && " MOTORCTL
               " record --now; kill $!; wait $!");
  EXPECT_EQ(Folders().size(), 2U);
  const std::string err = Text(directory_ + ".err");
  std::filesystem::remove(directory_ + ".err");
  EXPECT_TRUE(Contains(err, "lines of standard output are lost: it took nothing")) << err;
}

}  // namespace
