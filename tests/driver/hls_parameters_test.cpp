// Currents and gains of the HLS drive, which all of its axes keep in one node.
#include <gtest/gtest.h>
#include <hls_driver.h>

#include <cstdint>

#include "bus_environment.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

namespace {

using support::WithoutNumbers;

class HlsParametersTest : public bus::BusTest {};

TEST_F(HlsParametersTest, ParametersOfAllAxesGoThroughTheChannelOfNode0) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#2300530078563412").Reply("580#6000530000000000");
  EXPECT_EQ(driver.WriteParam(3, 0x2300, 0x23, 0x12345678), 0);
  far_end.Expect("600#2B00330001000000").Reply("580#6000330000000000");
  EXPECT_EQ(driver.WriteParam(17, 0x2300, 0x2B, 1), 0) << "axis 1: four bits name the axis";
  far_end.Expect("600#2F00100002000000").Reply("580#6000100000000000");
  EXPECT_EQ(driver.WriteParam(2, 0xF000, 0x2F, 2), 0) << "wraps around at 16 bits";
  far_end.Expect("600#2F34120003000000").Reply("580#6034120000000000");
  EXPECT_EQ(driver.WriteParam(0, 0x1234, 0x2F, 3), 0);
  far_end.Expect("600#2BFFF00070110100").Reply("580#60FFF00000000000");
  EXPECT_EQ(driver.WriteParam(15, 0x00FF, 0x2B, 70000), 0) << "all four bytes are sent";
  std::uint32_t value = 7;
  far_end.Expect("600#4034720000000000").Reply("580#4334720078563412");
  EXPECT_EQ(driver.ReadParam(5, 0x2234, &value), 0);
  EXPECT_EQ(value, 0x12345678U);
  far_end.Expect("600#4000100000000000").Reply("580#4F00100009000000");
  EXPECT_EQ(driver.ReadParam(255, 0x2000, &value), 0);
  EXPECT_EQ(value, 9U);
  capture.Stop();
  EXPECT_EQ(capture.Out(), "");
  ExpectHearsEverything(driver, far_end);
}

TEST_F(HlsParametersTest, WriteParamTellsAFailureWithTheIndexAsASum) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#2300530078563412").Reply("580#8000530000000206");
  EXPECT_EQ(driver.WriteParam(3, 0x2300, 0x23, 0x12345678), 1);
  EXPECT_EQ(capture.Out(), "write param: node=3 addr=0x5300 value=0x12345678\n");
  capture.Clear();
  far_end.Expect("600#2B000000FFFFFFFF");
  EXPECT_EQ(driver.WriteParam(241, 0xF000, 0x2B, 0xFFFFFFFF), 1);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x580, index: 0x0000, sub: 0x00\n"
            "write param: node=241 addr=0x0 value=0xffffffff\n");
  capture.Clear();
  // Not a command of a write: sent as the caller asks, and never taken as confirmed.
  far_end.Expect("600#2202200000000000").Reply("580#6002200000000000");
  EXPECT_EQ(driver.WriteParam(0, 0x2002, 0x22, 0), 1);
  EXPECT_EQ(capture.Out(), "write param: node=0 addr=0x2002 value=0x0\n");
  EXPECT_EQ(capture.Err(), "");
}

TEST_F(HlsParametersTest, ReadParamTellsAFailureWithWhatTheValueHoldsThen) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  std::uint32_t value = 7;
  far_end.Expect("600#4000530000000000").Reply("580#8000530000000206");
  EXPECT_EQ(driver.ReadParam(3, 0x2300, &value), 1);
  EXPECT_EQ(value, 0x06020000U);
  EXPECT_EQ(capture.Out(), "read param: node=3 addr=0x5300 value=0x6020000\n");
  capture.Clear();
  far_end.Expect("600#4000530000000000");
  EXPECT_EQ(driver.ReadParam(19, 0x2300, &value), 1);
  EXPECT_EQ(value, 0U);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[WARN] SDO response timeout, can_id: 0x580, index: 0x5300, sub: 0x00\n"
            "read param: node=19 addr=0x5300 value=0x0\n");
}

