// Logs that are to be replayed, and those that cannot be.
#include "sim/recording.h"

#include <stdexcept>

#include "tests/sim/candump_text.h"
#include "tests/sim/recorded.h"

namespace {

constexpr char kLog[] =
    "(1690000000.100000) can0 000#8101 T\n"
    "(1690000000.350000) can0 701#00 R\n";

std::string WhyNot(const std::string& log, const std::string& interface = "") {
  try {
    Recorded(log, interface);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "it can be replayed";
}

TEST(RecordingTest, KnowsWhoSentWhatAndWhen) {
  const sim::Recording recording = Recorded(kLog);
  ASSERT_EQ(recording.lines.size(), 2U);
  EXPECT_TRUE(recording.lines[0].from_host);
  EXPECT_EQ(ToText(recording.lines[0].frame), "000#8101");
  EXPECT_EQ(recording.lines[0].time.count(), 0);
  EXPECT_FALSE(recording.lines[1].from_host);
  EXPECT_EQ(ToText(recording.lines[1].frame), "701#00");
  EXPECT_EQ(recording.lines[1].time.count(), 250'000);
  EXPECT_EQ(recording.lines[1].number, 2U);
}

TEST(RecordingTest, TakesOneInterfaceOfSeveral) {
  const std::string both = std::string("(1690000000.0) can1 123#01 T\n") + kLog;
  EXPECT_EQ(Recorded(both, "can0").lines.size(), 2U);
  EXPECT_EQ(WhyNot(both),
            "bus.log:2: a frame of can0, before of can1: say which one with --log-interface");
  EXPECT_EQ(WhyNot(both, "can7"), "bus.log:3: up to here no frame of can7, but of can0, can1");
}

TEST(RecordingTest, LeavesOutWhatNoDriveOfOursSends) {
  const sim::Recording recording = Recorded(std::string(kLog) +
                                            "(1690000000.4) can0 20000008#0000000000000000 R\n"
                                            "(1690000000.4) can0 12345678#00 R\n"
                                            "(1690000000.4) can0 701#R T\n"
                                            "(1690000000.4) can0 123##100 T\n");
  EXPECT_EQ(recording.lines.size(), 2U);
  EXPECT_EQ(recording.left_out, 4U);
}

TEST(RecordingTest, NamesTheLineOfWhatItCannotUse) {
  EXPECT_EQ(WhyNot(""), "bus.log:1: up to here no frame: is the log empty?");
  EXPECT_EQ(WhyNot("\n\n"), "bus.log:2: up to here no frame: is the log empty?");
  EXPECT_EQ(WhyNot(std::string(kLog) + "(1690000001.0) can0 701#05\n"),
            "bus.log:3: it does not tell who sent the frame (R or T at the end): record with "
            "'motorctl record' or 'candump -L -x'");
  EXPECT_EQ(WhyNot("(1690000000.1) can0 000#8101 T\n"),
            "bus.log:1: up to here no frame that a drive sent (R): nothing answered this host");
  EXPECT_EQ(WhyNot("\n(1690000000.1) can0 701#00 R\n"),
            "bus.log:2: up to here no frame that the host sent (T): was it recorded on another "
            "machine, or without CAP_NET_RAW?");
  EXPECT_EQ(WhyNot(std::string(kLog) + "(1689999999.1) can0 701#05 R\n"),
            "bus.log:3: the clock goes back by 1.250 s: what comes before and after is to be "
            "replayed by itself");
  EXPECT_EQ(WhyNot("can0 701#05 R\n"),
            "bus.log:1: no time in seconds before the frame: \"can0 701#05 R\"");
  EXPECT_EQ(WhyNot("(2023-07-22 04:26:40.1)  can0  RX - -  701   [1]  05\n"),
            "bus.log:1: no time in seconds before the frame: "
            "\"(2023-07-22 04:26:40.1)  can0  RX - -  701   [1]  05\"");
}

TEST(RecordingTest, TellsWhatIsNoSuchLog) {
  EXPECT_EQ(WhyNot("No.  Time  Source\n"),
            "bus.log:1: no frame as candump -L -x writes it, but \"No.  Time  Source\"");
  EXPECT_EQ(
      WhyNot("date Wed Nov 22 01:35:49 2026\n"),
      "bus.log:1: no frame as candump -L -x writes it, but \"date Wed Nov 22 01:35:49 2026\"");
  EXPECT_EQ(WhyNot(std::string("\x7f"
                               "ELF\x02\x01\x01\n",
                               8)),
            "bus.log:1: no frame as candump -L -x writes it, but what is not text");
  EXPECT_EQ(WhyNot(std::string(100'000, '\xAA')),
            "bus.log:1: no frame as candump -L -x writes it, but what is not text");
}

// By a recorder that was killed, or a disk that was full.
TEST(RecordingTest, TellsALineThatIsCutOff) {
  const std::string log = kLog;
  for (const std::size_t missing : {2U, 5U, 8U, 12U, 20U}) {
    const std::string cut = log.substr(0, log.size() - missing);
    EXPECT_NE(WhyNot(cut).find("bus.log:2: the line is cut off: "), std::string::npos)
        << cut << WhyNot(cut);
  }
  EXPECT_EQ(Recorded(log.substr(0, log.size() - 1)).lines.size(), 2U);  // only its line break
  EXPECT_EQ(WhyNot("(1690000000.1) can0 000#81\n(16900000"),
            "bus.log:1: it does not tell who sent the frame (R or T at the end): record with "
            "'motorctl record' or 'candump -L -x'");
}

// The two directions are written as a busy kernel hands them over.
TEST(RecordingTest, PutsNeighboursInTheOrderOfTheirTimes) {
  const sim::Recording recording = Recorded(
      "(1690000000.100000) can0 000#8101 T\n(1690000000.061000) can0 701#00 R\n"
      "(1690000000.200000) can0 701#05 R\n");
  ASSERT_EQ(recording.lines.size(), 3U);
  EXPECT_EQ(ToText(recording.lines[0].frame), "701#00");
  EXPECT_EQ(recording.lines[0].number, 2U);
  EXPECT_EQ(recording.lines[0].time.count(), 0);
  EXPECT_EQ(recording.lines[2].time.count(), 139'000);
}

TEST(RecordingTest, TellsWhyALogCannotBeRead) {
  EXPECT_THROW(sim::ReadRecording("/nowhere/bus.log", ""), std::runtime_error);
  try {
    sim::ReadRecording("/tmp", "");
    ADD_FAILURE() << "a directory was read";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "/tmp: Is a directory");
  }
}

}  // namespace
