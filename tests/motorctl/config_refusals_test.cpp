// motorctl config restore refuses: nothing but reads is sent.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "changed_drive.h"

namespace {

class RestoreRefusalTest : public ChangedDriveTest {
 protected:
  Result RestoreWhileSent(const std::string& frame) {
    bus::FarEnd host("can1");
    return RestoreBeside(host, frame);
  }
};

TEST_F(RestoreRefusalTest, RefusesADriveThatIsEnabled) {
  const auto drive = Changed();
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl", "--period", "20"}).status, 0);
  ExpectRefusal("the drive is enabled, or about to be: statusword 0x");
  EXPECT_EQ(drive->Statusword() & 0x6FU, 0x27U);
}

TEST_F(RestoreRefusalTest, RefusesADriveThatDoesNotTellWhetherItIsEnabled) {
  const auto drive = Changed();
  drive->Inject("abort-object=0x6041");
  ExpectRefusal("whether it is enabled is not known: 0x6041 sub 0 (Statusword): refused");
}

// A far end whose position goes on, by as many counts each time that it is asked.
Result RestoreIntoOneThatMoves(const std::string& file, std::uint32_t counts) {
  bus::FarEnd far_end;
  auto& server = far_end.AnswerSdo(1);
  server.Object(0x1000, 0, 0x00020192).Object(0x6041, 0, 0x0240, 2).Object(0x6064, 0, 0);
  for (std::uint8_t sub = 1; sub <= 3; ++sub) {
    server.Object(0x1018, sub, std::vector<std::uint32_t>{0, 0x00FFFF01, 1, 0x00010000}[sub]);
  }
  std::atomic<bool> ended{false};
  std::thread motor([&] {
    for (std::uint32_t position = 0; !ended; position += counts) {
      server.Object(0x6064, 0, position);
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  });
  const Result result = Motorctl({"config", "restore", file, "1", "--yes", "--force"});
  ended = true;
  motor.join();
  for (const std::string& frame : far_end.Frames()) {
    EXPECT_NE(frame.compare(0, 5, "601#2"), 0) << frame;
  }
  return result;
}

TEST_F(RestoreRefusalTest, RefusesADriveThatMovesWithoutBeingEnabled) {
  { const auto drive = Changed(); }
  const Result moving = RestoreIntoOneThatMoves(file_, 100);
  EXPECT_EQ(moving.status, 1);
  EXPECT_TRUE(Contains(moving.err, "node 1: the drive moves: 0x6064 sub 0")) << moving.err;
  EXPECT_FALSE(Contains(RestoreIntoOneThatMoves(file_, 0).err, "moves"));
}

TEST_F(RestoreRefusalTest, RefusesAnotherProductOrRevision) {
  const auto drive = Changed();
  drive->WriteObject(0x1018, 3, 0x00020000);
  ExpectRefusal("node 1 is another revision: its revision is 0x00020000, not 0x00010000");
  EXPECT_EQ(Restore({"--force"}).status, 0);
  EXPECT_EQ(Held(*drive), saved_);
  drive->WriteObject(0x1018, 2, 5);
  ExpectRefusal("node 1 is another product: its product is 0x00000005, not 0x00000001");
  ExpectRefusal("node 1 is another product", {"--force"});
  drive->WriteObject(0x1018, 1, 5);
  ExpectRefusal("node 1 is another product: its vendor is 0x00000005");
}

TEST_F(RestoreRefusalTest, RefusesWhileAnotherHostDrives) {
  const auto drive = Changed();
  for (const char* frame : {"201#0000000000000000", "601#4000100000000000"}) {
    const Result result = RestoreWhileSent(frame);
    EXPECT_EQ(result.status, 1) << frame;
    EXPECT_TRUE(Contains(result.err, "another ")) << result.err;
    EXPECT_TRUE(Contains(result.err, "nothing was written")) << result.err;
    EXPECT_EQ(Held(*drive), changed_);
  }
}

// An identifier of the predefined set would be heard anyway.
TEST_F(RestoreRefusalTest, RefusesWhileAnotherHostSendsWhatTheDriveIsToReceive) {
  sim::SimulatedDrive drive(Options("zl"));
  const auto receive_by = [&drive](std::uint32_t cob_id) {
    EXPECT_EQ(drive.WriteObject(0x1400, 1, 0x80000201), sim::AbortCode::kNone);
    EXPECT_EQ(drive.WriteObject(0x1400, 1, cob_id), sim::AbortCode::kNone);
  };
  for (const std::uint32_t cob_id : {0x000002C5U, 0x400002C5U}) {  // bit 30: no remote requests
    receive_by(cob_id);
    ASSERT_EQ(Save().status, 0);
    receive_by(0x00000201);
    bus::FarEnd record;
    const Result result = RestoreWhileSent("2C5#0000000000000000");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(NotReads(record.Frames()), std::vector<std::string>());
    EXPECT_TRUE(Contains(result.err, "another host drives node 1: PDO 0x2C5 comes")) << result.err;
    EXPECT_TRUE(Contains(result.err, "nothing was written")) << result.err;
    EXPECT_EQ(drive.ReadObject(0x1400, 1), 0x00000201U);
  }
}

TEST_F(RestoreRefusalTest, RefusesAFileWithErrorsBeforeItSendsAnything) {
  sim::SimulatedDrive drive(Options("zl"));
  ASSERT_EQ(Save().status, 0);
  std::string text = ReadText(file_);
  text.replace(text.find("size: 4"), 7, "size: 2");
  std::ofstream(file_) << text;
  const std::size_t before = drive.Received().sdo;
  const Result result = Restore();
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "objects[0].value: has 4 bytes, but size is 2")) << result.err;
  EXPECT_EQ(drive.Received().sdo, before);
}

