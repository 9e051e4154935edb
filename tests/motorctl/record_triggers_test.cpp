// What makes the recorder write: each under the traffic of drives that are brought up.
#include <gtest/gtest.h>

#include <memory>

#include "record_bench.h"

namespace {

class RecordMakesTest : public RecordTest, public ::testing::WithParamInterface<tested::Make> {};

INSTANTIATE_TEST_SUITE_P(Makes, RecordMakesTest, ::testing::ValuesIn(tested::Makes()), MakeName);

// Some makes do not have what their hosts ask for.
TEST_P(RecordMakesTest, NothingIsWrongWhenADriveIsTurned) {
  const std::string make = GetParam().name;
  const sim::SimulatedDrive drive(Options(make));
  Process recorder(Recording({"--make", make}));
  AwaitStart(recorder);
  ASSERT_EQ(Motorctl({"jog", "1", "--make", make, "--rpm", "30", "--seconds", "1", "--yes"}).status,
            0);
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait(), 0);
  EXPECT_EQ(Folders().size(), 0U) << recorder.Err();
}

class RecordTriggersTest : public RecordTest {
 protected:
  RecordTriggersTest() : drive_(Options("zl")) {}

  // A vehicle that turns no wheel but reports and beats.
  void Start(const Arguments& more = {}) {
    Arguments words = Recording({"--make", "zl"});
    words.insert(words.end(), more.begin(), more.end());
    recorder_ = std::make_unique<Process>(words);
    AwaitStart(*recorder_);
    ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0);
    EXPECT_EQ(Folders().size(), 0U) << recorder_->Err();
  }

  // The trigger of the one folder that is written.
  Json AwaitTrigger() {
    if (!AwaitFolders(1)) {
      ADD_FAILURE() << "nothing is written\n" << recorder_->Err();
      return Json::object();
    }
    return Trigger(Folders()[0]);
  }

  sim::SimulatedDrive drive_;
  std::unique_ptr<Process> recorder_;
};

TEST_F(RecordTriggersTest, NothingIsWrongInAWholeLifeOfAVehicle) {
  Start();
  ASSERT_EQ(Motorctl({"jog", "1", "--make", "zl", "--rpm", "30", "--seconds", "1", "--yes"}).status,
            0);
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0);  // resets what is operational
  ASSERT_EQ(Motorctl({"stop", "1", "--make", "zl"}).status, 0);
  ASSERT_EQ(Motorctl({"scan", "--to", "10"}).status, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));  // a heartbeat more, too
  EXPECT_EQ(Folders().size(), 0U) << recorder_->Err();
}

// What a node had sent before it was reset comes after the command; a node that was never heard is
// given up by whoever asked it.
TEST_F(RecordTriggersTest, ABootUpThatWasAskedForAndASearchAreNone) {
  Start();
  bus::Command(
      "cansend can0 000#8102; cansend can1 702#05; cansend can1 702#00; "
      "cansend can0 603#4000100000000000; cansend can0 603#8000100000000405");
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(Folders().size(), 0U) << recorder_->Err();
  bus::Command("cansend can1 702#05; cansend can1 702#00");
  EXPECT_EQ(AwaitTrigger()["event"], "boot_up");
}

TEST_F(RecordTriggersTest, ErrorOfADrive) {
  Start();
  drive_.LatchError(0x2310);
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["node"], 1);
  EXPECT_TRUE(Contains(trigger["text"], "0x2310")) << trigger;
  // The message, and the code in the PDO of the make.
  std::vector<std::string> kinds;
  for (const Json& event : Events(Folders()[0])) kinds.push_back(event["event"]);
  EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "emergency"), 1);
  EXPECT_EQ(std::count(kinds.begin(), kinds.end(), "drive_error"), 1);
}

TEST_F(RecordTriggersTest, EmergencyMessage) {
  Start();
  bus::Command("cansend can1 081#0000000000000000");  // the end of an error is none
  bus::Command("cansend can1 081#1023010000000000");
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "emergency");
  EXPECT_EQ(trigger["frame"], "081#1023010000000000");
  EXPECT_TRUE(Contains(trigger["text"], "Continuous over current"));
}

TEST_F(RecordTriggersTest, ErrorCodeInAPdo) {
  Start();
  bus::Command("cansend can1 481#0000102337003700");
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "drive_error");
  EXPECT_EQ(trigger["text"], "node 1 motor 2: error code 0x2310 Continuous over current");
}

TEST_F(RecordTriggersTest, HeartbeatOverdue) {
  Start();
  bus::Command("cansend can0 601#2B17100032000000; sleep 0.5");  // every 50 ms
  drive_.Inject("no-heartbeat-after-ms=0");
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "heartbeat_overdue");
  EXPECT_EQ(trigger["node"], 1);
  EXPECT_EQ(trigger["frame"], nullptr);
}

// Lost power for a moment.
TEST_F(RecordTriggersTest, BootUpOfANodeThatWasOperational) {
  Start();
  ASSERT_EQ(Motorctl({"monitor", "--once"}).status, 0);  // a heartbeat has told that it is
  drive_.PowerCut();
  drive_.PowerOn();
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "boot_up");
  EXPECT_EQ(trigger["frame"], "701#00");
}

TEST_F(RecordTriggersTest, AbortOfAnSdoTransfer) {
  Start();
  bus::Command("cansend can0 601#2FFF5F0001000000");
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "sdo_abort");
  EXPECT_EQ(trigger["frame"], "581#80FF5F0000000206");
}

