// The drive interface: slots, defaults, frames and NMT. The SDO client and the heartbeat monitor of
// the same class have files of their own.
#include <driver_common.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

class DriverCommonTest : public bus::BusTest {};

// Position of a virtual operation in the table of virtual functions (Itanium C++ ABI: the pointer
// holds the offset into the table, on some processors with bit 0 set).
template <typename Operation>
std::size_t Slot(Operation operation) {
  std::size_t offset = 0;
  static_assert(sizeof(operation) == 2 * sizeof(offset));
  std::memcpy(&offset, &operation, sizeof(offset));
  return offset / sizeof(void*);
}

TEST(DriverInterfaceTest, DeclaresItsVirtualOperationsInOrder) {
  using D = DriverCommon;
  using u8 = std::uint8_t;
  using u16 = std::uint16_t;
  using u32 = std::uint32_t;
  const std::vector<std::size_t> slots = {
      Slot<bool (D::*)(u8)>(&D::IsActived),
      Slot<bool (D::*)(u8)>(&D::ActiveNode),
      Slot<bool (D::*)(u8)>(&D::ResetNode),
      Slot<void (D::*)(u8)>(&D::StartNode),
      Slot<void (D::*)()>(&D::StartAllNode),
      Slot<u16 (D::*)(u8)>(&D::SetSpeedMode),
      Slot<u16 (D::*)(u8, u16)>(&D::EnableSpeedModeAndPdoMode),
      Slot<bool (D::*)(u8, int)>(&D::SetSpeed),
      Slot<bool (D::*)(u8, int, int)>(&D::SetSpeed),
      Slot<bool (D::*)(u8, int, int, int, int)>(&D::SetSpeed),
      Slot<bool (D::*)(u8&, double&, int&)>(&D::GetSpeed),
      Slot<bool (D::*)(u8&, double&, int&, double&, int&)>(&D::GetSpeed),
      Slot<bool (D::*)(u8&, double&, int&, double&, int&, double&, int&, double&, int&)>(
          &D::GetSpeed),
      Slot<bool (D::*)(u8)>(&D::CheckStatus),
      Slot<bool (D::*)(u8)>(&D::ClearDriverError),
      Slot<bool (D::*)(u8, DriverStatus)>(&D::ResetDriverStatus),
      Slot<bool (D::*)(u8)>(&D::CheckReportPeriod),
      Slot<bool (D::*)(u8)>(&D::SaveAllParams),
      Slot<u16 (D::*)(u8)>(&D::GetTpdo0Period),
      Slot<bool (D::*)(u8, u16)>(&D::SetHeartbeatPacket),
      Slot<void (D::*)(HeartbeatTimeout&)>(&D::HeartbeatCallback),
      Slot<u32 (D::*)()>(&D::GetNumberOfPulsesPerRevolution),
      Slot<bool (D::*)(u8, u16)>(&D::Init),
      Slot<bool (D::*)(u8, u8, u16)>(&D::Init),
      Slot<ErrorCodeInfo (D::*)(u8) const>(&D::GetErrorCode),
      Slot<bool (D::*)(const std::string&)>(&D::LoadDriverConfig),
      Slot<DriverStatus (D::*)(u8)>(&D::GetDriverStatus),
      Slot<std::string (D::*)(u8) const>(&D::GetDriverStatusDetails),
  };
  ASSERT_EQ(slots.size(), 28U);
  for (std::size_t i = 0; i < slots.size(); ++i) {
    EXPECT_EQ(slots[i], i + 2) << "0 and 1 belong to the destructor";
  }
  EXPECT_TRUE(std::has_virtual_destructor_v<DriverCommon>);
  EXPECT_FALSE(std::is_copy_constructible_v<DriverCommon>);
  EXPECT_FALSE(std::is_copy_assignable_v<DriverCommon>);
}

TEST_F(DriverCommonTest, WhatAMakeDoesNotSupportAnswersFalseAndSendsNothing) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.ExpectSilence();
  EXPECT_FALSE(driver.SetSpeed(1, 100));
  EXPECT_FALSE(driver.SetSpeed(1, 100, 200));
  EXPECT_FALSE(driver.SetSpeed(1, 100, 200, 300, 400));
  EXPECT_FALSE(driver.ClearDriverError(1));
  for (const DriverStatus status :
       {DriverStatus::Unknown, DriverStatus::BootUp, DriverStatus::Ready, DriverStatus::Fault,
        DriverStatus::EmergencyStop}) {
    EXPECT_FALSE(driver.ResetDriverStatus(1, status));
  }
  EXPECT_FALSE(driver.CheckReportPeriod(1));
  EXPECT_FALSE(driver.LoadDriverConfig("/dev/null"));
  EXPECT_EQ(driver.GetDriverStatus(1), DriverStatus::Unknown);
  EXPECT_EQ(driver.GetDriverStatusDetails(1), "");
  EXPECT_EQ(driver.GetErrorCode(1).code, 0U);
  EXPECT_EQ(driver.GetErrorCode(1).msg, "unknown");
  EXPECT_EQ(capture.Out(), "");
  EXPECT_EQ(capture.Err(), "");
}

