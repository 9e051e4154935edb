// Heartbeats watched, errors reported and remembered (CiA 301).
#include "sim/error_control.h"

#include "sim/makes.h"
#include "sim/zl_drive.h"
#include "tests/sim/node_fixture.h"

namespace sim {
namespace {

constexpr const char* kWatch127For100Ms = "601#2316100164007F00";
constexpr const char* kEmergency = "081#3081110000000000";
constexpr const char* kNoError = "081#0000000000000000";

// Two motors at 100 rpm, operational, without transmit PDOs.
class WatchdogTest : public NodeFixture {
 protected:
  explicit WatchdogTest(const Make& make = ZlDrive()) : NodeFixture(make) { node_.PowerOn(); }
  void Turn() {
    WriteAll({"601#2F60600003000000", "601#23FF600164000000", "601#23FF600264000000"});
    Enable();
    node_.Receive(FromText("000#0101"));
  }
  void Enable() {
    WriteAll({"601#2B40600006000000", "601#2B4060000F000000"});
    Advance(100);
    EXPECT_EQ(node_.axis(1).Statusword(), 0x637);
  }
  Texts Beat(int milliseconds_after) {
    Sent();
    node_.Receive(FromText("77F#05"));
    return Advance(milliseconds_after);
  }
};

TEST_F(WatchdogTest, IsConfiguredByNodeAndTime) {
  EXPECT_EQ(After("601#4016100000000000"), Texts{"581#4F16100001000000"});
  EXPECT_EQ(After("601#4016100100000000"), Texts{"581#4316100100000000"}) << "off";
  WriteAll({kWatch127For100Ms});
  EXPECT_EQ(After("601#4016100100000000"), Texts{"581#4316100164007F00"});
  EXPECT_EQ(After("601#2316100164008000"), Texts{"581#8016100130000906"}) << "node 128";
  EXPECT_EQ(After("601#2316100164007F01"), Texts{"581#8016100130000906"}) << "reserved bit";
  EXPECT_EQ(After("601#2B161001E8030000"), Texts{"581#8016100113000706"}) << "two bytes";
  EXPECT_EQ(After("601#4016100200000000"), Texts{"581#8016100211000906"});
  EXPECT_EQ(After("601#4016100100000000"), Texts{"581#4316100164007F00"}) << "as it was";
  node_.Receive(FromText("000#8201"));
  EXPECT_EQ(After("601#4016100100000000"), Texts{"581#4316100100000000"});
}

TEST_F(WatchdogTest, StartsWithTheFirstHeartbeatAfterTheWrite) {
  node_.Receive(FromText("77F#05"));
  WriteAll({kWatch127For100Ms});
  EXPECT_EQ(node_.NextEvent(), Time::max());
  EXPECT_EQ(Advance(1000), Texts{});
  EXPECT_EQ(Beat(99), Texts{});
  EXPECT_EQ(node_.NextEvent(), node_.now() + std::chrono::milliseconds(1));
  EXPECT_EQ(Beat(99), Texts{});
  EXPECT_EQ(Advance(1), Texts{kEmergency});
}

TEST_F(WatchdogTest, HearsTheHeartbeatsOfItsNodeOnly) {
  WriteAll({kWatch127For100Ms});
  Beat(50);
  for (const char* frame : {"77E#05", "77F#", "77F#0505", "701#05"}) {
    node_.Receive(FromText(frame));
  }
  EXPECT_EQ(Advance(50), Texts{kEmergency});
}

TEST_F(WatchdogTest, FailsOnceAndWatchesAgainFromTheNextHeartbeatOn) {
  WriteAll({kWatch127For100Ms});
  EXPECT_EQ(Beat(1000), Texts{kEmergency});
  EXPECT_EQ(Beat(50), Texts{}) << "it does not take the error away";
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#433F600030813081"});
  EXPECT_EQ(After("601#4001100000000000"), Texts{"581#4F01100011000000"});
  EXPECT_EQ(Advance(50), Texts{kEmergency});
  EXPECT_EQ(After("601#2B40600080000000"), (Texts{"581#6040600000000000", kNoError}));
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#433F600000000000"});
  EXPECT_EQ(After("601#4001100000000000"), Texts{"581#4F01100000000000"});
  EXPECT_EQ(Advance(1000), Texts{}) << "still silent";
}

TEST_F(WatchdogTest, SwitchedOffOrResetItFailsNoMore) {
  for (const char* frame : {"601#2316100100000000", "601#2316100100007F00", "601#2316100164000000",
                            "000#8201", "000#8101"}) {
    WriteAll({kWatch127For100Ms});
    Beat(50);
    node_.Receive(FromText(frame));
    EXPECT_EQ(Advance(1000), Texts{}) << frame;
    EXPECT_EQ(Beat(1000), Texts{}) << frame;
  }
}

TEST_F(WatchdogTest, AWriteStartsAnewWithTheNextHeartbeat) {
  WriteAll({kWatch127For100Ms});
  Beat(50);
  WriteAll({"601#23161001C8007F00"});
  EXPECT_EQ(Advance(1000), Texts{});
  EXPECT_EQ(Beat(199), Texts{});
  EXPECT_EQ(Advance(1), Texts{kEmergency});
}

TEST_F(WatchdogTest, ReactsByTheAbortConnectionOption) {
  struct Case {
    const char* option;
    double speed;
    int status;
  };
  Turn();
  WriteAll({kWatch127For100Ms});
  for (const Case& expected :
       {Case{"00", 100, 0x637}, Case{"02", 0, 0x250}, Case{"03", 0, 0x250}, Case{"01", 0, 0x218}}) {
    SCOPED_TRACE(expected.option);
    WriteAll({std::string("601#2B076000") + expected.option + "000000"});
    EXPECT_EQ(Beat(99), Texts{});
    EXPECT_DOUBLE_EQ(node_.axis(1).SpeedRpm(), 100.0);
    EXPECT_EQ(Advance(50), Texts{kEmergency});
    for (const std::size_t axis : {1U, 2U}) {
      EXPECT_DOUBLE_EQ(node_.axis(axis).SpeedRpm(), expected.speed);
      EXPECT_EQ(node_.axis(axis).Statusword(), expected.status);
      EXPECT_EQ(node_.axis(axis).error_code(), 0x8130);
    }
    EXPECT_EQ(After("601#2B40600080000000"), (Texts{"581#6040600000000000", kNoError}));
    Enable();
  }
}

TEST_F(WatchdogTest, TheErrorStaysOverOtherCommandsUntilAFaultReset) {
  WriteAll({"601#2B07600003000000", kWatch127For100Ms});
  Turn();
  Beat(150);
  WriteAll({"601#2B40600000000000", "601#2B40600006000000", "601#2B4060000F000000"});
  EXPECT_EQ(node_.axis(1).error_code(), 0x8130);
  EXPECT_EQ(After("000#8201"), Texts{"701#00"});
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#433F600030813081"});
  EXPECT_EQ(After("000#8101"), Texts{"701#00"});
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#433F600000000000"});
  EXPECT_EQ(After("601#4001100000000000"), Texts{"581#4F01100000000000"});
}

TEST_F(WatchdogTest, EntersTheNmtStateOfItsErrorBehaviour) {
  EXPECT_EQ(After("601#4029100000000000"), Texts{"581#4F29100001000000"});
  EXPECT_EQ(After("601#4029100100000000"), Texts{"581#4F29100100000000"});
  EXPECT_EQ(After("601#2F29100103000000"), Texts{"581#8029100130000906"});
  WriteAll({kWatch127For100Ms});
  const auto state_after = [this](const char* behaviour, const char* nmt) {
    WriteAll({std::string("601#2F291001") + behaviour + "000000"});
    node_.Receive(FromText(nmt));
    EXPECT_EQ(Beat(150), Texts{kEmergency});
    return node_.nmt_state();
  };
  EXPECT_EQ(state_after("00", "000#0101"), NmtState::kPreOperational);
  EXPECT_EQ(state_after("01", "000#0101"), NmtState::kOperational);
  EXPECT_EQ(state_after("02", "000#0101"), NmtState::kStopped);
  node_.Receive(FromText("000#8001"));
  EXPECT_EQ(state_after("00", "000#8001"), NmtState::kPreOperational);
  EXPECT_EQ(state_after("02", "000#8001"), NmtState::kStopped);
  EXPECT_EQ(Beat(150), Texts{}) << "no emergency message in this state";
  EXPECT_EQ(node_.nmt_state(), NmtState::kStopped);
  node_.Receive(FromText("000#8001"));
  WriteAll({"601#2F29100100000000"});
  node_.Receive(FromText("000#0201"));
  Beat(150);
  EXPECT_EQ(node_.nmt_state(), NmtState::kStopped) << "not out of this one";
}

TEST_F(WatchdogTest, PdosCeaseWithTheStateOperational) {
  Turn();
  WriteAll({kWatch127For100Ms, "601#2B00180514000000", "601#2300180181010080",
            "601#23001A0120016460", "601#2F001A0001000000", "601#2300180181010000"});
  EXPECT_EQ(Beat(99).size(), 9U);
  EXPECT_EQ(Advance(100), Texts{kEmergency});
}

class HlsWatchdogTest : public WatchdogTest {
 protected:
  HlsWatchdogTest() : WatchdogTest(FindMake("hls")) {}
};

TEST_F(HlsWatchdogTest, TheErrorGoesByTheObjectOfTheMake) {
  WriteAll({kWatch127For100Ms});
  EXPECT_EQ(Beat(150), Texts{kEmergency});
  WriteAll({"601#2B40600080000000"});
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#4B3F600030810000"});
  EXPECT_EQ(After("601#2B03460001000000"), (Texts{"581#6003460000000000", kNoError}));
  EXPECT_EQ(After("601#403F600000000000"), Texts{"581#4B3F600000000000"});
}

class ErrorReportTest : public WatchdogTest {
 protected:
  // Newest first.
  Texts History() {
    Texts entries;
    for (const char* sub : {"01", "02", "03", "04", "05", "06", "07", "08"}) {
      const Texts reply = After(std::string("601#400310") + sub + "00000000");
      if (reply == Texts{std::string("581#800310") + sub + "24000008"}) break;
      EXPECT_EQ(reply.at(0).substr(0, 12), std::string("581#430310") + sub);
      entries.push_back(reply.at(0).substr(12));
    }
    return entries;
  }
  void LatchAndReset(std::uint16_t code) {
    node_.LatchError(code);
    WriteAll({"601#2B40600000000000"});
    node_.Receive(FromText("601#2B40600080000000"));
  }
};

TEST_F(ErrorReportTest, TheRegisterTellsTheClassOfTheError) {
  struct Case {
    std::uint16_t code;
    const char* register_value;
  };
  for (const Case& expected :
       {Case{0x1000, "01"}, Case{0x2310, "03"}, Case{0x3210, "05"}, Case{0x4310, "09"},
        Case{0x5113, "01"}, Case{0x7300, "01"}, Case{0x8120, "11"}, Case{0x8210, "11"},
        Case{0x8611, "01"}, Case{0xFF01, "01"}}) {
    SCOPED_TRACE(expected.code);
    Sent();
    node_.LatchError(expected.code);
    EXPECT_EQ(Sent().at(0).substr(8, 2), expected.register_value);
    EXPECT_EQ(After("601#4001100000000000"),
              Texts{std::string("581#4F011000") + expected.register_value + "000000"});
    WriteAll({"601#2B40600000000000"});
    EXPECT_EQ(After("601#2B40600080000000"), (Texts{"581#6040600000000000", kNoError}));
    EXPECT_EQ(After("601#4001100000000000"), Texts{"581#4F01100000000000"});
  }
}

TEST_F(ErrorReportTest, TheRegisterAddsUpTheErrorsOfBothMotors) {
  node_.LatchError(0x2310, 1);
  Sent();
  node_.LatchError(0x3210, 2);
  EXPECT_EQ(Sent(), Texts{"081#1032070000000000"});
  node_.LatchError(0x3210, 2);
  EXPECT_EQ(Sent(), Texts{}) << "no news";
}

TEST_F(ErrorReportTest, TheHistoryKeepsEightErrorsNewestFirst) {
  EXPECT_EQ(After("601#4003100000000000"), Texts{"581#4F03100000000000"});
  EXPECT_EQ(History(), Texts{});
  LatchAndReset(0x2310);
  LatchAndReset(0x3210);
  EXPECT_EQ(After("601#4003100000000000"), Texts{"581#4F03100002000000"});
  EXPECT_EQ(History(), (Texts{"10320000", "10230000"})) << "a reset is not an error";
  for (std::uint16_t code = 0x1001; code <= 0x1008; ++code) LatchAndReset(code);
  EXPECT_EQ(History(), (Texts{"08100000", "07100000", "06100000", "05100000", "04100000",
                              "03100000", "02100000", "01100000"}));
  EXPECT_EQ(After("601#4003100000000000"), Texts{"581#4F03100008000000"});
  EXPECT_EQ(After("601#4003100900000000"), Texts{"581#8003100911000906"});
}

TEST_F(ErrorReportTest, TheHistoryIsClearedByZeroOnlyAndByAReset) {
  LatchAndReset(0x2310);
  EXPECT_EQ(After("601#2F03100001000000"), Texts{"581#8003100030000906"});
  EXPECT_EQ(After("601#2303100100000000"), Texts{"581#8003100102000106"}) << "read only";
  EXPECT_EQ(History(), Texts{"10230000"});
  WriteAll({"601#2F03100000000000"});
  EXPECT_EQ(History(), Texts{});
  LatchAndReset(0x2310);
  node_.Receive(FromText("000#8101"));
  EXPECT_EQ(History(), Texts{});
}

TEST_F(ErrorReportTest, APdoThatIsTooShortIsRemembered) {
  Turn();
  WriteAll({"601#2300140101020080", "601#230016012001FF60", "601#2F00160001000000",
            "601#2300140101020000"});
  EXPECT_EQ(After("201#64"), Texts{"081#1082000000000000"});
  EXPECT_EQ(History(), Texts{"10820000"});
}

}  // namespace
}  // namespace sim
