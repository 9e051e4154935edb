// The far end and the capture are what every other test leans on: they must notice what they claim.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "bus_environment.h"
#include "eventually.h"
#include "far_end.h"
#include "output_capture.h"
#include "processes.h"

namespace {

using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

class FarEndTest : public bus::BusTest {
 protected:
  bus::FarEnd library_side_{"can0"};
};

TEST_F(FarEndTest, RecordsFramesAsText) {
  bus::FarEnd far_end;
  const Texts frames = {"601#2B4060000F000000", "000#",  "1ABCDEF0#01FF",
                        "7FF#0011223344556677", "123#R", "12345678#R8"};
  for (const std::string& frame : frames) {
    library_side_.Send(frame);
  }
  EXPECT_EQ(far_end.Frames(), frames);
}

TEST_F(FarEndTest, FollowsTheScriptWithRepliesAndDelays) {
  bus::FarEnd far_end;
  far_end.Expect("601#01").Reply("581#01").Reply("581#02", milliseconds(30));
  far_end.Expect("602#");
  library_side_.Send("601#01");
  ASSERT_TRUE(library_side_.WaitFrames(2));
  library_side_.Send("602#");
  EXPECT_TRUE(far_end.WaitScript());
  const auto replies = library_side_.Records();
  EXPECT_EQ(library_side_.Frames(), (Texts{"581#01", "581#02"}));
  EXPECT_GE(replies[1].time - replies[0].time, milliseconds(29));
}

TEST_F(FarEndTest, FailsTheTestOnAnUnexpectedFrame) {
  EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
      {
        bus::FarEnd far_end("can1");
        far_end.ExpectSilence();
        bus::FarEnd sender("can0");
        sender.Send("123#");
        far_end.Frames();
      },
      "unexpected on the bus: 123#, expected: nothing");
}

TEST_F(FarEndTest, FailsTheTestOnAFrameOutOfOrder) {
  EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
      {
        bus::FarEnd far_end("can1");
        far_end.Expect("001#");
        bus::FarEnd sender("can0");
        sender.Send("002#");
        sender.Send("001#");
      },
      "unexpected on the bus: 002#, expected: 001#");
}

TEST_F(FarEndTest, FailsTheTestOnAnExpectationNeverMet) {
  EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(
      {
        bus::FarEnd far_end("can1");
        far_end.Expect("123#");
      },
      "never seen on the bus: 123#");
}

TEST_F(FarEndTest, AnswersSdoRequestsOfOneNode) {
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  far_end.AnswerSdo(5)
      .Object(0x6041, 0, 0x1237, 2)
      .Object(0x6063, 0, 0xFFFFFF9C)
      .Object(0x1001, 0, 0x81, 1)
      .Abort(4)
      .Silence(5)
      .Answer(6, "585#6000000000000000");
  for (const char* request :
       {"605#4041600000000000", "605#4063600000000000", "605#4001100000000000",
        "605#2B4060000F000000", "605#2B4060000F000000", "605#2B4060000F000000",
        "605#2B4060000F000000", "605#4000200000000000"}) {
    library_side_.Send(request);
  }
  const Texts replies = {"585#4B41600037120000", "585#436360009CFFFFFF", "585#4F01100081000000",
                         "585#6040600000000000", "585#8040600030000906", "585#6000000000000000",
                         "585#8000200000000206"};
  EXPECT_TRUE(library_side_.WaitFrames(replies.size()));
  EXPECT_EQ(library_side_.Frames(), replies);
  EXPECT_EQ(far_end.AnswerSdo(5).Requests(), 8U);
}

TEST_F(FarEndTest, SeesNothingOfADeadBusAndLivesOn) {
  bus::FarEnd far_end;
  bus::SetDown("can1");
  bus::SetUp("can1");
  library_side_.Send("123#");
  EXPECT_TRUE(far_end.WaitFrames(1));
}

TEST(OutputCaptureTest, TakesEveryByteOfBothStreams) {
  support::OutputCapture capture;
  std::printf("a");
  std::cout << "b\n";
  EXPECT_EQ(::write(1, "c", 1), 1);
  std::fputs("d", stderr);
  EXPECT_EQ(capture.Out(), "cab\n");
  EXPECT_EQ(capture.Err(), "d");
  capture.Clear();
  std::puts("e");
  capture.Stop();
  EXPECT_EQ(capture.Out(), "e\n");
  EXPECT_EQ(capture.Err(), "");
}

TEST(OutputCaptureTest, CutsRollingNumbersOnly) {
  EXPECT_EQ(support::WithoutNumbers("  7 [INFO] a\nwrite 126 [WARN] b\n127 [ERROR] c"),
            "[INFO] a\nwrite 126 [WARN] b\n[ERROR] c");
  EXPECT_EQ(support::LogNumbers("  7 [INFO] a\nx\n127 [ERROR] c\n"), (std::vector<int>{7, 127}));
  EXPECT_TRUE(support::AreConsecutive({126, 127, 0, 1}));
  EXPECT_FALSE(support::AreConsecutive({1, 1}));
}

TEST(EventuallyTest, LooksUntilItHoldsOrTheTimeIsOver) {
  int looks = 0;
  EXPECT_TRUE(support::Eventually([&] { return ++looks == 3; }));
  EXPECT_EQ(looks, 3);
  const auto begin = bus::Clock::now();
  EXPECT_FALSE(support::Eventually([] { return false; }, milliseconds(50)));
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(50));
  EXPECT_TRUE(support::Eventually([] { return true; }, milliseconds(0))) << "looks once at least";
}

TEST(ProcessesTest, TellHowAChildEnded) {
  const support::ProcessResult good = support::RunForked([] { std::puts("out"); });
  EXPECT_EQ(good.exit_status, 0);
  EXPECT_EQ(good.out, "out\n");
  const support::ProcessResult aborted = support::RunForked([] {
    std::fputs("err", stderr);
    std::abort();
  });
  EXPECT_EQ(aborted.signal, SIGABRT);
  EXPECT_EQ(aborted.err, "err");
  const support::ProcessResult printed = support::RunProgram({"/usr/bin/env"}, {{"A", "b"}});
  EXPECT_EQ(printed.exit_status, 0);
  EXPECT_EQ(printed.out, "A=b\n");
}

}  // namespace