TEST_F(DriverCommonTest, TheDefaultInitsAnswerTrueAndSendNothing) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.ExpectSilence();
  EXPECT_TRUE(driver.Init(1, 10));
  EXPECT_TRUE(driver.Init(1, 2, 10));
}

TEST_F(DriverCommonTest, TheDefaultGetSpeedsTakeNoFrameAndWriteNoOutput) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Queue(driver, far_end, {"181#0010000000200000"});
  std::uint8_t node = 99;
  std::array<double, 4> rpm = {1.5, 2.5, 3.5, 4.5};
  std::array<int, 4> counts = {11, 12, 13, 14};
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0]));
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]));
  EXPECT_FALSE(driver.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1], rpm[2], counts[2],
                               rpm[3], counts[3]));
  EXPECT_EQ(node, 99);
  EXPECT_EQ(rpm, (std::array<double, 4>{1.5, 2.5, 3.5, 4.5}));
  EXPECT_EQ(counts, (std::array<int, 4>{11, 12, 13, 14}));
  EXPECT_EQ(driver.GetReadQueueSize(), 1U);
}

TEST(DriverInterfaceTest, StatusNumbersAreFixed) {
  EXPECT_EQ(static_cast<int>(DriverStatus::Unknown), 0);
  EXPECT_EQ(static_cast<int>(DriverStatus::BootUp), 1);
  EXPECT_EQ(static_cast<int>(DriverStatus::Ready), 2);
  EXPECT_EQ(static_cast<int>(DriverStatus::Fault), 3);
  EXPECT_EQ(static_cast<int>(DriverStatus::EmergencyStop), 4);
}

TEST_F(DriverCommonTest, IsActivedReadsTheControlwordOnce) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.Expect("602#4040600000000000").Reply("582#4B4060000F000000");
  EXPECT_TRUE(driver.IsActived(2));
  far_end.Expect("602#4040600000000000").Reply("582#8040600000000206");
  EXPECT_FALSE(driver.IsActived(2));
  far_end.Expect("67F#4040600000000000");
  EXPECT_FALSE(driver.IsActived(127));
}

TEST_F(DriverCommonTest, IsNormalWhateverHappened) {
  ObservedDriver driver("can0");
  EXPECT_TRUE(driver.IsNormal());
  ObservedDriver without_bus("nocan");
  EXPECT_EQ(without_bus.GetCanError(), 2U);
  EXPECT_TRUE(without_bus.IsNormal());
}

// --- Frames --------------------------------------------------------------------------------------

TEST_F(DriverCommonTest, WriteDataSendsTheFrameAsGiven) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.ExpectAll({"201#0102030405060708", "123#", "1ABCDEF0#AA"});
  const std::uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_TRUE(driver.WriteData(0x201, bytes, 8));
  EXPECT_TRUE(driver.WriteData(0x123, bytes, 0));
  const std::uint8_t byte = 0xAA;
  EXPECT_TRUE(driver.WriteData(0x9ABCDEF0, &byte, 1));
}

TEST_F(DriverCommonTest, WriteDataTellsThatNothingWasSent) {
  ObservedDriver driver("nocan");
  const std::uint8_t byte = 0;
  EXPECT_FALSE(driver.WriteData(0x201, &byte, 1));
  EXPECT_EQ(driver.GetCanError(), 5U);
}

TEST_F(DriverCommonTest, QueuesEveryFrameWhenNoHeartbeatIsRegistered) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  const std::vector<std::string> frames = {"701#05", "181#0102", "000#8101", "00000701#05", "701#"};
  Queue(driver, far_end, frames);
  EXPECT_EQ(TakeQueued(driver), frames);
}

