// What a report finds: a small log for each, and the very lines.
#include "report_bench.h"

namespace motorctl {
namespace {

TEST(ReportFindingsTest, TellsEmergencyMessagesAndTheirEnd) {
  EXPECT_EQ(Happened(LogOf({"1.0 701#05", "2.0 081#1023010000000000", "3.5 081#0000000000000000"})),
            (Lines{
                "     -1.000   node 1: operational",
                "     +0.000 ! emergency of node 1: 0x2310 Continuous over current; error register "
                "0x01 generic",
                "     +1.500   emergency of node 1: 0x0000 No error; error register 0x00 no error",
            }));
}

TEST(ReportFindingsTest, MakesOneOfWhatRepeats) {
  Lines frames = Repeated("081#1023010000000000", 1000, 4000, 500);
  frames.push_back("9.0 081#1023010000000000");
  EXPECT_EQ(Happened(LogOf(frames)),
            (Lines{
                "     +0.000 ! emergency of node 1: 0x2310 Continuous over current; error register "
                "0x01 generic (6 times, the last at +2.500)",
                "     +8.000 ! emergency of node 1: 0x2310 Continuous over current; error register "
                "0x01 generic",
            }));
}

TEST(ReportFindingsTest, TellsErrorCodesOfStatusPdos) {
  // Of both motors of a node, then over.
  EXPECT_EQ(Happened(LogOf({"1.0 481#0000000037003700", "2.0 481#0000103237003700",
                            "3.0 481#1023103237003700", "4.0 481#0000000037003700"}),
                     {"zl"}),
            (Lines{
                "     +0.000 ! node 1 motor 2: error code 0x3210 DC link over voltage",
                "     +1.000 ! node 1 motor 1: error code 0x2310 Continuous over current",
                "     +2.000   node 1 motor 1: no error code any more",
                "     +2.000   node 1 motor 2: no error code any more",
            }));
}

TEST(ReportFindingsTest, TellsWhatADriveTurnsTo) {
  // Enabled, then a fault by itself; a state that nobody asked for is one, too.
  EXPECT_EQ(
      Happened(LogOf({"1.0 601#2B40600006000000", "1.001 581#6040600000000000", "1.1 481#00002100",
                      "1.2 601#2B4060000F000000", "1.201 581#6040600000000000", "1.3 481#00002700",
                      "9.0 481#00000800", "20.0 481#00002700", "30.0 481#00002100"}),
               {"hls"}),
      (Lines{
          "     -7.700   node 1: Ready to switch on -> Operation enabled",
          "     +0.000 ! node 1: Operation enabled -> Fault",
          "    +11.000   node 1: Fault -> Operation enabled",
          "    +21.000 ! node 1: Operation enabled -> Ready to switch on, nobody had told it to",
      }));
}

TEST(ReportFindingsTest, TakesStatesAndErrorsFromSdoAnswers) {
  EXPECT_EQ(Happened(LogOf({"1.0 601#4041600000000000", "1.01 581#4B41600027000000",
                            "2.0 601#4041600000000000", "2.01 581#4B41600008000000",
                            "2.1 601#403F600000000000", "2.11 581#4B3F600010230000"}),
                     {"tt"}),
            (Lines{
                "     +0.000 ! node 1: Operation enabled -> Fault",
                "     +0.100 ! node 1: error code 0x2310 Continuous over current",
            }));
}

TEST(ReportFindingsTest, TellsThePhasesOfAnEmergencyStop) {
  EXPECT_EQ(
      Happened(LogOf({"1.0 481#000050000000", "2.0 481#000037000000", "3.0 481#000050000100",
                      "5.0 481#000050000000", "6.0 601#2B4060000F000000", "6.5 481#000037000000"}),
               {"kinco"}),
      (Lines{
          "     -1.000   node 1: Emergency stop -> Operation enabled",
          "     +0.000 ! node 1: emergency stop",
          "     +0.000   node 1: digital inputs 0x0001",
          std::string(
              "     +2.000   node 1: digital inputs 0x0000, all released while the drive ") +
              "shows the emergency stop",
          "     +3.500   node 1: emergency stop is over: Operation enabled, after 3.500 s",
      }));
}

TEST(ReportFindingsTest, TellsARestartFromABootUpThatWasAskedFor) {
  EXPECT_EQ(Happened(LogOf({"1.0 701#00", "2.0 000#0101", "2.5 701#05", "3.0 000#8101",
                            "3.2 701#00", "4.0 000#0100", "4.5 701#05", "5.0 701#00"})),
            (Lines{
                "     -4.000   boot-up of node 1",
                "     -3.000   NMT: start, node 1",
                "     -2.500   node 1: operational",
                "     -2.000   NMT: reset, node 1",
                "     -1.800   boot-up of node 1",
                "     -1.000   NMT: start, all nodes",
                "     -0.500   node 1: operational",
                "     +0.000 ! boot-up of node 1, which was operational: nobody had reset it",
            }));
}

TEST(ReportFindingsTest, TellsANodeThatLeavesOperationByItself) {
  EXPECT_EQ(Happened(LogOf({"1.0 701#05", "2.0 701#05", "3.0 701#7F", "3.5 000#0101", "4.0 701#05",
                            "4.5 000#0201", "5.0 701#04"})),
            (Lines{
                "     -2.000   node 1: operational",
                "     +0.000 ! node 1: pre-operational, was operational: nobody had told it to",
                "     +0.500   NMT: start, node 1",
                "     +1.000   node 1: operational",
                "     +1.500   NMT: stop, node 1",
                "     +2.000   node 1: stopped",
            }));
}

TEST(ReportFindingsTest, TellsHeartbeatsThatAreMissing) {
  const std::string log =
      Merged({Repeated("701#05", 0, 5000, 500), Repeated("701#05", 8000, 9000, 500),
              Repeated("702#05", 0, 9000, 500)});
  EXPECT_EQ(Happened(log), (Lines{
                               "     -5.000   node 1: operational",
                               "     -5.000   node 2: operational",
                               "     +0.000 ! no heartbeat of node 1 for 3.500 s",
                               "     +3.000   node 1: operational",
                           }));
  // The last one was 400 ms before the end: that is not late yet.
  EXPECT_EQ(Happened(Merged({Repeated("701#05", 0, 5000, 500), Repeated("123#", 0, 5900, 20)})),
            (Lines{"     +0.000   node 1: operational"}));
  EXPECT_EQ(
      PartOf(TextOf(Merged({Repeated("701#05", 0, 5000, 500), Repeated("123#", 0, 7000, 20)})),
             "Nodes"),
      (Lines{"  node 1: no heartbeat"}));
}

TEST(ReportFindingsTest, TellsPdosAndCommandsThatAreMissing) {
  const std::string log =
      Merged({Repeated("181#00000000", 0, 3000, 20), Repeated("181#00000000", 4000, 5000, 20),
              Repeated("201#3C000000", 5, 4500, 20), Repeated("202#00000000", 6, 4500, 20),
              Repeated("702#05", 0, 5000, 100)});
  EXPECT_EQ(
      Happened(log, {"tt"}),
      (Lines{
          "     -3.000   node 2: operational",
          "     +0.000 ! no TPDO1 of node 1 for 1.020 s",
          "              last command: node 1 60.0 rpm 0.015 s before, measured 0.0 rpm",
          "                            node 2 0.0 rpm 0.014 s before",
          std::string("     +1.505 ! no target velocity to node 1, the last one was not zero, ") +
              "for 0.495 s, to the end of the log",
          std::string("     +1.506   no target velocity to node 2, the last one was zero, for ") +
              "0.494 s, to the end of the log",
      }));
  // What a host stops on purpose is not missing, nor what it lays out otherwise.
  EXPECT_EQ(Happened(Merged({Repeated("181#00000000", 0, 3000, 20),
                             {"2.999 000#8001"},
                             Repeated("123#", 0, 5000, 20)})),
            (Lines{"     +2.999   NMT: enter pre-operational, node 1"}));
  EXPECT_EQ(Happened(Merged({Repeated("181#00000000", 0, 3000, 20),
                             {"2.998 601#2300180181010080", "2.999 581#6000180100000000"},
                             Repeated("123#", 0, 5000, 20)})),
            Lines{});
}

// Some come when something changes: many at once, and none for long.
TEST(ReportFindingsTest, MissesNoPdoThatComesOnEvents) {
  const Lines bus = Repeated("123#", 0, 9000, 20);
  EXPECT_EQ(Happened(Merged({bus, Repeated("481#000037003700", 1000, 1300, 10)}), {"tt"}), Lines{});
  EXPECT_EQ(Happened(Merged({bus,
                             {"0.0 481#00003700", "2.0 481#00003700"},
                             Repeated("481#000037003700", 3000, 4200, 10)}),
                     {"tt"}),
            Lines{});
}

// A make that takes its commands by SDO.
TEST(ReportFindingsTest, TellsWrittenCommandsThatAreMissing) {
  EXPECT_EQ(
      Happened(
          Merged({Repeated("601#2BF02F093C000000", 0, 2000, 20),
                  Repeated("581#60F02F0900000000", 1, 2000, 20), Repeated("701#05", 0, 3000, 100)}),
          {"amps"}),
      (Lines{
          "     -2.000   node 1: operational",
          "     +0.000 ! no target velocity to node 1, the last one was not zero, for 0.920 s, "
          "to the end of the log",
          "              last command: node 1 60.0 rpm 0.020 s before",
      }));
}

TEST(ReportFindingsTest, TellsASilenceOfAllAsOne) {
  EXPECT_EQ(
      Happened(Merged({Repeated("701#05", 0, 3000, 100), Repeated("701#05", 13000, 16000, 100),
                       Repeated("181#00000000", 5, 3000, 20),
                       Repeated("181#00000000", 13005, 16000, 20)})),
      (Lines{
          "     -2.985   node 1: operational",
          "     +0.000 ! not one frame for 10.015 s: the bus, the recorder, or a clock that was "
          "set",
      }));
}

TEST(ReportFindingsTest, TellsLateAndMissingAnswersAndAborts) {
  EXPECT_EQ(Happened(LogOf({"1.0 601#4041600000000000", "1.25 581#4B41600027000000",
                            "2.0 601#4041600000000000", "2.1 601#4041600000000000",
                            "2.101 581#4B41600027000000", "3.0 601#2B40600006000000",
                            "3.001 581#8040600030000906", "9.0 701#05"})),
            (Lines{
                "     +0.000 ! SDO node 1: late answer about 0x6041:00 Statusword, after 0.250 s: "
                "the library waits 0.100 s",
                "     +0.750 ! SDO node 1: no answer about 0x6041:00 Statusword",
                "     +1.751 ! SDO node 1: abort 0x6040:00 Controlword: 0x06090030 Invalid value",
                "     +7.750   node 1: operational",
            }));
  EXPECT_EQ(
      Happened(LogOf({"1.0 581#6040600000000000", "4.0 601#8017100000000405", "9.0 123#"})),
      (Lines{"     +0.000 ! SDO node 1: abort 0x1017:00 Producer heartbeat time: 0x05040000 SDO "
             "protocol timed out (by the host)"}));
}

TEST(ReportFindingsTest, TakesAQuestionForNoAnomaly) {
  EXPECT_EQ(Happened(LogOf({"1.0 601#4034120000000000", "1.01 581#8034120000000206",
                            "2.0 601#4018100900000000", "2.01 581#8018100911000906",
                            "3.0 601#2B34120001000000", "3.01 581#8034120000000206"})),
            (Lines{
                "     -2.000   SDO node 1: abort 0x1234:00: 0x06020000 Object does not exist",
                "     -1.000   SDO node 1: abort 0x1018:09: 0x06090011 Sub-index does not exist",
                "     +0.000 ! SDO node 1: abort 0x1234:00: 0x06020000 Object does not exist",
            }));
}

TEST(ReportFindingsTest, TakesAScanForNoAnomaly) {
  EXPECT_EQ(
      Happened(LogOf({"1.0 602#4000100000000000", "1.1 602#8000100000000405"})),
      (Lines{"     +0.100   SDO node 2: abort 0x1000:00 Device type: 0x05040000 SDO protocol timed "
             "out (by the host)"}));
}

TEST(ReportFindingsTest, NamesNodesThatNeverAnsweredOnce) {
  const std::string text =
      TextOf(LogOf({"1.0 602#4000100000000000", "1.1 603#4000100000000000",
                    "1.2 601#4000100000000000", "1.201 581#4300100092010200", "3.0 701#05"}));
  EXPECT_EQ(PartOf(text, "What happened: no anomaly"),
            (Lines{"     +2.000   node 1: operational"}));
  EXPECT_EQ(PartOf(text, "Nodes"),
            (Lines{"  node 1: operational; SDO: 1 request, slowest answer 0.001 s",
                   "  asked, and never heard: 2, 3"}));
}

TEST(ReportFindingsTest, TakesSegmentsOfBlocksForNoCommands) {
  // One looks like the value of the error code.
  EXPECT_EQ(Happened(LogOf({"1.0 601#A00810007F000000", "1.001 581#C208100010000000",
                            "1.002 601#A300000000000000", "1.003 581#433F600010230000",
                            "1.004 601#A201000000000000"})),
            Lines{});
}

TEST(ReportFindingsTest, TellsErrorFrames) {
  EXPECT_EQ(
      Happened(
          LogOf({"1.0 701#05", "2.0 20000004#0004000000006000", "3.0 20000080#0000000000000000"})),
      (Lines{
          "     -1.000   node 1: operational",
          "     +0.000 ! error reported by the controller: controller problem (warning level of "
          "receive errors); transmit errors 96, receive errors 0",
          "     +1.000 ! error reported by the controller: bus error",
      }));
}

TEST(ReportFindingsTest, KeepsTheTextShort) {
  Lines frames;
  for (int node = 1; node < 100; ++node) {
    char frame[64];
    std::snprintf(frame, sizeof(frame), "%d.0 %03X#1023010000000000", node, 0x80 + node);
    frames.emplace_back(frame);
    std::snprintf(frame, sizeof(frame), "%d.5 %03X#7F", node, 0x700 + node);
    frames.emplace_back(frame);
  }
  const Lines happened = Happened(LogOf(frames));
  ASSERT_EQ(happened.size(), 41U);
  EXPECT_EQ(
      happened[0],
      "     +0.000 ! emergency of node 1: 0x2310 Continuous over current; error register 0x01 "
      "generic");
  EXPECT_EQ(std::count_if(happened.begin(), happened.end(),
                          [](const std::string& line) { return line[12] == '!'; }),
            25);
  EXPECT_EQ(happened[40], "  158 more: --json, --html");
}

}  // namespace
}  // namespace motorctl
