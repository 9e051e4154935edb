// What the drives of a recording do for hosts that are like the recorded one, and for others.
#include <algorithm>

#include "tests/sim/replay_bench.h"

namespace {

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