TEST_F(DriverCommonTest, ReadDataTakesTheOldestFrame) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Queue(driver, far_end, {"181#0102030405060708", "00012345#A1", "702#"});
  std::uint32_t id = 0;
  std::uint8_t len = 0;
  std::array<std::uint8_t, 8> data = {};
  EXPECT_TRUE(driver.ReadData(&id, data.data(), &len));
  EXPECT_EQ(id, 0x181U);
  EXPECT_EQ(len, 8);
  EXPECT_EQ(data, (std::array<std::uint8_t, 8>{1, 2, 3, 4, 5, 6, 7, 8}));

  EXPECT_TRUE(driver.ReadData(&id, data.data(), &len));
  EXPECT_EQ(id, 0x80012345U);
  EXPECT_EQ(len, 1);
  EXPECT_EQ(data, (std::array<std::uint8_t, 8>{0xA1, 2, 3, 4, 5, 6, 7, 8})) << "only its own bytes";

  EXPECT_TRUE(driver.ReadData(&id, data.data(), &len));
  EXPECT_EQ(id, 0x702U);
  EXPECT_EQ(len, 0);
}

TEST_F(DriverCommonTest, ReadDataOfAnEmptyQueueGivesZeroesAndLeavesTheBytes) {
  ObservedDriver driver("can0");
  std::uint32_t id = 99;
  std::uint8_t len = 99;
  std::array<std::uint8_t, 8> data = {9, 9, 9, 9, 9, 9, 9, 9};
  EXPECT_FALSE(driver.ReadData(&id, data.data(), &len));
  EXPECT_EQ(id, 0U);
  EXPECT_EQ(len, 0);
  EXPECT_EQ(data, (std::array<std::uint8_t, 8>{9, 9, 9, 9, 9, 9, 9, 9}));
}

TEST_F(DriverCommonTest, ReadDataFillsARecord) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  CanFrame frame = {{9, 9, 9, 9, 9, 9, 9, 9}, 9, 99};
  EXPECT_FALSE(driver.ReadData(frame));
  EXPECT_EQ(frame.can_id, 99U);
  EXPECT_EQ(frame.len, 9);
  EXPECT_EQ(frame.data[7], 9);

  Queue(driver, far_end, {"181#0102"});
  EXPECT_TRUE(driver.ReadData(frame));
  EXPECT_EQ(frame.can_id, 0x181U);
  EXPECT_EQ(frame.len, 2);
  EXPECT_EQ(frame.data[0], 1);
  EXPECT_EQ(frame.data[1], 2);
  EXPECT_FALSE(driver.ReadData(frame));
}

TEST_F(DriverCommonTest, CanDelayMsSleeps) {
  ObservedDriver driver("can0");
  const auto begin = bus::Clock::now();
  driver.CanDelayMs(0);
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(20));
  driver.CanDelayMs(30);
  EXPECT_GE(bus::Clock::now() - begin, milliseconds(30));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(130));
}

// --- NMT -----------------------------------------------------------------------------------------

TEST_F(DriverCommonTest, ResetNodeResetsAndEntersPreOperational) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.ExpectAll({"000#8101", "000#8001"});
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(driver.ResetNode(1));
  const auto took = bus::Clock::now() - begin;
  EXPECT_GE(took, milliseconds(10));
  EXPECT_LT(took, milliseconds(110)) << "no boot-up message is awaited";
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] reset node id = 1\n"
            "[INFO] init node id = 1\n");
  ASSERT_TRUE(far_end.WaitScript());
  const std::vector<bus::RecordedFrame> records = far_end.Records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_GE(records[1].time - records[0].time, milliseconds(10)) << "the pause lies between";
}

TEST_F(DriverCommonTest, ResetNodeNamesTheNode) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.ExpectAll({"000#817F", "000#807F", "000#8100", "000#8000"});
  EXPECT_TRUE(driver.ResetNode(127));
  EXPECT_TRUE(driver.ResetNode(0));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] reset node id = 127\n"
            "[INFO] init node id = 127\n"
            "[INFO] reset node id = 0\n"
            "[INFO] init node id = 0\n");
}

TEST_F(DriverCommonTest, ResetNodeStopsWhenTheResetCannotBeSent) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.ExpectSilence();
  bus::SetDown("can0");
  ASSERT_TRUE(Eventually([&] { return driver.GetCanError() == 3; }));
  support::OutputCapture capture;
  EXPECT_FALSE(driver.ResetNode(1));
  EXPECT_EQ(driver.GetWriteErrorCount(), 1U);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] write error, nbytes = -1, sys errno: 100\n"
            "[WARN] failed to reset node1\n");
}

