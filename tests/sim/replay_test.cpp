// What the drives of a recording do for hosts that are like the recorded one, and for others. Without
// a bus: time is what the test says it is.
#include "sim/replay.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tests/sim/candump_text.h"
#include "tests/sim/recorded.h"

namespace {

using std::chrono::milliseconds;

constexpr auto kPatience = std::chrono::seconds(2);

// "601#... T" at these milliseconds of the recording.
struct At {
  int ms;
  std::string text;
};

std::string Log(const std::vector<At>& lines) {
  std::string log;
  for (const At& line : lines) {
    char time[32];
    std::snprintf(time, sizeof time, "(%d.%06d) can0 ", 1000 + line.ms / 1000,
                  line.ms % 1000 * 1000);
    log += time + line.text + "\n";
  }
  return log;
}

// Every 10 ms of a stretch.
void Hold(std::vector<At>& lines, int from_ms, int to_ms, const std::string& text) {
  for (int ms = from_ms; ms < to_ms; ms += 10) lines.push_back({ms, text});
}

class ReplayTest : public testing::Test {
 protected:
  void Start(const std::vector<At>& lines, sim::Time patience = kPatience) {
    replay_.emplace(Recorded(Log(lines)), patience);
    now_ms_ = 0;
    sent_.clear();
  }

  // Lets time pass, and notes "12 581#..." for everything that the drives send.
  void Until(int ms) {
    for (; now_ms_ <= ms; ++now_ms_) {
      replay_->Advance(Now(), [this](const sim::Frame& frame) {
        sent_.push_back(std::to_string(now_ms_) + " " + ToText(frame));
      });
    }
    --now_ms_;
  }
  void Hear(int ms, const std::string& text) {
    Until(ms);
    replay_->Hear(FromText(text), Now());
  }
  // Sends the same again and again.
  void HearAll(int from_ms, int to_ms, const std::string& text) {
    for (int ms = from_ms; ms < to_ms; ms += 10) Hear(ms, text);
  }

  template <typename Deed>
  std::string Complaint(Deed deed) {
    try {
      deed();
    } catch (const sim::Divergence& divergence) {
      return divergence.what();
    }
    return "none";
  }

  bool Over() const { return replay_->Over(Now()); }
  sim::Time Now() const { return milliseconds(now_ms_); }

