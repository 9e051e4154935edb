// What the Kinco drive keeps of heartbeats and status PDOs, and what it tells of it.
#include <gtest/gtest.h>
#include <kinco_driver.h>

#include <string>

#include "bus_environment.h"
#include "kinco_fixture.h"
#include "output_capture.h"

namespace {

using support::WithoutNumbers;

constexpr auto kNeverReported =
    "heartbeat=0xFFFF status_6041=0xFFFF motor_status=0xFFFF error_603F=0xFFFF "
    "input_2010_0A=0xFFFF ";

class KincoStatusTest : public bus::BusTest {
 protected:
  KincoStatusTest() {
    driver_.AddHeartbeatId(0x701);
    driver_.AddHeartbeatId(0x703);
  }

  // What parsing the frame logs.
  std::string ParseAndHear(const std::string& frame) {
    support::OutputCapture capture;
    Parse(driver_, frame);
    capture.Stop();
    EXPECT_EQ(capture.Err(), "");
    return WithoutNumbers(capture.Out());
  }

  // The state after one status PDO of node 1.
  DriverStatus StatusAfter(const std::string& data) {
    Parse(driver_, "481#" + data);
    return driver_.GetDriverStatus(1);
  }

  KincoDriver driver_{"can0", 10000};
};

// --- Parsers -------------------------------------------------------------------------------------

TEST_F(KincoStatusTest, ANodeThatNeverReportedIsUnknown) {
  EXPECT_EQ(driver_.GetDriverStatus(1), DriverStatus::Unknown);
  EXPECT_EQ(driver_.GetDriverStatusDetails(1), kNeverReported);
  EXPECT_EQ(driver_.GetDriverStatusDetails(200), kNeverReported);
}

TEST_F(KincoStatusTest, AHeartbeatIsKept) {
  EXPECT_EQ(ParseAndHear("701#05"), "");
  EXPECT_EQ(driver_.GetDriverStatusDetails(1),
            "heartbeat=0x0005 status_6041=0xFFFF motor_status=0xFFFF error_603F=0xFFFF "
            "input_2010_0A=0xFFFF ");
  Parse(driver_, "701#7F01020304050607");
  EXPECT_EQ(driver_.GetDriverStatusDetails(1).substr(0, 17), "heartbeat=0x007F ");
  Parse(driver_, "701#");
  EXPECT_EQ(driver_.GetDriverStatusDetails(1).substr(0, 17), "heartbeat=0x007F ");
  Parse(driver_, "701#FF");
  EXPECT_EQ(driver_.GetDriverStatusDetails(1).substr(0, 17), "heartbeat=0x00FF ");
  EXPECT_EQ(driver_.GetDriverStatusDetails(3), kNeverReported);
}

TEST_F(KincoStatusTest, AStatusPdoIsTakenApart) {
  EXPECT_EQ(ParseAndHear("481#000037020000"), "");
  EXPECT_EQ(driver_.GetDriverStatusDetails(1),
            "heartbeat=0xFFFF status_6041=0x0037 motor_status=0x0002 error_603F=0x0000 "
            "input_2010_0A=0x0000 ");
  Parse(driver_, "483#2301AB89EFCDFFFF");
  EXPECT_EQ(driver_.GetDriverStatusDetails(3),
            "heartbeat=0xFFFF status_6041=0x00AB motor_status=0x0089 error_603F=0x0123 "
            "input_2010_0A=0xCDEF ")
      << "bytes beyond the sixth do not matter";
  EXPECT_EQ(driver_.GetDriverStatusDetails(1).substr(17, 18), "status_6041=0x0037");
}

TEST_F(KincoStatusTest, AnErrorCodeIsLogged) {
  EXPECT_EQ(ParseAndHear("481#102337020000"), "[DEBUG] Kinco driver error code: 0x2310, node: 1\n");
  EXPECT_EQ(ParseAndHear("483#0A0037020000"), "[DEBUG] Kinco driver error code: 0x000A, node: 3\n");
  EXPECT_EQ(ParseAndHear("481#000037020000"), "");
}

TEST_F(KincoStatusTest, AShortStatusPdoIsToldAndDropped) {
  Parse(driver_, "483#000037020000");
  const std::string before = driver_.GetDriverStatusDetails(3);
  EXPECT_EQ(ParseAndHear("483#1023180001"),
            "[WARN] Invalid TPDO3 frame size: 5, can_id: 0x483, node: 3\n");
  EXPECT_EQ(ParseAndHear("481#"), "[WARN] Invalid TPDO3 frame size: 0, can_id: 0x481, node: 1\n");
  EXPECT_EQ(driver_.GetDriverStatusDetails(3), before);
  EXPECT_EQ(driver_.GetDriverStatusDetails(1), kNeverReported);
}

TEST_F(KincoStatusTest, TheIdentifierIsToldAndReadByItsLowBits) {
  const std::uint8_t data[] = {0, 0, 0x37, 0, 0, 0};
  support::OutputCapture capture;
  driver_.ParseTpdo3Frame(0x383, data, 5);
  driver_.ParseTpdo3Frame(0x80000483, data, 4);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] Invalid TPDO3 frame size: 5, can_id: 0x383, node: 3\n"
            "[WARN] Invalid TPDO3 frame size: 4, can_id: 0x483, node: 3\n");
  driver_.ParseTpdo3Frame(0x003, data, 6);
  EXPECT_EQ(driver_.GetDriverStatus(3), DriverStatus::Ready);
  driver_.ParseHeartBeatFrame(0x183, data, 1);
  EXPECT_EQ(driver_.GetDriverStatus(3), DriverStatus::BootUp);
}

