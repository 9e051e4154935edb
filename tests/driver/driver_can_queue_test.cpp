// The queue of frames, and the handler that sees them before it.
#include <gtest/gtest.h>
#include <linux/can.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "driver_can_fixture.h"
#include "eventually.h"
#include "far_end.h"
#include "processes.h"

namespace {

std::string Numbered(unsigned number) {
  char text[32];
  std::snprintf(text, sizeof(text), "%03X#%08X", 0x180U + number % 0x100, number);
  return text;
}

TEST_F(DriverCanBus, QueuesEveryFrameInOrder) {
  Texts frames;
  for (unsigned i = 0; i < 2000; ++i) {
    frames.push_back(Numbered(i));
    far_end_.Send(frames.back());
    if (i % 100 == 99) {  // the kernel's buffer holds 278
      ASSERT_TRUE(Eventually([&] { return can_.GetReadQueueSize() == i + 1; }));
    }
  }
  EXPECT_EQ(Take(can_, frames.size()), frames);
}

TEST_F(DriverCanBus, AnEmptyQueueGivesNoFrameAndTouchesLittle) {
  CanFrame frame = {{1, 2, 3, 4, 5, 6, 7, 8}, 7, 0x123};
  EXPECT_FALSE(can_.GetCanFrame(frame));
  EXPECT_EQ(frame.can_id, 0x123U);
  EXPECT_EQ(frame.len, 7);
  EXPECT_EQ(frame.data[7], 8);

  unsigned int can_id = 0x123;
  unsigned char data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  unsigned char len = 7;
  EXPECT_FALSE(can_.GetCanFrame(&can_id, data, &len));
  EXPECT_EQ(can_id, 0U);
  EXPECT_EQ(len, 0);
  for (unsigned char i = 0; i < 8; ++i) {
    EXPECT_EQ(data[i], i + 1);
  }
  EXPECT_FALSE(can_.DropOneCanFrame());
  EXPECT_EQ(can_.GetReadQueueSize(), 0U);
  can_.ClearReadQueue();
}

TEST_F(DriverCanBus, UnpackedFramesCarryTheirPayloadOnly) {
  far_end_.Send("181#AABB");
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 1; }));
  unsigned int can_id = 0;
  unsigned char data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  unsigned char len = 0;
  EXPECT_TRUE(can_.GetCanFrame(&can_id, data, &len));
  EXPECT_EQ(can_id, 0x181U);
  EXPECT_EQ(len, 2);
  const unsigned char expected[8] = {0xAA, 0xBB, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(std::memcmp(data, expected, sizeof(data)), 0);
}

TEST_F(DriverCanBus, AFrameBeginsZeroed) {
  far_end_.Send("181#FFFFFFFFFFFFFFFF");
  far_end_.Send("182#01");
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 2; }));
  EXPECT_TRUE(can_.DropOneCanFrame());
  CanFrame frame;
  ASSERT_TRUE(can_.GetCanFrame(frame));
  const std::uint8_t expected[8] = {1};
  EXPECT_EQ(std::memcmp(frame.data, expected, sizeof(expected)), 0);
}

TEST_F(DriverCanBus, DropsTheOldestFrame) {
  for (const char* frame : {"181#01", "182#02", "183#03"}) {
    far_end_.Send(frame);
  }
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 3; }));
  EXPECT_TRUE(can_.DropOneCanFrame());
  EXPECT_EQ(can_.GetReadQueueSize(), 2U);
  EXPECT_EQ(Take(can_, 2), (Texts{"182#02", "183#03"}));
}

TEST_F(DriverCanBus, ClearingKeepsOnlyWhatArrivesLater) {
  far_end_.Send("181#01");
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 1; }));
  can_.ClearReadQueue();
  EXPECT_EQ(can_.GetReadQueueSize(), 0U);
  far_end_.Send("182#02");
  EXPECT_EQ(Take(can_, 1), Texts{"182#02"});
}

