// Frames that go out, and writes that fail.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "bus_environment.h"
#include "driver_can_fixture.h"
#include "eventually.h"
#include "far_end.h"
#include "output_capture.h"
#include "processes.h"

namespace {

TEST_F(DriverCanBus, WritesPayloadsOfEveryLength) {
  const Texts frames = {"000#",
                        "001#11",
                        "7FF#1122",
                        "123#112233",
                        "123#11223344",
                        "123#1122334455",
                        "123#112233445566",
                        "123#11223344556677",
                        "123#1122334455667788"};
  for (const std::string& frame : frames) {
    far_end_.Expect(frame);
    EXPECT_TRUE(Write(can_, frame));
  }
  EXPECT_TRUE(far_end_.WaitScript());
  EXPECT_EQ(can_.GetWriteErrorCount(), 0U);
  EXPECT_EQ(can_.GetCanError(), 0U);
}

TEST_F(DriverCanBus, WritesNoPayloadWithoutABuffer) {
  far_end_.Expect("080#");
  EXPECT_TRUE(can_.CanWrite(0x80, nullptr, 0));
}

TEST_F(DriverCanBus, WritesExtendedAndRemoteIdentifiersAsGiven) {
  far_end_.ExpectAll({"1ABCDEF0#0102", "00000123#", "123#R4", "12345678#R"});
  const unsigned char data[8] = {1, 2};
  EXPECT_TRUE(can_.CanWrite(kExtended | 0x1ABCDEF0, data, 2));
  EXPECT_TRUE(can_.CanWrite(kExtended | 0x123, data, 0));
  EXPECT_TRUE(can_.CanWrite(kRemote | 0x123, data, 4));
  EXPECT_TRUE(can_.CanWrite(kExtended | kRemote | 0x12345678, data, 0));
}

TEST_F(DriverCanBus, ReadsIdentifiersWithTheirFlagsAndEveryLength) {
  const Texts frames = {"000#",   "7FF#01",     "123#0102030405060708", "1ABCDEF0#0102",
                        "123#R4", "12345678#R", "00000001#FF"};
  for (const std::string& frame : frames) {
    far_end_.Send(frame);
  }
  ASSERT_TRUE(Eventually([&] { return can_.GetReadQueueSize() == frames.size(); }));
  const std::uint32_t identifiers[] = {0,
                                       0x7FF,
                                       0x123,
                                       kExtended | 0x1ABCDEF0,
                                       kRemote | 0x123,
                                       kExtended | kRemote | 0x12345678,
                                       kExtended | 1};
  const std::uint8_t lengths[] = {0, 1, 8, 2, 4, 0, 1};
  for (std::size_t i = 0; i < frames.size(); ++i) {
    CanFrame frame;
    ASSERT_TRUE(can_.GetCanFrame(frame));
    EXPECT_EQ(frame.can_id, identifiers[i]);
    EXPECT_EQ(frame.len, lengths[i]);
    const std::uint8_t expected = frame.can_id == 0x7FF || frame.can_id == 0x123 ? 1 : 0;
    if (expected != 0) {
      EXPECT_EQ(frame.data[0], expected);
    }
  }
}

TEST_F(DriverCanBus, ALengthAbove8IsFatal) {
  for (const auto length : {std::uint8_t{9}, std::uint8_t{255}}) {
    const support::ProcessResult result = support::RunForked([length] {
      DriverCan can("can0");
      const unsigned char data[256] = {};
      can.CanWrite(0x123, data, length);
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_EQ(result.err, "CAN write length is above 8 bytes\n");
    EXPECT_EQ(WithoutNumbers(result.out), kConstructed);
  }
  EXPECT_EQ(far_end_.Frames(), Texts{});
}

TEST_F(DriverCanBus, ALatchedErrorIsAnsweredBeforeTheLengthIsLookedAt) {
  can_.StopReading();
  EXPECT_FALSE(Write(can_, "123#"));
  ASSERT_EQ(can_.GetCanError(), 5U);
  const unsigned char data[9] = {};
  EXPECT_FALSE(can_.CanWrite(0x123, data, 9));
}

TEST_F(DriverCanBus, OwnFramesReachNeitherItselfNorItsNeighbours) {
  bus::FarEnd neighbour("can0");
  EXPECT_TRUE(Write(can_, "123#01"));
  EXPECT_TRUE(far_end_.WaitFrames(1));
  // What comes from the far end and from the neighbour is heard: the silence above is not deafness.
  far_end_.Send("181#02");
  neighbour.Send("182#03");
  EXPECT_EQ(Take(can_, 2), (Texts{"181#02", "182#03"}));
  EXPECT_EQ(neighbour.Frames(), Texts{"181#02"});
}

TEST_F(DriverCanBus, TenFailedWritesOnADownInterfaceLatchError5) {
  OutputCapture output;
  bus::SetDown("can0");
  WaitForReadError();
  EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] can raw socket read failed, errno: 100\n");
  output.Clear();
  for (std::uint32_t i = 1; i <= 9; ++i) {
    EXPECT_FALSE(Write(can_, "123#"));
    EXPECT_EQ(can_.GetWriteErrorCount(), i);
    EXPECT_EQ(can_.GetCanError(), 3U);
  }
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_EQ(can_.GetWriteErrorCount(), 10U);
  EXPECT_EQ(can_.GetCanError(), 5U);
  EXPECT_EQ(WithoutNumbers(output.Out()),
            Repeated("[ERROR] write error, nbytes = -1, sys errno: 100\n", 10) +
                "[ERROR] CAN write error count reached 10 consecutive failures, marking as "
                "error\n");
  EXPECT_TRUE(support::AreConsecutive(support::LogNumbers(output.Out())));

  // The latch holds even when the bus is back.
  bus::SetUp("can0");
  output.Clear();
  far_end_.ExpectSilence();
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_EQ(can_.GetWriteErrorCount(), 10U);
  EXPECT_EQ(output.Out(), "");
}

TEST_F(DriverCanBus, TenFailedWritesOnADeletedInterfaceLatchError5) {
  OutputCapture output;
  bus::DeletePair();
  WaitForReadError();
  const std::string read_errors = WithoutNumbers(output.Out());
  // One CPU may see both steps of the removal as one.
  EXPECT_TRUE(read_errors == "[ERROR] can raw socket read failed, errno: 19\n" ||
              read_errors ==
                  "[ERROR] can raw socket read failed, errno: 100\n"
                  "[ERROR] can raw socket read failed, errno: 19\n")
      << read_errors;
  output.Clear();
  for (int i = 0; i < 10; ++i) {
    EXPECT_FALSE(Write(can_, "123#"));
  }
  EXPECT_EQ(can_.GetWriteErrorCount(), 10U);
  EXPECT_EQ(can_.GetCanError(), 5U);
  EXPECT_EQ(WithoutNumbers(output.Out()),
            Repeated("[ERROR] write error, nbytes = -1, sys errno: 6\n", 10) +
                "[ERROR] CAN write error count reached 10 consecutive failures, marking as "
                "error\n");
}

TEST_F(DriverCanBus, OneGoodWriteStartsTheCountAgain) {
  bus::SetDown("can0");
  WaitForReadError();
  for (int i = 0; i < 9; ++i) {
    EXPECT_FALSE(Write(can_, "123#"));
  }
  EXPECT_EQ(can_.GetWriteErrorCount(), 9U);
  bus::SetUp("can0");
  EXPECT_TRUE(Write(can_, "123#"));
  EXPECT_EQ(can_.GetWriteErrorCount(), 0U);
  EXPECT_EQ(can_.GetCanError(), 3U);  // only a recovery clears it
  EXPECT_TRUE(far_end_.WaitFrames(1));
  bus::SetDown("can0");
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_EQ(can_.GetWriteErrorCount(), 1U);
}

TEST_F(DriverCanBus, AFullTransmitQueueIsErrno105) {
  bus::TrafficControl("netem limit 1 delay 10s");
  OutputCapture output;
  EXPECT_TRUE(Write(can_, "123#"));
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] write error, nbytes = -1, sys errno: 105\n");
  EXPECT_EQ(can_.GetWriteErrorCount(), 1U);
  EXPECT_EQ(can_.GetCanError(), 0U);
}

TEST_F(DriverCanBus, AFullSendBufferDelaysAWriteByABoundedTime) {
  bus::TrafficControl(kBusThatTakesNothing);
  int sent = 0;
  milliseconds last(0);
  bool good = true;
  while (good && sent < 10'000) {
    const auto begin = bus::Clock::now();
    good = Write(can_, "123#");
    last = std::chrono::duration_cast<milliseconds>(bus::Clock::now() - begin);
    ++sent;
  }
  EXPECT_FALSE(good) << sent;
  EXPECT_GE(last, milliseconds(15));
  EXPECT_LT(last, milliseconds(200));
  EXPECT_EQ(can_.GetWriteErrorCount(), 1U);
}

TEST_F(DriverCanBus, AWriteOnAStoppedObjectLatchesAndLogsOnce) {
  can_.StopReading();
  OutputCapture output;
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_FALSE(Write(can_, "123#"));
  EXPECT_EQ(WithoutNumbers(output.Out()), "[ERROR] write error, CAN socket is not initialized\n");
  EXPECT_EQ(can_.GetCanError(), 5U);
  EXPECT_EQ(can_.GetWriteErrorCount(), 0U);
}

TEST_F(DriverCanBus, AShortWriteIsAFailedWrite) {
  // A file that may grow by five bytes more takes the socket's place.
  const int file = ::memfd_create("short", MFD_CLOEXEC);
  rlimit limit = {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit small = {1 << 20, limit.rlim_max};
  ::lseek(file, (1 << 20) - 5, SEEK_SET);
  OutputCapture output;
  ReplaceSocket(file);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  EXPECT_FALSE(Write(can_, "123#"));
  ::setrlimit(RLIMIT_FSIZE, &limit);
  const std::string line = WithoutNumbers(output.Out());
  EXPECT_EQ(line.rfind("[ERROR] write error, nbytes = 5, sys errno: ", 0), 0U) << line;
  EXPECT_EQ(can_.GetWriteErrorCount(), 1U);
}

}  // namespace