TEST_F(KincoStatusTest, ANodeThatIsNotManagedIsDropped) {
  EXPECT_EQ(ParseAndHear("702#05"), "");
  EXPECT_EQ(ParseAndHear("482#102337020000"), "");
  EXPECT_EQ(ParseAndHear("482#10"), "") << "not even its size is judged";
  EXPECT_EQ(driver_.GetDriverStatusDetails(2), kNeverReported);
  driver_.AddHeartbeatId(0x702);
  EXPECT_EQ(driver_.GetDriverStatusDetails(2), kNeverReported);
  Parse(driver_, "702#05");
  EXPECT_EQ(driver_.GetDriverStatusDetails(2).substr(0, 17), "heartbeat=0x0005 ");
}

TEST_F(KincoStatusTest, NodesOf0To127CanBeManaged) {
  driver_.AddHeartbeatId(0x700);
  driver_.AddHeartbeatId(0x77F);
  Parse(driver_, "480#000037000000");
  Parse(driver_, "4FF#000037000000");
  EXPECT_EQ(driver_.GetDriverStatus(0), DriverStatus::Ready);
  EXPECT_EQ(driver_.GetDriverStatus(127), DriverStatus::Ready);
}

// --- The state -----------------------------------------------------------------------------------

TEST_F(KincoStatusTest, BootUpComesFirst) {
  Parse(driver_, "701#00");
  EXPECT_EQ(driver_.GetDriverStatus(1), DriverStatus::BootUp);
  for (const char* data : {"102337000000", "000037000000", "000050000000", "000037000100"}) {
    EXPECT_EQ(StatusAfter(data), DriverStatus::BootUp) << data;
  }
  Parse(driver_, "701#05");
  EXPECT_EQ(driver_.GetDriverStatus(1), DriverStatus::EmergencyStop) << "what was kept meanwhile";
}

TEST_F(KincoStatusTest, ANodeWithHeartbeatsAloneIsUnknown) {
  for (const char* heartbeat : {"701#04", "701#05", "701#7F", "701#01"}) {
    Parse(driver_, heartbeat);
    EXPECT_EQ(driver_.GetDriverStatus(1), DriverStatus::Unknown) << heartbeat;
  }
}

TEST_F(KincoStatusTest, ANodeWithoutHeartbeatIsJudgedByItsStatusPdo) {
  EXPECT_EQ(StatusAfter("000037020000"), DriverStatus::Ready);
}

