// What the drives of a recording answer to the requests of hosts, and which have to come.
#include <initializer_list>

#include "tests/sim/replay_bench.h"

namespace {

const std::vector<At> kRead = {{0, "601#4041600000000000 T"},
                               {7, "581#4B41600021000000 R"},
                               {20, "601#4041600000000000 T"},
                               {25, "581#4B41600023000000 R"},
                               {30, "601#2B40600006000000 T"},
                               {31, "581#6040600000000000 R"},
                               {50, "701#05 R"}};

TEST_F(ReplayTest, AnswersInTheOrderOfTheRequestsAfterTheRecordedTime) {
  Start(kRead);
  Hear(100, "601#4041600000000000");
  Hear(300, "601#4041600000000000");
  Hear(310, "601#2B40600006000000");
  EXPECT_FALSE(Over());
  Until(400);
  EXPECT_EQ(sent_, (Sent{"107 581#4B41600021000000", "305 581#4B41600023000000",
                         "311 581#6040600000000000", "330 701#05"}));
  EXPECT_TRUE(Over());
}

// One that waits for a state asks as often as its timing has it.
TEST_F(ReplayTest, TakesRepetitionsMoreOrLessOften) {
  Start(kRead);
  Hear(0, "601#4041600000000000");
  Hear(30, "601#2B40600006000000");
  Until(100);
  EXPECT_EQ(sent_, (Sent{"7 581#4B41600021000000", "31 581#6040600000000000", "50 701#05"}));
  EXPECT_TRUE(Over());

  Start(kRead);
  for (const int ms : {0, 20, 40}) Hear(ms, "601#4041600000000000");
  Hear(60, "601#2B40600006000000");
  Until(70);
  EXPECT_EQ(sent_, (Sent{"7 581#4B41600021000000", "25 581#4B41600023000000",
                         "45 581#4B41600023000000", "61 581#6040600000000000"}));
}

TEST_F(ReplayTest, TellsTheFirstRequestThatIsAnother) {
  Start(kRead);
  Hear(0, "601#4041600000000000");
  EXPECT_EQ(Complaint([&] { Hear(20, "601#2B4060000F000000"); }),
            "bus.log:5: expected 601#2B40600006000000, came 601#2B4060000F000000");
  Start(kRead);
  EXPECT_EQ(Complaint([&] { Hear(0, "602#4041600000000000"); }),
            "bus.log:1: expected 601#4041600000000000, came 602#4041600000000000");
  Start(kRead);
  EXPECT_EQ(Complaint([&] { Hear(0, "201#0000"); }),
            "bus.log:1: expected 601#4041600000000000, came 201#0000");
}

TEST_F(ReplayTest, TellsWhatHasNotComeAndWhatIsTooMuch) {
  Start(kRead);
  EXPECT_EQ(Complaint([&] { Until(2100); }),
            "bus.log:1: expected 601#4041600000000000, came nothing for 2.0 s");
  EXPECT_GT(now_ms_, 1990);
  Start(kRead);
  Hear(0, "601#4041600000000000");
  EXPECT_EQ(Complaint([&] { Until(2100); }),
            "bus.log:5: expected 601#2B40600006000000, came nothing for 2.0 s");
  Start(kRead);
  Hear(0, "601#4041600000000000");
  Hear(10, "601#2B40600006000000");
  EXPECT_EQ(Complaint([&] { Hear(20, "601#2B40600007000000"); }),
            "bus.log:7: expected no more frame of the host, came 601#2B40600007000000");
}

// The objects were all written before.
const std::vector<At> kStopped = {{0, "601#23FF600000000000 T"},
                                  {1, "581#60FF600000000000 R"},
                                  {10, "000#0101 T"},
                                  {20, "601#23FF600064000000 T"},
                                  {21, "581#60FF600000000000 R"},
                                  {2000, "601#23FF600000000000 T"},
                                  {2001, "581#60FF600000000000 R"},
                                  {2010, "000#8001 T"},
                                  {3000, "601#23FF600000000000 T"},
                                  {3001, "581#60FF600000000000 R"},
                                  {3010, "000#0101 T"}};

TEST_F(ReplayTest, TellsALastStopThatIsLeftOut) {
  const auto hear = [this](std::initializer_list<const char*> texts) {
    Start(kStopped);
    for (const char* text : texts) Hear(now_ms_ + 10, text);
    return Complaint([this] { Until(9000); });
  };
  const char* const zero = "601#23FF600000000000";
  const char* const turn = "601#23FF600064000000";
  EXPECT_EQ(hear({zero, "000#0101", turn, zero, "000#8001", zero, "000#0101"}), "none");
  EXPECT_TRUE(Over());
  EXPECT_EQ(hear({zero, "000#0101", turn}),
            "bus.log:6: expected 601#23FF600000000000, came nothing for 2.0 s");
  EXPECT_EQ(hear({zero, "000#0101", turn, zero}),
            "bus.log:8: expected 000#8001, came nothing for 2.0 s");
  EXPECT_EQ(hear({zero, "000#0101", turn, zero, "000#8001"}),
            "bus.log:9: expected 601#23FF600000000000, came nothing for 2.0 s");
  EXPECT_EQ(hear({zero, "000#0101", turn, zero, "000#8001", zero}),
            "bus.log:11: expected 000#0101, came nothing for 2.0 s");
}

// A fault that is reset until it is over.
TEST_F(ReplayTest, TakesMoreOrFewerTurnsOfALoopOfWrites) {
  std::vector<At> lines;
  for (int ms = 0; ms < 600; ms += 200) {
    lines.push_back({ms, "601#2B40600080000000 T"});
    lines.push_back({ms + 1, "581#6040600000000000 R"});
    lines.push_back({ms + 100, "601#2B40600000000000 T"});
    lines.push_back({ms + 101, "581#6040600000000000 R"});
  }
  lines.push_back({700, "601#2B40600006000000 T"});
  lines.push_back({701, "581#6040600000000000 R"});
  for (const int turns : {1, 2, 3, 5}) {
    Start(lines);
    for (int turn = 0; turn < turns; ++turn) {
      Hear(now_ms_ + 100, "601#2B40600080000000");
      Hear(now_ms_ + 100, "601#2B40600000000000");
    }
    Hear(now_ms_ + 100, "601#2B40600006000000");
    EXPECT_EQ(Complaint([this] { Until(9000); }), "none") << turns;
    EXPECT_TRUE(Over()) << turns;
  }
}

TEST_F(ReplayTest, KeepsTheOrderOfEachNodeAndOfWhatGoesToAll) {
  const std::vector<At> lines = {{0, "000#8000 T"},
                                 {10, "601#2B40600006000000 T"},
                                 {11, "581#6040600000000000 R"},
                                 {20, "602#2B40600006000000 T"},
                                 {21, "582#6040600000000000 R"},
                                 {30, "000#0102 T"},
                                 {40, "000#0100 T"}};
  Start(lines);
  Hear(0, "000#8000");
  Hear(1, "602#2B40600006000000");
  Hear(2, "000#0102");
  Hear(3, "601#2B40600006000000");
  Hear(4, "000#0100");
  Until(100);
  EXPECT_TRUE(Over());

  Start(lines);
  EXPECT_EQ(Complaint([&] { Hear(0, "601#2B40600006000000"); }),
            "bus.log:1: expected 000#8000, came 601#2B40600006000000");
  Start(lines);
  Hear(0, "000#8000");
  Hear(1, "602#2B40600006000000");
  Hear(2, "000#0102");
  EXPECT_EQ(Complaint([&] { Hear(3, "000#0100"); }),
            "bus.log:2: expected 601#2B40600006000000, came 000#0100");
}

}  // namespace