TEST_F(HlsParametersTest, SetMotorCurrentWritesBothLimits) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#2B023000E8030000").Reply("580#6002300000000000");
  far_end.Expect("600#2B2A340070110100").Reply("580#602A340000000000");
  EXPECT_EQ(driver.SetMotorCurrent(1, 1000, 70000), 0);
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 set current:1000 max current:70000\n");
  capture.Clear();
  far_end.Expect("600#2B02400001000000").Reply("580#8002400030000906");
  far_end.Expect("600#2B2A440002000000").Reply("580#602A440000000000");
  EXPECT_EQ(driver.SetMotorCurrent(2, 1, 2), 1);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node2 set current:1 max current:2\n"
            "write param: node=2 addr=0x4002 value=0x1\n");
  capture.Clear();
  far_end.Expect("600#2B0240000A000000").Reply("580#8002400030000906");
  far_end.Expect("600#2B2A44000B000000").Reply("580#802A440030000906");
  EXPECT_EQ(driver.SetMotorCurrent(2, 10, 11), 2);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node2 set current:10 max current:11\n"
            "write param: node=2 addr=0x4002 value=0xa\n"
            "write param: node=2 addr=0x442a value=0xb\n");
}

TEST_F(HlsParametersTest, SetPidParamWritesThreeGains) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  far_end.Expect("600#23003300FFFFFFFF").Reply("580#6000330000000000");
  far_end.Expect("600#2301330002000000").Reply("580#6001330000000000");
  far_end.Expect("600#2302330003000000").Reply("580#6002330000000000");
  EXPECT_EQ(driver.SetPIDParam(1, 4294967295, 2, 3), 0);
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 set pid p:4294967295 i:2 d:3\n");
  capture.Clear();
  far_end.Expect("600#2300330010000000").Reply("580#8000330030000906");
  far_end.Expect("600#2301330020000000").Reply("580#8001330030000906");
  far_end.Expect("600#2302330030000000").Reply("580#8002330030000906");
  EXPECT_EQ(driver.SetPIDParam(1, 16, 32, 48), 3);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "[INFO] node1 set pid p:16 i:32 d:48\n"
            "write param: node=1 addr=0x3300 value=0x10\n"
            "write param: node=1 addr=0x3301 value=0x20\n"
            "write param: node=1 addr=0x3302 value=0x30\n");
}

TEST_F(HlsParametersTest, GetPidParamReadsThreeGainsAndTellsThemLast) {
  bus::FarEnd far_end;
  HlsDriver driver("can0");
  support::OutputCapture capture;
  std::uint32_t p = 0;
  std::uint32_t i = 0;
  std::uint32_t d = 0;
  far_end.Expect("600#4000330000000000").Reply("580#43003300FFFFFFFF");
  far_end.Expect("600#4001330000000000").Reply("580#4B01330002000000");
  far_end.Expect("600#4002330000000000").Reply("580#4302330003000000");
  EXPECT_EQ(driver.GetPIDParam(1, &p, &i, &d), 0);
  EXPECT_EQ(p, 4294967295U);
  EXPECT_EQ(i, 2U);
  EXPECT_EQ(d, 3U);
  EXPECT_EQ(WithoutNumbers(capture.Out()), "[INFO] node1 get pid p:4294967295 i:2 d:3\n");
  capture.Clear();
  far_end.Expect("600#4000430000000000").Reply("580#8000430000000206");
  far_end.Expect("600#4001430000000000").Reply("580#4301430005000000");
  far_end.Expect("600#4002430000000000").Reply("580#8002430000000000");
  EXPECT_EQ(driver.GetPIDParam(2, &p, &i, &d), 2);
  EXPECT_EQ(WithoutNumbers(capture.Out()),
            "read param: node=2 addr=0x4300 value=0x6020000\n"
            "read param: node=2 addr=0x4302 value=0x0\n"
            "[INFO] node2 get pid p:100794368 i:5 d:0\n");
}

}  // namespace