TEST_F(KincoStatusTest, TheStateFollowsErrorInputAndStatusInThisOrder) {
  Parse(driver_, "701#05");
  EXPECT_EQ(StatusAfter("000037020000"), DriverStatus::Ready);
  EXPECT_EQ(StatusAfter("000037020100"), DriverStatus::EmergencyStop) << "input";
  EXPECT_EQ(StatusAfter("000037020080"), DriverStatus::EmergencyStop) << "any bit of it";
  EXPECT_EQ(StatusAfter("102337020000"), DriverStatus::Fault) << "error";
  EXPECT_EQ(StatusAfter("102337020100"), DriverStatus::Fault) << "error before input";
  EXPECT_EQ(StatusAfter("102350020000"), DriverStatus::Fault) << "error before emergency state";
  EXPECT_EQ(StatusAfter("000150000000"), DriverStatus::Fault) << "high byte of the error";
  EXPECT_EQ(StatusAfter("000050000000"), DriverStatus::EmergencyStop);
  EXPECT_EQ(StatusAfter("000070000000"), DriverStatus::EmergencyStop);
  EXPECT_EQ(StatusAfter("000070FF0000"), DriverStatus::EmergencyStop);
  EXPECT_EQ(StatusAfter("000018020100"), DriverStatus::EmergencyStop) << "input before fault";
}

TEST_F(KincoStatusTest, EveryOtherStatusIsAFault) {
  for (int low = 0; low < 256; ++low) {
    char data[16];
    std::snprintf(data, sizeof(data), "0000%02X020000", static_cast<unsigned>(low));
    const DriverStatus expected = low == 0x37                  ? DriverStatus::Ready
                                  : low == 0x50 || low == 0x70 ? DriverStatus::EmergencyStop
                                                               : DriverStatus::Fault;
    EXPECT_EQ(StatusAfter(data), expected) << data;
  }
}

TEST_F(KincoStatusTest, TheStateIsToldThroughTheDriveInterface) {
  Parse(driver_, "481#000037020000");
  DriverCommon& drive = driver_;
  EXPECT_EQ(drive.GetDriverStatus(1), DriverStatus::Ready);
  EXPECT_EQ(drive.GetDriverStatusDetails(1), driver_.GetDriverStatusDetails(1));
}

TEST_F(KincoStatusTest, AnEmergencyStatusIs50Or70) {
  for (int status = 0; status <= 0xFFFF; ++status) {
    EXPECT_EQ(KincoDriver::IsEmergencyStatus(static_cast<std::uint16_t>(status)),
              status == 0x50 || status == 0x70)
        << status;
  }
}

// --- GetErrorCode --------------------------------------------------------------------------------

class KincoErrorCodeTest : public KincoStatusTest {
 protected:
  KincoErrorCodeTest() {
    driver_.LoadConfig(
        TextFile("err_code: [{code: 2310, err_code: 7, msg: \"{} over\"}]\n").path());
  }

  struct Told {
    ErrorCodeInfo info;
    std::string out;
  };

  Told ErrorOf(std::uint8_t node) {
    support::OutputCapture capture;
    Told told = {driver_.GetErrorCode(node), ""};
    capture.Stop();
    told.out = WithoutNumbers(capture.Out());
    return told;
  }

  void ExpectNoError(std::uint8_t node) {
    const Told told = ErrorOf(node);
    EXPECT_EQ(told.info.code, 0U);
    EXPECT_EQ(told.info.msg, "unknown");
    EXPECT_EQ(told.out, "");
  }
};

TEST_F(KincoErrorCodeTest, TellsEventAndTextOfThePresentError) {
  Parse(driver_, "481#102318000000");
  const Told told = ErrorOf(1);
  EXPECT_EQ(told.info.code, 7U);
  EXPECT_EQ(told.info.msg, "{} over");
  EXPECT_EQ(told.out, "[INFO] DriverErr. node:1 code:8976 msg:{} over event:7\n");
}

TEST_F(KincoErrorCodeTest, TellsThatTheErrorIsNotInTheFile) {
  Parse(driver_, "483#FFFF18000000");
  const Told told = ErrorOf(3);
  EXPECT_EQ(told.info.code, 0U);
  EXPECT_EQ(told.info.msg, "unknown");
  EXPECT_EQ(told.out, "[INFO] DriverErr. node:3 code:65535 msg:unknown event:0\n");
}

TEST_F(KincoErrorCodeTest, IsSilentWithoutAnError) {
  ExpectNoError(1);
  ExpectNoError(2);
  Parse(driver_, "481#102318000000");
  Parse(driver_, "481#000037000000");
  ExpectNoError(1);
}

}  // namespace
