// The heartbeat monitor of DriverCommon.
#include <driver_common.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using std::chrono::milliseconds;
using support::WithoutNumbers;

constexpr auto kRestartLine = "[WARN] Receive restart signal (0x7F) 3 times\n";

class HeartbeatTest : public bus::BusTest {};

// Sends a heartbeat and waits until the default callback has dealt with it.
void Beat(ObservedDriver& driver, bus::FarEnd& far_end, const std::string& frame) {
  const int before = driver.heartbeats;
  far_end.Send(frame);
  ASSERT_TRUE(Eventually([&] { return driver.heartbeats > before; })) << frame;
}

// A callback that keeps a copy of every record it is given.
class Recorder {
 public:
  std::function<void(HeartbeatTimeout&)> Callback() {
    return [this](HeartbeatTimeout& hb) {
      const std::lock_guard<std::mutex> lock(mutex_);
      records_.push_back(hb);
    };
  }
  std::vector<HeartbeatTimeout> Wait(std::size_t count) {
    EXPECT_TRUE(Eventually([&] {
      const std::lock_guard<std::mutex> lock(mutex_);
      return records_.size() >= count;
    }));
    const std::lock_guard<std::mutex> lock(mutex_);
    return records_;
  }

 private:
  std::mutex mutex_;
  std::vector<HeartbeatTimeout> records_;
};

TEST_F(HeartbeatTest, ARegisteredHeartbeatIsRecordedAndNotQueued) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Recorder recorder;
  driver.AddHeartbeatCallback(0x701, recorder.Callback());
  const auto before = bus::Clock::now();
  far_end.Send("701#05");
  const std::vector<HeartbeatTimeout> records = recorder.Wait(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].id, 0x701U);
  EXPECT_EQ(records[0].state, 0x05);
  EXPECT_TRUE(records[0].received);
  EXPECT_TRUE(records[0].heard);
  EXPECT_GE(records[0].last_receipt, before);
  EXPECT_LE(records[0].last_receipt, bus::Clock::now());

  Queue(driver, far_end, {"702#05"});
  EXPECT_EQ(TakeQueued(driver), std::vector<std::string>{"702#05"});
}

TEST_F(HeartbeatTest, OnlyTheWholeIdentifierIsAHeartbeat) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatId(0x701);
  const std::vector<std::string> others = {"00000701#05", "701#R", "001#05", "581#05", "00010701#"};
  Queue(driver, far_end, others);
  EXPECT_EQ(TakeQueued(driver), others);
  EXPECT_EQ(driver.heartbeats, 0);
  EXPECT_FALSE(driver.IsNodeOnline(1));
}

TEST_F(HeartbeatTest, AHeartbeatWithoutDataCounts) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Recorder recorder;
  driver.AddHeartbeatCallback(0x701, recorder.Callback());
  far_end.Send("701#05");
  far_end.Send("701#");
  far_end.Send("701#7F22334455667788");
  const std::vector<HeartbeatTimeout> records = recorder.Wait(3);
  ASSERT_EQ(records.size(), 3U);
  EXPECT_EQ(records[1].state, 0x00);
  EXPECT_EQ(records[2].state, 0x7F);
  EXPECT_TRUE(driver.IsNodeOnline(1));
}

TEST_F(HeartbeatTest, TheHandlerLooksAtByteZeroWhateverTheLength) {
  ObservedDriver driver("can0");
  Recorder recorder;
  driver.AddHeartbeatCallback(0x701, recorder.Callback());
  EXPECT_TRUE(driver.HandleCanFrame({{0x04}, 0, 0x701}));
  EXPECT_FALSE(driver.HandleCanFrame({{0x04}, 1, 0x702}));
  EXPECT_FALSE(driver.HandleCanFrame({{0x04}, 1, 0x80000701}));
  const std::vector<HeartbeatTimeout> records = recorder.Wait(1);
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].state, 0x04);
}

TEST_F(HeartbeatTest, AnyIdentifierMayBeRegistered) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatId(0x80012345);
  Beat(driver, far_end, "00012345#05");
  Queue(driver, far_end, {"345#05"});
  EXPECT_EQ(TakeQueued(driver), std::vector<std::string>{"345#05"});
}