TEST_F(RestoreRefusalTest, RefusesWhatIsBeyondTheLimitsOfTheDataSheet) {
  sim::SimulatedDrive drive(Options("zl"));
  ASSERT_EQ(Save().status, 0);
  std::string text = ReadText(file_);
  const std::size_t at = text.find("value: ", text.find("index: 0x200F"));
  text.replace(at, 8, "value: 9");
  std::ofstream(file_) << text;
  const std::size_t before = drive.Received().sdo;
  const Result result = Restore({"--eds", EdsOf("zl")});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "0x200F:00: 9 is above the high limit 1 of the EDS"))
      << result.err;
  EXPECT_EQ(drive.Received().sdo, before);
}

std::string InUseBy(const Process& first) {
  return "motorctl: node 1 on can0 is saved, restored, brought up or turned already, by process " +
         std::to_string(first.pid()) + "\n";
}

TEST_F(RestoreRefusalTest, RefusesASecondOneAtTheSameTime) {
  const auto drive = Changed();
  drive->Inject("delay-replies-ms=20");
  Process first({"config", "save", "1", "--eds", EdsOf("zl")});
  const std::size_t before = drive->Received().sdo;
  ASSERT_TRUE(Eventually([&] { return drive->Received().sdo > before + 3; }));
  const Result second = Restore();
  EXPECT_EQ(second.status, 1);
  EXPECT_EQ(second.err, InUseBy(first));
  EXPECT_EQ(first.Wait(), 0) << first.Err();
  EXPECT_EQ(Held(*drive), changed_);
}

const Arguments kJog = {"jog", "1", "--make", "zl", "--rpm", "20", "--seconds", "20", "--yes"};
const Arguments kBringUp = {"bring-up", "1", "--make", "zl"};

TEST_F(RestoreRefusalTest, NothingTurnsAWheelMeanwhile) {
  const auto drive = Changed();
  drive->Inject("delay-replies-ms=5");
  Process restore({"config", "restore", file_, "1", "--yes"});
  const std::size_t before = drive->Received().sdo;
  ASSERT_TRUE(Eventually([&] { return drive->Received().sdo > before + 3; }));
  for (const Arguments& line : {kJog, kBringUp}) {
    const std::size_t nmt = drive->Received().nmt;
    const Result refused = Motorctl(line);
    EXPECT_EQ(refused.status, 1) << line[0];
    EXPECT_EQ(refused.err, InUseBy(restore));
    EXPECT_EQ(drive->Received().nmt, nmt);
  }
  EXPECT_EQ(restore.Wait(), 0) << restore.Err();
  EXPECT_EQ(Held(*drive), saved_);
}

TEST_F(RestoreRefusalTest, RefusesANodeThatIsTurned) {
  const auto drive = Changed();
  Process jog(kJog);
  ASSERT_TRUE(Eventually([&] { return drive->SpeedRpm() > 5; }));
  const Result refused = Restore();
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, InUseBy(jog));
  EXPECT_EQ(Motorctl(kBringUp).err, InUseBy(jog));
  // A stop is never refused.
  const Result stop = Motorctl({"stop", "1", "--make", "zl", "--limit", "1"});
  EXPECT_FALSE(Contains(stop.err, "already")) << stop.err;
  EXPECT_TRUE(Contains(stop.out, "node 1: ")) << stop.out;
  jog.Signal(SIGINT);
  EXPECT_EQ(jog.Wait(), 1);
}

TEST_F(RestoreRefusalTest, RefusesANodeThatIsBroughtUp) {
  const auto drive = Changed();
  drive->Inject("delay-replies-ms=20");
  Process bring_up(kBringUp);
  ASSERT_TRUE(Eventually([&] { return Contains(bring_up.Err(), "node 1: zero"); }));
  EXPECT_EQ(Restore().err, InUseBy(bring_up));
  EXPECT_EQ(bring_up.Wait(), 0) << bring_up.Err();
  // A node that is named twice is not in its own way.
  EXPECT_FALSE(Contains(Motorctl({"bring-up", "1", "1", "--make", "zl"}).err, "turned already"));
}

TEST_F(RestoreRefusalTest, RefusesToStoreWhereTheDriveCannot) {
  const auto drive = Changed("zl");
  ExpectRefusal("node 1 cannot store by 0x1010 sub 1: refused with abort code 0x06020000",
                {"--save"});
  EXPECT_EQ(Held(*drive), changed_);
}

}  // namespace
