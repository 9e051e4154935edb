// Which frames come in: filters, and reads that fail.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "driver_can_fixture.h"
#include "eventually.h"
#include "far_end.h"
#include "output_capture.h"

namespace {

TEST_F(DriverCanBus, WithoutFiltersEveryFrameIsReceived) {
  for (const char* frame : {"000#", "7FF#01", "1ABCDEF0#02", "123#R"}) {
    far_end_.Send(frame);
  }
  EXPECT_EQ(Take(can_, 4), (Texts{"000#", "7FF#01", "1ABCDEF0#02", "123#R"}));
}

TEST_F(DriverCanFilters, LetTheNamedIdentifiersThrough) {
  SetFilters(can_, {{0x123, 0x7FF}});
  EXPECT_EQ(Passing(1), Texts{"123#01"});
  SetFilters(can_, {{0x480, 0x780}, {0x124, 0x7FF}});
  EXPECT_EQ(Passing(3), (Texts{"124#02", "480#03", "4FF#04"}));
}

TEST_F(DriverCanFilters, AreClearedByOneThatLetsEverythingThrough) {
  SetFilters(can_, {{0x123, 0x7FF}});
  can_.ClearCanFilterRules();
  EXPECT_EQ(Passing(5), all_);
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(Passing(5), all_);
  // The accept-all filter is stored: it is put back on a socket that was made deaf.
  const int deaf = FindSocket();
  ASSERT_EQ(::setsockopt(deaf, SOL_CAN_RAW, CAN_RAW_FILTER, nullptr, 0), 0);
  EXPECT_EQ(Passing(0), Texts{});
  EXPECT_TRUE(can_.ApplyCurrentFilters());
  EXPECT_EQ(Passing(5), all_);
}

TEST_F(DriverCanFilters, AnEmptyListMakesTheSocketDeafUntilRecovery) {
  SetFilters(can_, {{0x123, 0x7FF}});
  can_.CanFiltersConfig(nullptr, 0);
  EXPECT_EQ(Passing(0), Texts{});
  EXPECT_TRUE(can_.ApplyCurrentFilters());
  EXPECT_EQ(Passing(0), Texts{});
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(Passing(5), all_);
}

TEST_F(DriverCanFilters, ABrokenLengthIsRefusedByTheKernelAndStoredAsWholeRecords) {
  SetFilters(can_, {{0x123, 0x7FF}});
  const Filter filters[] = {{0x124, 0x7FF}, {0x500, 0x7FF}};
  OutputCapture output;
  can_.CanFiltersConfig(filters, 12);
  EXPECT_EQ(output.Out(), "");
  EXPECT_EQ(can_.GetCanError(), 0U);
  EXPECT_EQ(Passing(1), Texts{"123#01"});
  EXPECT_TRUE(can_.ApplyCurrentFilters());
  EXPECT_EQ(Passing(1), Texts{"124#02"});

  // Less than one record: an empty list, and the open socket keeps its filters.
  can_.CanFiltersConfig(filters, 7);
  EXPECT_TRUE(can_.ApplyCurrentFilters());
  EXPECT_EQ(Passing(1), Texts{"124#02"});
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(Passing(5), all_);
}

TEST_F(DriverCanFilters, ANegativeLengthThrowsAndChangesNothing) {
  SetFilters(can_, {{0x123, 0x7FF}});
  const Filter other = {0x124, 0x7FF};
  for (const int length :
       {-1, -2, -3, -4, -5, -6, -7, -8, -9, -16, std::numeric_limits<int>::min()}) {
    try {
      can_.CanFiltersConfig(&other, length);
      ADD_FAILURE() << length;
    } catch (const std::length_error& error) {
      EXPECT_STREQ(error.what(), "cannot create std::vector larger than max_size()");
    }
  }
  EXPECT_EQ(Passing(1), Texts{"123#01"});
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(Passing(1), Texts{"123#01"});
}

TEST_F(DriverCanFilters, AreOnlyStoredWhileTheSocketIsClosed) {
  can_.StopReading();
  OutputCapture output;
  SetFilters(can_, {{0x480, 0x780}});
  EXPECT_EQ(output.Out(), "");
  EXPECT_EQ(can_.GetCanError(), 0U);
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(Passing(2), (Texts{"480#03", "4FF#04"}));
  EXPECT_TRUE(can_.CanRecover());
  EXPECT_EQ(Passing(2), (Texts{"480#03", "4FF#04"}));
}

TEST_F(DriverCanFilters, ApplyingToAClosedSocketFailsSilentlyUnlessThereAreNone) {
  can_.StopReading();
  OutputCapture output;
  EXPECT_TRUE(can_.ApplyCurrentFilters());
  SetFilters(can_, {{0x480, 0x780}});
  EXPECT_FALSE(can_.ApplyCurrentFilters());
  EXPECT_EQ(output.Out(), "");
  EXPECT_EQ(can_.GetCanError(), 0U);
}

TEST_F(DriverCanFilters, ARefusalIsReportedWhenApplyingOnly) {
  SetFilters(can_, {{0x480, 0x780}});
  OutputCapture output;
  SetFilters(can_, kTooManyFilters);
  EXPECT_EQ(output.Out(), "");
  EXPECT_EQ(Passing(2), (Texts{"480#03", "4FF#04"}));
  EXPECT_FALSE(can_.ApplyCurrentFilters());
  EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] restore CAN filters failed, errno: 22\n");
  EXPECT_EQ(can_.GetCanError(), 0U);
  EXPECT_EQ(Passing(2), (Texts{"480#03", "4FF#04"}));
}