TEST_F(HeartbeatTest, EachNodeHasARecordOfItsOwn) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatId(0x701);
  driver.AddHeartbeatId(0x702);
  driver.AddHeartbeatId(0x77F);
  EXPECT_TRUE(driver.IsManagedNode(1));
  EXPECT_TRUE(driver.IsManagedNode(2));
  EXPECT_TRUE(driver.IsManagedNode(127));
  EXPECT_FALSE(driver.IsManagedNode(3));
  EXPECT_FALSE(driver.IsManagedNode(0));
  EXPECT_FALSE(driver.IsNodeOnline(1));
  EXPECT_FALSE(driver.IsNodeOnline(3));
  Beat(driver, far_end, "702#05");
  EXPECT_FALSE(driver.IsNodeOnline(1));
  EXPECT_TRUE(driver.IsNodeOnline(2));
  EXPECT_FALSE(driver.IsNodeOnline(127));
  EXPECT_FALSE(driver.IsNodeOnline(3));
}

TEST_F(HeartbeatTest, RegisteringTwiceLeavesTheFirstEntry) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Recorder recorder;
  driver.AddHeartbeatCallback(0x701, recorder.Callback());
  driver.AddHeartbeatId(0x701);
  far_end.Send("701#05");
  recorder.Wait(1);
  EXPECT_EQ(driver.heartbeats, 0) << "the callback of the host stays";
}

TEST_F(HeartbeatTest, OneHeartbeatCallsOnce) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatId(0x701);
  driver.AddHeartbeatId(0x701);
  Beat(driver, far_end, "701#05");
  Queue(driver, far_end, {"702#05"});  // by now a second call would have been made
  EXPECT_EQ(driver.heartbeats, 1);
}

TEST_F(HeartbeatTest, AddHeartbeatCallbackReplacesTheDefaultAndKeepsTheRecord) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatId(0x701);
  Beat(driver, far_end, "701#05");
  Recorder recorder;
  const auto owned_by_callback = std::make_shared<int>(0);
  driver.AddHeartbeatCallback(0x701, [owned_by_callback, callback = recorder.Callback()](
                                         HeartbeatTimeout& hb) { callback(hb); });
  EXPECT_TRUE(driver.IsNodeOnline(1)) << "heard before the callback came";
  far_end.Send("701#7F");
  EXPECT_EQ(recorder.Wait(1).front().state, 0x7F);
  EXPECT_EQ(driver.heartbeats, 1);

  driver.AddHeartbeatCallback(0x701, {});
  EXPECT_EQ(owned_by_callback.use_count(), 1) << "the replaced callback is gone";
}

TEST_F(HeartbeatTest, AnEmptyCallbackStillRecords) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatCallback(0x701, {});
  far_end.Send("701#05");
  EXPECT_TRUE(Eventually([&] { return driver.IsNodeOnline(1); }));
  EXPECT_EQ(driver.GetReadQueueSize(), 0U);
}

TEST_F(HeartbeatTest, ACallbackMayChangeTheRecord) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Recorder recorder;
  driver.AddHeartbeatCallback(0x701, [callback = recorder.Callback()](HeartbeatTimeout& hb) {
    callback(hb);
    hb.heard = false;
  });
  far_end.Send("701#05");
  recorder.Wait(1);
  EXPECT_FALSE(driver.IsNodeOnline(1));
}

TEST_F(HeartbeatTest, ACallbackThatThrowsLeavesNothingLocked) {
  ObservedDriver driver("can0");
  driver.AddHeartbeatCallback(0x701, [](HeartbeatTimeout&) { throw std::runtime_error("host"); });
  EXPECT_THROW(driver.HandleCanFrame({{0x05}, 1, 0x701}), std::runtime_error);
  EXPECT_TRUE(driver.IsManagedNode(1));
  EXPECT_TRUE(driver.IsNodeOnline(1));
}

// --- Time-out ------------------------------------------------------------------------------------

// Heartbeats of node 1 that count as received so much earlier.
void AddAgedHeartbeat(ObservedDriver& driver, std::chrono::nanoseconds age) {
  driver.AddHeartbeatCallback(0x701, [age](HeartbeatTimeout& hb) { hb.last_receipt -= age; });
  ASSERT_TRUE(driver.HandleCanFrame({{0x05}, 1, 0x701}));
}

