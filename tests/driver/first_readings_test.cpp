// A binary of its own, with one case: the previous positions are zero only until the first reading
// of a process.
#include <amps_driver.h>
#include <gtest/gtest.h>
#include <hls_driver.h>
#include <tt_driver.h>
#include <zl_driver.h>

#include "bus_environment.h"
#include "far_end.h"
#include "one_motor_reading.h"

namespace {

class FirstReadingsTest : public bus::BusTest {};

TEST_F(FirstReadingsTest, StartFromZeroInEachClassAndNode) {
  bus::FarEnd far_end;
  {
    ZlDriver zl("can0");
    Queue(zl, far_end, {"181#0010000000100000"});
    std::uint8_t node = 0;
    double rpm[2] = {};
    int counts[2] = {};
    EXPECT_TRUE(zl.GetSpeed(node, rpm[0], counts[0], rpm[1], counts[1]));
  }
  {
    TtDriver tt("can0");
    Queue(tt, far_end, {"183#00800000", "181#00800000", "182#00000100", "181#00800000"});
    ExpectReading(Read(tt), 99, 0.5, 1111);
    ExpectReading(Read(tt), 1, 6000.0, 32768);
    ExpectReading(Read(tt), 2, 12000.0, 65536);
    ExpectReading(Read(tt), 1, 0.0, 32768);
  }
  {
    HlsDriver hls("can0");
    Queue(hls, far_end, {"180#00000200", "181#00000400", "180#00000200"});
    ExpectReading(Read(hls), 0, -6000.0, 131072);
    ExpectReading(Read(hls), 1, -12000.0, 262144);
    ExpectReading(Read(hls), 0, 0.0, 131072);
  }
  {
    AMPSDriver amps("can0");
    Queue(amps, far_end, {"181#0000000000100000", "182#0000000000200000", "181#0000000000100000"});
    ExpectReading(Read(amps), 1, 6000.0, 4096);
    ExpectReading(Read(amps), 2, 12000.0, 8192);
    ExpectReading(Read(amps), 1, 0.0, 4096);
  }
  // None of them moved another's.
  TtDriver tt("can0");
  Queue(tt, far_end, {"182#00000100"});
  ExpectReading(Read(tt), 2, 0.0, 65536);
}

}  // namespace