// --- Reads that fail -----------------------------------------------------------------------------

TEST_F(DriverCanBus, ReadsOnAfterTheInterfaceCameBack) {
  OutputCapture output;
  bus::SetDown("can0");
  WaitForReadError();
  bus::SetUp("can0");
  far_end_.Send("181#01");
  EXPECT_EQ(Take(can_, 1), Texts{"181#01"});
  EXPECT_EQ(can_.GetCanError(), 3U);
  EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] can raw socket read failed, errno: 100\n");
}

TEST_F(DriverCanBus, ANewInterfaceOfTheSameNameNeedsARecovery) {
  bus::DeletePair();
  WaitForReadError();
  bus::CreatePair();
  bus::FarEnd far_end;
  far_end.Send("181#01");
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(can_.GetReadQueueSize(), 0U);
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_TRUE(can_.CanRecover());
  far_end.Send("182#02");
  EXPECT_EQ(Take(can_, 1), Texts{"182#02"});
  EXPECT_TRUE(Write(can_, "123#"));
  EXPECT_EQ(far_end.Frames(), Texts{"123#"});
}

TEST_F(DriverCanBus, CanReadLeavesItsOutputsAloneOnAClosedSocket) {
  can_.StopReading();
  OutputCapture output;
  unsigned int can_id = 1;
  unsigned char data[8] = {2, 2, 2, 2, 2, 2, 2, 2};
  unsigned char len = 3;
  EXPECT_FALSE(can_.CanRead(&can_id, data, &len));
  EXPECT_EQ(can_id, 1U);
  EXPECT_EQ(data[0], 2);
  EXPECT_EQ(len, 3);
  EXPECT_EQ(output.Out(), "");
  EXPECT_EQ(can_.GetCanError(), 0U);
}

TEST_F(DriverCanBus, AnIncompleteFrameIsError4) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  ReplaceSocket(ends[0]);
  OutputCapture output;
  ASSERT_EQ(::write(ends[1], "short", 5), 5);
  far_end_.Send("181#01");
  EXPECT_TRUE(Eventually([this] { return can_.GetCanError() == 4; }));
  EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] read: incomplete CAN frame, bytes read: 5\n");
  EXPECT_EQ(Take(can_, 1), Texts{"181#01"});
  // Still read afterwards.
  const can_frame frame = bus::ParseFrame("182#02");
  ASSERT_EQ(::write(ends[1], &frame, sizeof(frame)), 16);
  EXPECT_EQ(Take(can_, 1), Texts{"182#02"});
  EXPECT_EQ(can_.GetCanError(), 4U);
  can_.StopReading();
  ::close(ends[1]);
}

TEST_F(DriverCanBus, PausesTenMillisecondsAfterEachFailedRead) {
  ReplaceSocket(::open("/dev/null", O_RDWR | O_CLOEXEC));  // every read gives 0 bytes
  OutputCapture output;
  far_end_.Send("181#01");
  std::this_thread::sleep_for(milliseconds(300));
  const milliseconds stop = TimeOf("stop while the reader sleeps", [this] { can_.StopReading(); });
  EXPECT_LT(stop, kHangs);
  const auto count = static_cast<int>(support::Lines(output.Out()).size());
  EXPECT_GE(count, 5);
  EXPECT_LE(count, 35);
  EXPECT_EQ(WithoutNumbers(output.Out()),
            Repeated("[ERROR] read: incomplete CAN frame, bytes read: 0\n", count));
}

TEST_F(DriverCanBus, ASocketClosedBehindItsBackIsSilent) {
  OutputCapture output;
  WaitForReader();
  ::syscall(SYS_close, FindSocket());  // past the thread sanitizer, for which this is a race: it is
  far_end_.Send("181#01");
  EXPECT_EQ(Take(can_, 1), Texts{"181#01"});
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(output.Out(), "");
  EXPECT_EQ(can_.GetCanError(), 0U);
}

}  // namespace