TEST_F(HeartbeatTest, OnlineWithinTheTimeOutAndOfflineAfterIt) {
  ObservedDriver driver("can0");
  driver.SetHeartbeatTimeOut(0.5);
  AddAgedHeartbeat(driver, milliseconds(400));
  EXPECT_TRUE(driver.IsNodeOnline(1));
  AddAgedHeartbeat(driver, milliseconds(600));
  EXPECT_FALSE(driver.IsNodeOnline(1));
  AddAgedHeartbeat(driver, milliseconds(500));
  EXPECT_FALSE(driver.IsNodeOnline(1)) << "a moment later than the time-out";
  driver.SetHeartbeatTimeOut(1.0);
  EXPECT_TRUE(driver.IsNodeOnline(1)) << "judged when asked, not when received";
}

TEST_F(HeartbeatTest, GoesOfflineByItselfAndComesBack) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  driver.AddHeartbeatId(0x701);
  driver.SetHeartbeatTimeOut(0.5);
  Beat(driver, far_end, "701#05");
  EXPECT_TRUE(driver.IsNodeOnline(1));
  std::this_thread::sleep_for(milliseconds(600));
  EXPECT_FALSE(driver.IsNodeOnline(1));
  Beat(driver, far_end, "701#05");
  EXPECT_TRUE(driver.IsNodeOnline(1));
}

TEST_F(HeartbeatTest, WithoutATimeOutOneHeartbeatIsEnough) {
  for (const double seconds : {0.0, -1.0}) {
    ObservedDriver driver("can0");
    driver.AddHeartbeatId(0x701);
    driver.SetHeartbeatTimeOut(seconds);
    EXPECT_FALSE(driver.IsNodeOnline(1)) << "but one is needed";
    AddAgedHeartbeat(driver, std::chrono::hours(24 * 365));
    EXPECT_TRUE(driver.IsNodeOnline(1));
  }
}

TEST_F(HeartbeatTest, NoTimeOutIsTheDefault) {
  ObservedDriver driver("can0");
  AddAgedHeartbeat(driver, std::chrono::hours(24 * 365));
  EXPECT_TRUE(driver.IsNodeOnline(1));
}

TEST_F(HeartbeatTest, LogsNothingAboutRegistrationAndLiveness) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  driver.SetHeartbeatTimeOut(0.001);
  driver.AddHeartbeatId(0x701);
  driver.AddHeartbeatCallback(0x702, {});
  Beat(driver, far_end, "701#00");
  std::this_thread::sleep_for(milliseconds(5));
  EXPECT_FALSE(driver.IsNodeOnline(1));
  EXPECT_EQ(capture.Out(), "");
}

// --- The default callback ------------------------------------------------------------------------

// A drive with node 1 registered. The counter of restarts is the whole process's: an operational
// heartbeat puts it to zero.
class RestartTest : public bus::BusTest {
 protected:
  void SetUp() override {
    BusTest::SetUp();
    far_end_ = std::make_unique<bus::FarEnd>();
    driver_ = std::make_unique<ObservedDriver>("can0");
    driver_->AddHeartbeatId(0x701);
    driver_->set_is_initialized(true);
    LogOf({"701#05"});
  }

  // What these heartbeats make the drive log.
  std::string LogOf(const std::vector<std::string>& frames) { return LogOf(*driver_, frames); }
  std::string LogOf(ObservedDriver& driver, const std::vector<std::string>& frames) {
    support::OutputCapture capture;
    for (const std::string& frame : frames) {
      Beat(driver, *far_end_, frame);
    }
    capture.Stop();
    return WithoutNumbers(capture.Out());
  }

  std::unique_ptr<bus::FarEnd> far_end_;
  std::unique_ptr<ObservedDriver> driver_;
};

TEST_F(RestartTest, TheThirdPreOperationalHeartbeatInARowIsReportedOnce) {
  EXPECT_EQ(LogOf({"701#7F", "701#7F"}), "");
  EXPECT_EQ(LogOf({"701#7F"}), kRestartLine);
  EXPECT_EQ(LogOf({"701#7F", "701#7F"}), "");
}

TEST_F(RestartTest, AnyOtherStateStartsTheCountAgain) {
  for (const char* other : {"701#05", "701#04", "701#01", "701#FF", "701#80"}) {
    SCOPED_TRACE(other);
    EXPECT_EQ(LogOf({"701#7F", "701#7F", other, "701#7F", "701#7F"}), "");
    EXPECT_EQ(LogOf({"701#7F"}), kRestartLine);
    EXPECT_EQ(LogOf({"701#05"}), "");
  }
}