  std::optional<sim::Replay> replay_;
  int now_ms_ = 0;
  std::vector<std::string> sent_;
};

using Sent = std::vector<std::string>;

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

// The wait for a boot-up message, by a slow host and by a quick one.
TEST_F(ReplayTest, KeepsInStepWithTheHost) {
  const std::vector<At> lines = {{0, "701#7F R"},    {100, "000#8101 T"},
                                 {300, "701#00 R"},  {350, "000#0101 T"},
                                 {400, "701#05 R"},  {500, "081#1023010000000000 R"},
                                 {510, "000#8001 T"}};
  Start(lines);
  Hear(1000, "000#8101");
  Hear(1900, "000#0101");
  Hear(2100, "000#8001");
  Until(2200);
  EXPECT_EQ(sent_, (Sent{"0 701#7F", "1200 701#00", "1950 701#05", "2050 081#1023010000000000"}));
  EXPECT_TRUE(Over());

  Start(lines);
  Hear(50, "000#8101");
  Hear(60, "000#0101");
  Hear(70, "000#8001");
  Until(80);
  EXPECT_EQ(sent_, (Sent{"0 701#7F", "60 701#00", "70 701#05", "70 081#1023010000000000"}));
}

// From before the host was there; it would take it for the answer to its reset.
TEST_F(ReplayTest, DoesNotSendAfterTheFirstFrameWhatWasBefore) {
  Start({{0, "701#7F R"}, {500, "701#00 R"}, {600, "000#8101 T"}, {700, "701#00 R"}});
  Hear(10, "000#8101");
  Until(200);
  EXPECT_EQ(sent_, (Sent{"0 701#7F", "110 701#00"}));
}

std::vector<At> Drive(const std::string& turning = "201#3C00 T") {
  std::vector<At> lines = {{0, "000#0101 T"}};
  Hold(lines, 10, 1000, "201#0000 T");
  Hold(lines, 1000, 1040, "201#1400 T");
  Hold(lines, 1040, 1080, "201#2800 T");
  Hold(lines, 1080, 3000, turning);
  lines.push_back({3000, "081#1023010000000000 R"});
  Hold(lines, 3010, 4000, "201#0000 T");
  lines.push_back({4000, "701#05 R"});
  return lines;
}

TEST_F(ReplayTest, TakesAnotherRampToTheSameSpeeds) {
  Start(Drive());
  Hear(0, "000#0101");
  HearAll(10, 1100, "201#0000");
  HearAll(1100, 1150, "201#1E00");
  HearAll(1150, 3075, "201#3C00");
  Until(3080);
  EXPECT_EQ(sent_, (Sent{"3070 081#1023010000000000"}));  // 1.92 s after its speed was reached
  HearAll(3090, 4100, "201#0000");
  Until(4200);
  EXPECT_TRUE(Over());
}

TEST_F(ReplayTest, TellsAnotherSpeedThatIsHeld) {
  Start(Drive());
  Hear(0, "000#0101");
  HearAll(10, 1000, "201#0000");
  EXPECT_EQ(Complaint([&] { HearAll(1000, 3000, "201#2800"); }),
            "bus.log:109: expected 201#3C00, came 201#2800, and stayed");
  EXPECT_LT(now_ms_, 1500);
}

TEST_F(ReplayTest, TellsASpeedThatIsLeftOut) {
  Start(Drive());
  Hear(0, "000#0101");
  EXPECT_EQ(Complaint([&] { HearAll(10, 9000, "201#0000"); }),
            "bus.log:109: expected 201#3C00, came nothing for 2.0 s");
}

// With a speed that it would go on sending.
TEST_F(ReplayTest, TellsAHostThatEndsInTheMiddle) {
  Start(Drive("201#0000 T"));
  Hear(0, "000#0101");
  HearAll(10, 1000, "201#0000");
  EXPECT_EQ(Complaint([&] { Until(9000); }),
            "bus.log:101: expected 201#1400, came nothing any more");
  Start(Drive("201#0000 T"), std::chrono::seconds(10));
  Hear(0, "000#0101");
  HearAll(10, 1800, "201#0000");
  EXPECT_EQ(Complaint([&] { Until(4000); }), "none");
  EXPECT_EQ(Complaint([&] { Over(); }), "bus.log:181: expected 201#0000, came nothing any more");
  Start(Drive("201#0000 T"));
  Hear(0, "000#0101");
  HearAll(10, 3700, "201#0000");  // a little earlier than the recorded one
  Until(4000);
  EXPECT_TRUE(Over());
}

TEST_F(ReplayTest, RepeatsWhatDrivesSendAllTheTimeWhileItWaits) {
  std::vector<At> lines = {{0, "000#0101 T"}};
  for (int ms = 50; ms < 1000; ms += 50) lines.push_back({ms, "701#05 R"});
  lines.push_back({520, "000#8001 T"});
  std::stable_sort(lines.begin(), lines.end(),
                   [](const At& left, const At& right) { return left.ms < right.ms; });
  Start(lines);
  Hear(0, "000#0101");
  Until(1000);
  EXPECT_EQ(sent_.size(), 20U);
  EXPECT_EQ(sent_.back(), "1000 701#05");
  Hear(1010, "000#8001");
  Until(2000);
  EXPECT_EQ(sent_.size(), 29U);
  EXPECT_TRUE(Over());

  // But not one that had fallen silent.
  lines.resize(12);
  Start(lines);
  Hear(0, "000#0101");
  Until(1000);
  EXPECT_EQ(sent_.size(), 10U);
}

}  // namespace
