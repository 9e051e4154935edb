// Every make against its simulated drive: the speed that a host commands through DriverCommon is
// the speed that it reads back.
#include "closed_loop.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bus_environment.h"
#include "sim/makes.h"
#include "wheels/makes.h"

namespace {

class ClosedLoopTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {};

TEST_P(ClosedLoopTest, ReadsBackTheSpeedThatItCommands) {
  ClosedLoop loop(GetParam());
  loop.PlugIn(sim::FindMake(GetParam().name).has_activation);
  ASSERT_EQ(loop.BringUp(), 0);
  loop.ExpectTurnsAt(0);
  loop.ExpectTurnsAt(300);
  loop.ExpectTurnsAt(-120);
  loop.ExpectTurnsAt(0);
  EXPECT_EQ(loop.drive().Failure(), "");
}

INSTANTIATE_TEST_SUITE_P(Makes, ClosedLoopTest, ::testing::ValuesIn(tested::Makes()),
                         [](const ::testing::TestParamInfo<tested::Make>& test) {
                           return test.param.name;
                         });

// A make that one of the lists lacks would not be tested.
TEST(MakesTest, AreTheSameForHostsSimulatorAndTests) {
  std::vector<std::string> hosts;
  for (const motor_driver::Make& make : motor_driver::Makes()) {
    if (!make.simulated) {
      hosts.emplace_back(make.name);
    }
  }
  std::vector<std::string> simulated;
  for (const sim::Make* make : sim::AllMakes()) {
    simulated.emplace_back(make->name);
  }
  std::vector<std::string> tested;
  for (const tested::Make& make : tested::Makes()) {
    tested.push_back(make.name);
  }
  EXPECT_EQ(simulated, hosts);
  EXPECT_EQ(tested, hosts);
}

}  // namespace
