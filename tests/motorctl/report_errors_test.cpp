// Logs and folders that are not as they should be: what is said, and what is reported all the same.
#include "report_bench.h"

namespace motorctl {
namespace {

constexpr char kRead[] =
    "; what is read is a folder of motorctl record, a log of candump (-L) or an .asc file";

// The line that says why nothing is reported; DIR stands for the folder of the test.
std::string Refusal(const std::string& path, const Folder& folder, const How& how = {}) {
  try {
    WithReport(path, how, path, [](const ReportOf&) { ADD_FAILURE() << "reported"; });
  } catch (const LogUnreadable& error) {
    std::string text = error.what();
    for (std::size_t at = 0; (at = text.find(folder.path())) != std::string::npos;) {
      text.replace(at, folder.path().size(), "DIR");
    }
    return text;
  }
  return "";
}

Lines Notes(const std::string& log, const How& how = {}) {
  return PartOf(TextOf(log, how), "About the log");
}

TEST(ReportErrorsTest, SaysWhatIsWrongWithALogThatHoldsNothing) {
  const Folder folder;
  const auto refusal = [&](const std::string& text) {
    return Refusal(folder.Write("log", text), folder);
  };
  EXPECT_EQ(Refusal(folder.path() + "/absent", folder),
            "DIR/absent: No such file or directory; name a folder of motorctl record, or a log");
  EXPECT_EQ(refusal(""), "DIR/log: is empty: nothing was recorded");
  EXPECT_EQ(refusal("\n\n"), "DIR/log: is empty: nothing was recorded");
  EXPECT_EQ(refusal("date Sun Nov 22 01:44:58 2026\nbase hex  timestamps absolute\n"),
            "DIR/log: holds no frame: nothing was recorded");
  EXPECT_EQ(refusal(std::string("\x7f"
                                "ELF\x02\x00\x01\n\x03\x04",
                                10)),
            std::string("DIR/log:1: is not text") + kRead);
  EXPECT_EQ(refusal("\nNov 22 01:00:00 host kernel: eth0 up\nNov 22 01:00:01 host\n"),
            std::string("DIR/log:2: no frame in it, nor in the other lines: \"Nov 22 01:00:00 host "
                        "kernel: eth0 up\"") +
                kRead);
}

TEST(ReportErrorsTest, SaysWhichFolderToName) {
  const Folder folder;
  EXPECT_EQ(Refusal(folder.path(), folder),
            "DIR: no bus.log in it; name a folder of motorctl record, or a log");
  for (const char* const name :
       {"incident-20261122T014500.123Z-can0", "incident-20261122T020000.000Z-can0", "other"}) {
    std::filesystem::create_directory(folder.path() + "/" + name);
  }
  EXPECT_EQ(Refusal(folder.path() + "/", folder),
            "DIR/: 2 incidents in it; name one, the newest is "
            "DIR/incident-20261122T020000.000Z-can0");
}

TEST(ReportErrorsTest, ShowsNothingThatATerminalObeys) {
  const Folder folder;
  const std::string right_to_left = {'\xe2', '\x80', '\xae'};
  const std::string odd =
      "/incident-\x1b[2J\n\xc2\x9b\xc3\xa4" + right_to_left + "\xf0\x9f\x9a\x97\xff";
  const std::string shown =
      "DIR/incident-\\x1B[2J\\x0A\\xC2\\x9B\xc3\xa4\\xE2\\x80\\xAE\xf0\x9f\x9a\x97\\xFF";
  const std::string path = folder.path() + odd;
  std::filesystem::create_directory(path);
  EXPECT_EQ(Refusal(folder.path(), folder),
            "DIR: 1 incident in it; name one, the newest is " + shown);
  EXPECT_EQ(Refusal(path, folder),
            shown + ": no bus.log in it; name a folder of motorctl record, or a log");
  WithReport(folder.Write(odd + "/bus.log", "(1.0) can0 181#00\n"), {}, path,
             [&](const ReportOf& of) {
               EXPECT_EQ("DIR" + Split(ReportText(of))[0].substr(folder.path().size()), shown);
             });

  How how = {"zl"};
  how.vehicle.wheels.resize(1);
  how.vehicle.wheels[0].name = "v\xc3\xa4nster\xc2\x9b[31m";
  how.vehicle.wheels[0].node = 1;
  const Lines wheels = PartOf(TextOf("(1.0) can0 181#00\n", how), "Wheels");
  ASSERT_FALSE(wheels.empty());
  const std::string name = "  v\xc3\xa4nster\\xC2\\x9B[31m, node 1";
  EXPECT_EQ(wheels[0].substr(0, name.size()), name);
}

TEST(ReportErrorsTest, ReportsOneOfSeveralInterfaces) {
  const std::string log =
      "(1.0) can0 701#05 T\n(1.1) can1 702#05 T\n(1.2) can1 702#05 T\n(1.3) can2 703#05 T\n";
  EXPECT_EQ(Notes(log), (Lines{"  several interfaces: can0 (1 frame), can1 (2 frames), can2 (1 "
                               "frame); this is about can1, --interface names another"}));
  EXPECT_EQ(PartOf(TextOf(log), "Nodes"), (Lines{"  node 2, this machine: operational"}));
  How how;
  how.interface = "can2";
  EXPECT_EQ(PartOf(TextOf(log, how), "Nodes"), (Lines{"  node 3, this machine: operational"}));
  how.interface = "can7";
  const Folder folder;
  EXPECT_EQ(
      Refusal(folder.Write("log", log), folder, how),
      "DIR/log: no frame of can7, which --interface names; there are: can0 (1 frame), can1 (2 "
      "frames), can2 (1 frame)");
}

TEST(ReportErrorsTest, SaysWhenTheHostMayBeMissing) {
  EXPECT_EQ(
      Notes("(1.0) can0 701#05\n(1.1) can0 181#00000000\n", {"tt"}),
      (Lines{"  no line tells who sent it (candump -x, motorctl record): a host on the machine "
             "that recorded may be missing, and its commands with it"}));
  EXPECT_EQ(Notes("(1.0) can0 701#05 R\n(1.1) can0 181#00000000 R\n", {"tt"}),
            (Lines{"  nothing that the recording machine sent is in it: if the host ran there, its "
                   "commands are missing; motorctl record, with CAP_NET_RAW, has them"}));
  EXPECT_EQ(TextOf("(1.0) can0 701#05 R\n(1.1) can0 201#00000000 T\n", {"tt"}).find("About"),
            std::string::npos);
}

TEST(ReportErrorsTest, LeavesOutLinesThatMakeNoSense) {
  std::string log = "(1.0) can0 701#05 T\n(1.1) can0 70\n(1.2) can0 702#05 T\n";
  EXPECT_EQ(Notes(log), (Lines{"  line 2: no frame in it, left out: \"(1.1) can0 70\""}));
  EXPECT_EQ(PartOf(TextOf(log), "Nodes").size(), 2U);
  for (int i = 0; i < 7; ++i) log += std::string(70, 'x') + "\x1B\n";
  const Lines notes = Notes(log);
  ASSERT_EQ(notes.size(), 6U);
  EXPECT_EQ(notes[4], "  line 7: no frame in it, left out: \"" + std::string(60, 'x') + "...\"");
  EXPECT_EQ(notes[5], "  3 more lines without a frame, left out; motorctl decode marks them");
  EXPECT_EQ(
      Notes("(1.0) can0 701#05 T\nDROPCOUNT: dropped 57 CAN frames on 'can0' socket (total "
            "drops 57)\n"),
      (Lines{"  line 2: 57 frames are missing here: candump did not read can0 in time; missing "
             "so far: 57"}));
}

TEST(ReportErrorsTest, GoesOnWhereTheClockJumpsBack) {
  const std::string log =
      "(1700000010.0) can0 701#05 T\n(1700000011.0) can0 081#1023010000000000 T\n"
      "(1700000003.5) can0 701#05 T\n(1700000004.5) can0 081#1023010000000000 T\n"
      "(1700000004.45) can0 701#05 T\n";
  EXPECT_EQ(Notes(log),
            (Lines{"  line 3: the clock jumps back by 7.500 s; times go on without the jump"}));
  const Lines happened = Happened(log);
  ASSERT_EQ(happened.size(), 2U);
  EXPECT_EQ(happened[1].substr(0, 30), "     +0.000 ! emergency of nod");
  EXPECT_NE(happened[1].find("(2 times, the last at +1.000)"), std::string::npos);
  const auto events = EventsOf(JsonOf(log), "log");
  EXPECT_EQ(events[0]["begin"], 1700000010.0);
  EXPECT_EQ(events[0]["end"], 1700000004.5);  // as the clock showed it
}

TEST(ReportErrorsTest, ReadsTimesOfEveryKind) {
  const auto second_line = [](const std::string& log) { return Split(TextOf(log))[1]; };
  EXPECT_EQ(second_line("(2026-11-22 01:45:08.365098) can0 701#05\n"
                        "(2026-11-22 01:45:09.365098) can0 701#05\n"),
            "can0, 2026-11-22 01:45:08.365, 1.000 s from there on, 2 frames");
  EXPECT_EQ(second_line("(000.000000) can0 701#05\n(000.600000) can0 701#05\n(000.5) can0 701#05\n"
                        "(000.4) can0 701#05\n"),
            "can0, 0.000 s, 1.500 s from there on, 4 frames");  // differences, added up
  EXPECT_EQ(second_line("   0.000000 1  701  Rx   d 1 05\n   0.5 1  701  Rx   d 1 05\n"),
            "1, 0.000 s, 0.500 s from there on, 2 frames");
  EXPECT_EQ(second_line("can0 701#05\ncan0 701#05\n"), "can0, 2 frames");
  EXPECT_EQ(second_line("701#05\n"), "1 frame");
}

TEST(ReportErrorsTest, TellsLinesWhereThereAreNoTimes) {
  const std::string log =
      "can0 701#05 T\ncan0 201#3C000000 T\ncan0 081#1023010000000000 T\ncan0 201#00000000 T\n";
  const std::string text = TextOf(log, {"tt"});
  EXPECT_EQ(
      PartOf(text, "What happened: 1 anomaly (!), the first at line 3"),
      (Lines{"     line 1   node 1: operational",
             "     line 3 ! emergency of node 1: 0x2310 Continuous over current; error register "
             "0x01 generic",
             "              last command: node 1 60.0 rpm"}));
  EXPECT_EQ(PartOf(text, "About the log"),
            (Lines{"  lines without time: silences, late answers, measured speeds and bus load are "
                   "unknown; record with candump -L"}));
}

TEST(ReportErrorsTest, TellsWhatTheFolderDoesNotSay) {
  const Folder folder;
  folder.Write("bus.log", "(1700000000.0) can0 701#05 T\n");
  folder.Write("system.txt",
               "motorctl 0.1.0\nrecorded without CAP_NET_RAW: what this machine sent is missing\n"
               "frames lost by the recorder since its start: 12\nevents not listed: 0\n\n"
               "2: can0: <NOARP>\n    bitrate 250000 sample-point 0.875\n\nvehicle:\nmake: none\n");
  folder.Write("events.jsonl", "{\"time\":1,\"event\":\"boot_up\"\n{}\n");
  const ReportSource source = FindReportSource(folder.path());
  EXPECT_EQ(source.bit_rate, 250000);
  EXPECT_EQ(
      source.notes,
      (Lines{"recorded without CAP_NET_RAW: what the host sent is missing, commands are not "
             "known; record as root or with the capability",
             "the recorder has lost 12 frames since its start: some that seem missing may have "
             "been there",
             "system.txt, vehicle:1:1: make: \"none\" is not zl, tt, hls, amps, kinco or fake; "
             "name the right file with --vehicle",
             "events.jsonl:1: no event, left out with all that follow"}));
}

TEST(ReportErrorsTest, CountsFromTheTriggerOfTheFolder) {
  const Folder folder;
  folder.Write("bus.log",
               "(1700000000.0) can0 701#05 T\n(1700000001.0) can0 081#1023010000000000 T\n");
  folder.Write("system.txt", "motorctl 0.1.0\n\nvehicle:\nmake: zl\nwheels:\n  - {name: left}\n");
  const auto events = [&](const std::string& more) {
    folder.Write(
        "events.jsonl",
        "{\"time\":1700000000.5,\"event\":\"interface_down\",\"trigger\":false,\"node\":null,"
        "\"text\":\"can0 went down\",\"frame\":null}\n" +
            more);
  };
  events("{\"time\":1700000003.0,\"event\":\"emergency\",\"trigger\":true,\"text\":\"it\"}\n");
  std::string text;
  WithReport(folder.path(), {}, "DIR", [&](const ReportOf& of) { text = ReportText(of); });
  EXPECT_EQ(PartOf(text, "DIR")[2], "trigger: it");
  EXPECT_EQ(PartOf(text, "DIR")[3], "times in s from the trigger, 2023-11-14 22:13:23.000 UTC");
  EXPECT_EQ(PartOf(text, "What happened")[1], "     -2.500 ! can0 went down");
  EXPECT_EQ(FindReportSource(folder.path()).vehicle->wheels.at(0).name, "left");
  // Somebody asked for it: what was wrong came before.
  events("{\"time\":1700000003.0,\"event\":\"request\",\"trigger\":true,\"text\":\"SIGUSR1\"}\n");
  WithReport(folder.path(), {}, "DIR", [&](const ReportOf& of) { text = ReportText(of); });
  EXPECT_EQ(PartOf(text, "DIR")[3],
            "times in s from the first anomaly, 2023-11-14 22:13:20.500 UTC");
  EXPECT_EQ(PartOf(text, "What happened").back(), "     +2.500   SIGUSR1");
}

}  // namespace
}  // namespace motorctl
