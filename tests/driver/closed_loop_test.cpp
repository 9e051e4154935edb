// Every make against its simulated drive: the speed that a host commands through DriverCommon is
// the speed that it reads back.
#include "closed_loop.h"

#include <gtest/gtest.h>

#include "bus_environment.h"

namespace {

class ClosedLoopTest : public bus::BusTest, public ::testing::WithParamInterface<Make> {};

TEST_P(ClosedLoopTest, ReadsBackTheSpeedThatItCommands) {
  ClosedLoop loop(GetParam());
  loop.PlugIn(GetParam().name == "tt");
  ASSERT_EQ(loop.BringUp(), 0);
  loop.ExpectTurnsAt(0);
  loop.ExpectTurnsAt(300);
  loop.ExpectTurnsAt(-120);
  loop.ExpectTurnsAt(0);
  EXPECT_EQ(loop.drive().Failure(), "");
}

INSTANTIATE_TEST_SUITE_P(Makes, ClosedLoopTest, ::testing::ValuesIn(Makes()),
                         [](const ::testing::TestParamInfo<Make>& test) {
                           return test.param.name;
                         });

}  // namespace