TEST_F(DriverCommonTest, ResetNodeTellsWhenOnlyTheSecondFrameCannotBeSent) {
  ObservedDriver driver("can0");
  bus::TrafficControl("netem limit 1 delay 10s");  // holds one frame, refuses the next
  support::OutputCapture capture;
  EXPECT_FALSE(driver.ResetNode(1));
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] reset node id = 1\n"
            "[ERROR] write error, nbytes = -1, sys errno: 105\n"
            "[WARN] failed to init node1\n");
}

TEST_F(DriverCommonTest, StartNodeSendsOneFrameAndLogsNothing) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.ExpectAll({"000#0101", "000#017F"});
  driver.StartNode(1);
  driver.StartNode(127);
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(DriverCommonTest, StartNodeLogsThatNothingWasSent) {
  ObservedDriver driver("can0");
  bus::SetDown("can0");
  ASSERT_TRUE(Eventually([&] { return driver.GetCanError() == 3; }));
  support::OutputCapture capture;
  driver.StartNode(12);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[ERROR] write error, nbytes = -1, sys errno: 100\n"
            "[ERROR] failed to start node12\n");
}

TEST_F(DriverCommonTest, StartAllNodeAddressesEveryNode) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  far_end.Expect("000#0100");
  driver.StartAllNode();
}

TEST_F(DriverCommonTest, StartAllNodeUsesTheStartNodeOfTheMake) {
  class OwnStart : public ObservedDriver {
   public:
    using ObservedDriver::ObservedDriver;
    void StartNode(std::uint8_t node) override { started.push_back(node); }
    std::vector<int> started;
  };
  bus::FarEnd far_end;
  OwnStart driver("can0");
  far_end.ExpectSilence();
  driver.StartAllNode();
  EXPECT_EQ(driver.started, std::vector<int>{0});
}

TEST_F(DriverCommonTest, GetTpdo0PeriodReadsTheEventTimer) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("601#4000180500000000").Reply("581#4B0018050A000000");
  EXPECT_EQ(driver.GetTpdo0Period(1), 10);
  far_end.Expect("601#4000180500000000").Reply("581#430018053412FFFF");
  EXPECT_EQ(driver.GetTpdo0Period(1), 0x1234) << "the low 16 bits";
  far_end.Expect("601#4000180500000000").Reply("581#8000180511000906");
  EXPECT_EQ(driver.GetTpdo0Period(1), 0) << "an abort code is not a period";
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(DriverCommonTest, GetTpdo0PeriodOfASilentNodeIsZero) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("602#4000180500000000");
  EXPECT_EQ(driver.GetTpdo0Period(2), 0);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x582, index: 0x1800, sub: 0x05\n");
}

// --- End of life ---------------------------------------------------------------------------------

TEST_F(DriverCommonTest, DestructionReleasesTheCallbacksAndSendsNothing) {
  bus::FarEnd far_end;
  far_end.ExpectSilence();
  const auto owned_by_callback = std::make_shared<int>(0);
  {
    ObservedDriver driver("can0");
    driver.AddHeartbeatCallback(0x701, [owned_by_callback](HeartbeatTimeout&) {});
    EXPECT_EQ(owned_by_callback.use_count(), 2);
  }
  EXPECT_EQ(owned_by_callback.use_count(), 1);
}

TEST_F(DriverCommonTest, NoCallbackRunsAfterDestruction) {
  bus::FarEnd far_end;
  std::atomic<bool> sending{true};
  std::thread sender([&] {
    while (sending) {
      far_end.Send("701#05");
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  for (int i = 0; i < 10; ++i) {
    std::atomic<int> calls{0};
    auto driver = std::make_unique<ObservedDriver>("can0");
    driver->AddHeartbeatCallback(0x701, [&](HeartbeatTimeout&) { ++calls; });
    EXPECT_TRUE(Eventually([&] { return calls > 2; }));
    driver.reset();
    const int calls_at_the_end = calls;
    std::this_thread::sleep_for(milliseconds(5));
    EXPECT_EQ(calls, calls_at_the_end);
  }
  sending = false;
  sender.join();
}

TEST_F(DriverCommonTest, ADriveOnAMissingInterfaceCanBeDestroyed) {
  support::OutputCapture capture;
  { ObservedDriver driver("nocan"); }
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] device is nocan\n"
            "[INFO] Initializing CAN socket for device: nocan\n"
            "[ERROR] get can interface index failed, errno: 19\n"
            "[ERROR] Failed to initialize CAN socket in constructor\n"
            "[INFO] DriverCan destroyed successfully\n");
}

}  // namespace