// A host asks a drive what it has.
TEST_F(RecordTriggersTest, AReadOfAnObjectThatIsNotThereIsNothingWrong) {
  Start();
  Motorctl({"sdo", "read", "1", "0x5FFF", "0"});
  Motorctl({"sdo", "read", "1", "0x1018", "9"});
  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_EQ(Folders().size(), 0U) << recorder_->Err();
  recorder_->Signal(SIGUSR1);
  EXPECT_EQ(AwaitTrigger()["event"], "request");
  std::vector<std::string> aborts;
  for (const Json& event : Events(Folders()[0])) {
    if (event["event"] == "sdo_abort") aborts.push_back(event["frame"]);
  }
  EXPECT_EQ(aborts, (std::vector<std::string>{"581#80FF5F0000000206", "581#8018100911000906"}));
}

TEST_F(RecordTriggersTest, SdoTransferWithoutAnAnswer) {
  Start();
  drive_.Inject("ignore-object=0x6041");
  // Repeated, before and after others that are answered.
  bus::Command(
      "for i in 1 2 3 4 5 6 7 8; do cansend can0 601#4041600000000000; "
      "cansend can0 601#4000100000000000; sleep 0.1; done");
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "sdo_timeout");
  EXPECT_EQ(trigger["text"], "SDO node 1: no answer about 0x6041 sub 0 Statusword");
}

TEST_F(RecordTriggersTest, ErrorFrame) {
  Start();
  bus::Command("cansend can1 20000008#0000000000000000");  // protocol violation
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "error_frame");
  EXPECT_TRUE(Contains(Text(Folders()[0] + "/bus.log"), "20000008#0000000000000000 R\n"));
}

TEST_F(RecordTriggersTest, StateOfTheController) {
  Start();
  bus::Command("cansend can1 20000040#0000000000000000");
  const Json trigger = AwaitTrigger();
  EXPECT_EQ(trigger["event"], "controller_state");
  EXPECT_TRUE(Contains(trigger["text"], "bus off"));
}

// As controllers tell them, in the second byte of the data.
TEST_F(RecordTriggersTest, EveryStateOfTheController) {
  Start();
  bus::Command(
      "for frame in 20000004#0010000000000000 20000004#0002000000000000 "
      "20000004#0040000000000000 20000100#0000000000000000; do cansend can1 $frame; done");
  EXPECT_EQ(AwaitTrigger()["event"], "controller_state");
  std::vector<std::string> texts;
  for (const Json& event : Events(Folders()[0])) {
    EXPECT_EQ(event["event"], "controller_state") << event;
    texts.push_back(event["text"]);
  }
  ASSERT_EQ(texts.size(), 4U);
  EXPECT_TRUE(Contains(texts[0], "error-passive by receive errors")) << texts[0];
  EXPECT_TRUE(Contains(texts[1], "transmit buffer overflow")) << texts[1];
  EXPECT_TRUE(Contains(texts[2], "error-active again")) << texts[2];
  EXPECT_TRUE(Contains(texts[3], "controller restarted")) << texts[3];
}

TEST_F(RecordTriggersTest, InterfaceDownAndUpAgain) {
  Start();
  bus::SetDown("can0");
  EXPECT_EQ(AwaitTrigger()["event"], "interface_down");
  bus::SetUp("can0");
  ASSERT_TRUE(Eventually([&] { return Contains(recorder_->Err(), "can0 is back"); }));
  bus::Command("cansend can0 123#01; cansend can1 124#02");
  ASSERT_EQ(Motorctl({"record", "--now"}).status, 0);
  const std::string log = Text(Folders().back() + "/bus.log");
  EXPECT_TRUE(Contains(log, "000#8101 T\n"));  // from before
  EXPECT_TRUE(Contains(log, "123#01 T\n"));
  EXPECT_TRUE(Contains(log, "124#02 R\n"));
}

TEST_F(RecordTriggersTest, InterfaceDeletedAndMadeAgain) {
  Start();
  bus::DeletePair();
  EXPECT_EQ(AwaitTrigger()["event"], "interface_gone");
  bus::CreatePair();
  ASSERT_TRUE(Eventually([&] { return Contains(recorder_->Err(), "can0 is back"); }));
  bus::Command("cansend can0 123#01; cansend can1 124#02");
  ASSERT_EQ(Motorctl({"record", "--now"}).status, 0);
  const std::string log = Text(Folders().back() + "/bus.log");
  EXPECT_TRUE(Contains(log, "000#8101 T\n"));
  EXPECT_TRUE(Contains(log, "123#01 T\n"));
  EXPECT_TRUE(Contains(log, "124#02 R\n"));
}

TEST_F(RecordTriggersTest, WhatDoesNotStopIsOneIncident) {
  Start({"--seconds", "2"});
  bus::Command(
      "for i in 1 2 3 4 5 6 7 8 9 10; do cansend can1 081#1023010000000000; sleep 0.2; "
      "done");
  ASSERT_TRUE(AwaitFolders(1));
  EXPECT_EQ(Folders().size(), 1U);
  bus::Command("cansend can1 082#1023010000000000");  // another node is another incident
  ASSERT_TRUE(AwaitFolders(2));
  bus::Command("sleep 2.5; cansend can1 081#1023010000000000");
  EXPECT_TRUE(AwaitFolders(3));
}

}  // namespace