TEST_F(DriverCanBus, ClearingWhileFramesArriveLosesNoLaterFrame) {
  std::atomic<unsigned> sent{0};
  std::thread sender([&] {
    for (unsigned i = 0; i < 600; ++i) {
      far_end_.Send(Numbered(i));
      ++sent;
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  });
  while (sent < 300) {
    can_.ClearReadQueue();
    std::this_thread::sleep_for(milliseconds(1));
  }
  const unsigned before = sent;
  can_.ClearReadQueue();
  sender.join();
  ASSERT_TRUE(Eventually([this] {
    far_end_.Send("7FF#");
    std::this_thread::sleep_for(milliseconds(10));
    return can_.GetReadQueueSize() > 0;
  }));
  Texts rest = Take(can_, 1);
  while (!rest.empty() && rest.back() == "7FF#") {
    rest.pop_back();
  }
  ASSERT_FALSE(rest.empty());
  ASSERT_LE(rest.size(), 600U);
  const auto first = static_cast<unsigned>(600 - rest.size());
  EXPECT_LE(first, before + 50);
  for (unsigned i = 0; i < rest.size(); ++i) {
    EXPECT_EQ(rest[i], Numbered(first + i));
  }
}

TEST_F(DriverCanBus, TheHandlerConsumesWhatItAnswersWithTrue) {
  std::atomic<int> seen{0};
  can_.SetFrameHandler([&seen](const CanFrame& frame) {
    ++seen;
    return frame.can_id == 0x701;
  });
  for (const char* frame : {"701#05", "181#01", "701#05", "702#05", "182#02"}) {
    far_end_.Send(frame);
  }
  ASSERT_TRUE(Eventually([&] { return seen == 5; }));
  EXPECT_EQ(Take(can_, 3), (Texts{"181#01", "702#05", "182#02"}));
}

TEST_F(DriverCanBus, TheHandlerSeesWholeFramesInOrderOnTheReceiveThread) {
  std::mutex mutex;
  Texts seen;
  std::vector<std::thread::id> threads;
  can_.SetFrameHandler([&](const CanFrame& frame) {
    can_frame copy = {};
    copy.can_id = frame.can_id;
    copy.can_dlc = frame.len;
    std::memcpy(copy.data, frame.data, sizeof(copy.data));
    const std::lock_guard<std::mutex> lock(mutex);
    seen.push_back(bus::FormatFrame(copy));
    threads.push_back(std::this_thread::get_id());
    return true;
  });
  Texts frames;
  for (unsigned i = 0; i < 200; ++i) {
    frames.push_back(Numbered(i));
    far_end_.Send(frames.back());
  }
  EXPECT_TRUE(Eventually([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    return seen.size() == frames.size();
  }));
  can_.StopReading();
  EXPECT_EQ(seen, frames);
  for (const std::thread::id thread : threads) {
    EXPECT_EQ(thread, threads.front());
    EXPECT_NE(thread, std::this_thread::get_id());
  }
  EXPECT_EQ(can_.GetReadQueueSize(), 0U);
}

TEST_F(DriverCanBus, AnEmptyHandlerQueuesEverythingAgain) {
  can_.SetFrameHandler([](const CanFrame&) { return true; });
  far_end_.Send("181#01");
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(can_.GetReadQueueSize(), 0U);
  can_.SetFrameHandler({});
  far_end_.Send("182#02");
  EXPECT_EQ(Take(can_, 1), Texts{"182#02"});
}

TEST_F(DriverCanBus, AHandlerIsReplacedWithoutWaitingForTheOneThatRuns) {
  Gate gate;
  std::atomic<int> first{0};
  std::atomic<int> second{0};
  can_.SetFrameHandler([&](const CanFrame&) {
    ++first;
    gate.Pass();
    return true;
  });
  far_end_.Send("181#01");
  far_end_.Send("182#02");
  ASSERT_TRUE(gate.WaitInside());
  can_.SetFrameHandler([&](const CanFrame&) {
    ++second;
    return false;
  });
  EXPECT_EQ(second, 0);
  gate.Open();
  EXPECT_EQ(Take(can_, 1), Texts{"182#02"});
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST_F(DriverCanBus, TheQueueIsFreeWhileAHandlerRuns) {
  far_end_.Send("181#01");
  ASSERT_TRUE(Eventually([this] { return can_.GetReadQueueSize() == 1; }));
  Gate gate;
  can_.SetFrameHandler([&](const CanFrame&) {
    gate.Pass();
    return true;
  });
  far_end_.Send("182#02");
  ASSERT_TRUE(gate.WaitInside());
  EXPECT_EQ(Take(can_, 1), Texts{"181#01"});
  can_.ClearReadQueue();
  gate.Open();
  can_.StopReading();  // the handler looks at the gate
}

TEST_F(DriverCanBus, AHandlerMayWrite) {
  can_.SetFrameHandler([this](const CanFrame& frame) {
    return can_.CanWrite(frame.can_id + 1, frame.data, frame.len);
  });
  far_end_.Expect("182#0102");
  far_end_.Send("181#0102");
  EXPECT_TRUE(far_end_.WaitScript());
}

TEST_F(DriverCanBus, AnExceptionOutOfTheHandlerEndsTheProcess) {
  const support::ProcessResult result = support::RunForked([] {
    DriverCan can("can0");
    bus::FarEnd far_end;
    can.SetFrameHandler([](const CanFrame&) -> bool { throw std::runtime_error("handler"); });
    far_end.Send("181#01");
    std::this_thread::sleep_for(milliseconds(2000));
  });
  EXPECT_EQ(result.signal, SIGABRT);
}

}  // namespace