TEST_F(RestartTest, BootUpIsCalledRunningNormallyAndStartsTheCountAgain) {
  EXPECT_EQ(LogOf({"701#7F", "701#7F", "701#00"}),
            "[DEBUG] Heartboot callback: node is running normally\n");
  EXPECT_EQ(LogOf({"701#7F", "701#7F"}), "");
  EXPECT_EQ(LogOf({"701#7F"}), kRestartLine);
}

TEST_F(RestartTest, OneByteCountsALongRun) {
  EXPECT_EQ(LogOf(std::vector<std::string>(258, "701#7F")), kRestartLine);
  EXPECT_EQ(LogOf({"701#7F"}), kRestartLine) << "3 again, 256 later";
  EXPECT_EQ(LogOf(std::vector<std::string>(255, "701#7F")), "");
  EXPECT_EQ(LogOf({"701#7F"}), kRestartLine);
}

TEST_F(RestartTest, ADriveThatIsNotInitializedNeitherLogsNorCounts) {
  driver_->set_is_initialized(false);
  EXPECT_EQ(LogOf({"701#7F", "701#7F", "701#7F", "701#00", "701#7F"}), "");
  driver_->set_is_initialized(true);
  EXPECT_EQ(LogOf({"701#7F", "701#7F"}), "");
  driver_->set_is_initialized(false);
  EXPECT_EQ(LogOf({"701#05"}), "");
  driver_->set_is_initialized(true);
  EXPECT_EQ(LogOf({"701#7F"}), kRestartLine) << "the 0x05 did not count either";
}

TEST_F(RestartTest, AllNodesShareTheCount) {
  driver_->AddHeartbeatId(0x702);
  driver_->AddHeartbeatId(0x703);
  EXPECT_EQ(LogOf({"701#7F", "702#7F"}), "");
  EXPECT_EQ(LogOf({"703#7F"}), kRestartLine);
  EXPECT_EQ(LogOf({"701#05", "701#7F", "701#7F", "702#05", "701#7F"}), "");
}

TEST_F(RestartTest, AllDriveObjectsShareTheCount) {
  ObservedDriver second("can0");
  second.set_is_initialized(true);
  second.AddHeartbeatId(0x702);
  EXPECT_EQ(LogOf({"701#7F"}), "");
  EXPECT_EQ(LogOf(second, {"702#7F"}), "");
  EXPECT_EQ(LogOf({"701#7F"}), kRestartLine);
  EXPECT_EQ(LogOf({"701#05", "701#7F", "701#7F"}), "");
  EXPECT_EQ(LogOf(second, {"702#05"}), "");
  EXPECT_EQ(LogOf({"701#7F"}), "");
}

// --- The node as producer ------------------------------------------------------------------------

TEST_F(HeartbeatTest, SetHeartbeatPacketIsNotConfirmed) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("601#2B171000D0070000");
  far_end.Expect("67F#2B17100000000000");
  far_end.Expect("602#2B171000FFFF0000");
  const auto begin = bus::Clock::now();
  EXPECT_TRUE(driver.SetHeartbeatPacket(1, 2000));
  EXPECT_TRUE(driver.SetHeartbeatPacket(127, 0));
  EXPECT_TRUE(driver.SetHeartbeatPacket(2, 65535));
  EXPECT_LT(bus::Clock::now() - begin, milliseconds(90)) << "no answer is awaited";
  EXPECT_EQ(capture.Out(), "");
}

TEST_F(HeartbeatTest, TheAnswerToSetHeartbeatPacketIsQueued) {
  bus::FarEnd far_end;
  ObservedDriver driver("can0");
  Queue(driver, far_end, {"181#01"});
  far_end.Expect("601#2B171000D0070000").Reply("581#8017100011000906");
  EXPECT_TRUE(driver.SetHeartbeatPacket(1, 2000)) << "a refusal is not seen";
  ASSERT_TRUE(WaitQueued(driver, 2));
  EXPECT_EQ(TakeQueued(driver), (std::vector<std::string>{"181#01", "581#8017100011000906"}));
}

TEST_F(HeartbeatTest, SetHeartbeatPacketTellsThatNothingWasSent) {
  ObservedDriver driver("nocan");
  EXPECT_FALSE(driver.SetHeartbeatPacket(1, 2000));
}

}  // namespace
