// motorctl stop: whatever state a drive is in, its wheel is stopped and nothing else is touched.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "bus_of_guard.h"

namespace {

class StopMakeTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {
 protected:
  Result Stop() { return Motorctl({"stop", "1", "--make", make_, "--limit", "3"}); }
  void BringUp() {
    const Result result = Motorctl({"bring-up", "1", "--make", make_});
    ASSERT_EQ(result.status, 0) << result.err;
  }
  void ExpectStanding(const Result& result) {
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "node 1: zero confirmed, standing\n");
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(drive_.SpeedRpm(), 0.0);
  }

  const std::string make_ = GetParam().name;
  sim::SimulatedDrive drive_{DriveOptions(make_)};
};

INSTANTIATE_TEST_SUITE_P(Makes, StopMakeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(StopMakeTest, StopsAWheelWhoseHostWasKilledAndEnablesNothing) {
  {
    Process jog(JogLine(make_, "60"));
    ASSERT_TRUE(Eventually([this] { return std::abs(drive_.SpeedRpm()) > 50; })) << jog.Err();
    jog.Signal(SIGKILL);
    EXPECT_EQ(jog.Wait(), -1);
  }
  EXPECT_GT(std::abs(drive_.SpeedRpm()), 50);
  const std::uint16_t statusword = drive_.Statusword();
  bus::FarEnd record;
  const Result result = Stop();
  ExpectStanding(result);
  EXPECT_EQ(Commands(record.Frames()), std::vector<std::string>());
  bool by_pdo = false;
  for (const std::string& frame : record.Frames()) {
    EXPECT_FALSE(IsSpeed(frame) || IsValue(frame)) << frame;
    by_pdo = by_pdo || StartsWith(frame, "201#");
  }
  EXPECT_EQ(by_pdo, make_ != "amps");  // which takes speeds by SDO only
  EXPECT_EQ(drive_.Statusword() & 0x6F, statusword & 0x6F);
}

TEST_P(StopMakeTest, LeavesAPreOperationalDriveAsItIs) {
  BringUp();
  bus::FarEnd record("can1");
  bus::FarEnd("can0").Send("000#8001");
  ASSERT_TRUE(Eventually([this] { return drive_.State() == sim::NmtState::kPreOperational; }));
  record.Forget();
  ExpectStanding(Stop());
  EXPECT_EQ(Commands(record.Frames()), std::vector<std::string>());
  EXPECT_EQ(drive_.State(), sim::NmtState::kPreOperational);
}

TEST_P(StopMakeTest, LeavesADriveInFaultInFault) {
  BringUp();
  drive_.LatchError(0x3210);
  bus::FarEnd record;
  ExpectStanding(Stop());
  EXPECT_EQ(Commands(record.Frames()), std::vector<std::string>());
  EXPECT_EQ(drive_.Statusword() & 0x08, 0x08);
}

TEST_P(StopMakeTest, LeavesADriveInItsEmergencyStop) {
  BringUp();
  drive_.PressEmergencyStop();
  bus::FarEnd record;
  ExpectStanding(Stop());
  EXPECT_EQ(Commands(record.Frames()), std::vector<std::string>());
}

TEST_P(StopMakeTest, FailsInCapitalsWhenNobodyAnswers) {
  drive_.PowerCut();
  const Result result = Stop();
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "node 1: not stopped: it does not answer\n");
  EXPECT_EQ(result.err,
            "motorctl: *** THE STOP IS NOT CONFIRMED: NODE 1 MAY STILL TURN. SECURE THE VEHICLE, "
            "SWITCH THE DRIVES OFF. ***\n");
}

class StopTest : public bus::BusTest {};

TEST_F(StopTest, NamesABusThatIsDownAndOneThatIsNotThere) {
  bus::SetDown("can0");
  Result result = Motorctl({"stop", "1", "--make", "zl", "--limit", "0.5", "--json"});
  EXPECT_EQ(result.status, 1);
  ASSERT_EQ(result.Objects().size(), 1U);
  EXPECT_EQ(result.Objects()[0]["ok"], false);
  EXPECT_TRUE(Contains(result.Objects()[0]["failure"], "can0")) << result.out;
  EXPECT_TRUE(Contains(result.err, "THE STOP IS NOT CONFIRMED: NODE 1 MAY")) << result.err;

  result = Motorctl({"stop", "1", "--make", "zl", "--limit", "0.5", "--interface", "can7"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "node 1: not stopped: there is no CAN interface can7: see \"ip link\"\n");
}

TEST_F(StopTest, StopsAsSoonAsTheBusIsBack) {
  sim::SimulatedDrive drive(DriveOptions("zl"));
  bus::SetDown("can0");
  Process stop({"stop", "1", "--make", "zl", "--limit", "30"});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  bus::SetUp("can0");
  EXPECT_EQ(stop.Wait(), 0) << stop.Err();
}

TEST_F(StopTest, NamesANodeThatRefusesZero) {
  sim::SimulatedDrive drive(DriveOptions("kinco"));
  drive.Inject("abort-object=0x60FF");
  const Result result = Motorctl({"stop", "1", "--make", "kinco", "--limit", "0.5"});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.out, "node 1: not stopped: it refuses zero target velocity (abort"))
      << result.out;
}

TEST_F(StopTest, DoesNotTakeAWheelThatIsTurnedForOneThatStands) {
  sim::SimulatedDrive drive(DriveOptions("zl"));
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0);
  // Another host goes on.
  Process host({"guard", "2", "--make", "fake", "--", GUARDED_HOST, "turn=60000"});
  ASSERT_TRUE(Eventually([&drive] { return drive.SpeedRpm() > 50; })) << host.Err();
  const Result result = Motorctl({"stop", "1", "--make", "zl", "--limit", "1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "node 1: zero confirmed, but not seen to stand: its position still changes\n");
}

TEST_F(StopTest, AsksForWhatItNeeds) {
  bus::FarEnd record;
  EXPECT_EQ(Motorctl({"stop", "1"}).status, 2);
  EXPECT_EQ(Motorctl({"stop", "--make", "zl"}).status, 2);
  EXPECT_EQ(Motorctl({"stop", "128", "--make", "zl"}).status, 2);
  EXPECT_EQ(Motorctl({"stop", "1", "--make", "zl", "--limit", "nan"}).status, 2);
  EXPECT_EQ(record.Frames(), std::vector<std::string>());
}

}  // namespace
