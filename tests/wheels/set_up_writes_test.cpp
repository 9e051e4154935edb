// Every write of a make's set-up that a drive refuses, or does not answer, is named.
#include <algorithm>
#include <string>
#include <vector>

#include "amps_script.h"
#include "hls_script.h"
#include "kinco_script.h"
#include "tt_script.h"
#include "wheels/set_up_failure.h"
#include "wheels_test.h"
#include "zl_script.h"

namespace {

using motor_driver::Fault;
using motor_driver::Report;
using motor_driver::SetUpFailure;
using motor_driver::State;
using motor_driver::Vehicle;
using motor_driver::Wheels;

struct Write {
  std::string make;
  std::string object;  // hexadecimal digits, as is sub
  std::string sub;
};

std::vector<SetUpStep> SetUpOf(const std::string& make) {
  return make == "zl"     ? zl_script::WholeSetUp()
         : make == "tt"   ? tt_script::WholeSetUp()
         : make == "hls"  ? hls_script::WholeSetUp()
         : make == "amps" ? amps_script::WholeSetUp()
                          : kinco_script::WholeSetUp();
}

std::vector<Write> Writes() {
  std::vector<Write> writes;
  for (const wire::DriveMake& make : wire::DriveMakes()) {
    for (const SetUpStep& step : SetUpOf(make.name)) {
      const Write write = {make.name, step.frame.substr(8, 2) + step.frame.substr(6, 2),
                           step.frame.substr(10, 2)};
      const bool known = std::any_of(writes.begin(), writes.end(), [&](const Write& other) {
        return other.make == write.make && other.object == write.object && other.sub == write.sub;
      });
      // By its controlword a drive that is woken is asked whether it is awake.
      if (!known && !(make.is_woken && write.object == "6040")) {
        writes.push_back(write);
      }
    }
  }
  return writes;
}

// Each object in a case of its own: a machine that stalls makes others answer late, too.
class SetUpWritesTest : public WheelsTest, public ::testing::WithParamInterface<Write> {};

TEST_P(SetUpWritesTest, OneThatIsNotTakenIsNamed) {
  const auto& [name, object, sub] = GetParam();
  const wire::DriveMake& make = MakeByName(name);
  SimulatedDrives drives(make);
  Vehicle vehicle = TwoWheels(make);
  vehicle.wheels.resize(1);
  Wheels wheels(vehicle);
  bool begun = false;
  for (const std::string refusal : {"abort", "ignore"}) {
    SCOPED_TRACE(refusal);
    drives[1].Inject(refusal + "-object=0x" + object + ":0x" + sub);
    EXPECT_FALSE(begun ? wheels.Clear() : wheels.BringUp());
    begun = true;
    const Report report = wheels.GetReport();
    EXPECT_EQ(report.state, State::kFault);
    EXPECT_EQ(report.node, 1);
    const std::vector<SetUpFailure> failures = SetUpFailures(wheels);
    ASSERT_FALSE(failures.empty());
    // A drive may refuse others because of this one.
    const SetUpFailure& first = failures.front();
    EXPECT_EQ(first.node, 1);
    EXPECT_EQ(first.index, std::stoul(object, nullptr, 16));
    EXPECT_EQ(first.sub_index, std::stoul(sub, nullptr, 16));
    EXPECT_EQ(first.abort_code.has_value(), refusal == "abort");
    EXPECT_EQ(first.abort_code.value_or(0x08000000), 0x08000000U);
    EXPECT_EQ(report.fault, Fault::kSetUpRefused) << report.reason;
    EXPECT_NE(report.reason.find("; 0x" + object + " sub "), std::string::npos) << report.reason;
    EXPECT_NE(report.reason.find(refusal == "abort" ? "abort code 0x08000000" : "no answer"),
              std::string::npos)
        << report.reason;
    drives[1].ClearFaults();
  }
  ASSERT_TRUE(wheels.Clear() || wheels.Clear()) << wheels.GetReport().reason;
  EXPECT_TRUE(SetUpFailures(wheels).empty());
  EXPECT_TRUE(wheels.Stop());
}

INSTANTIATE_TEST_SUITE_P(Makes, SetUpWritesTest, ::testing::ValuesIn(Writes()),
                         [](const auto& test) {
                           return test.param.make + "_" + test.param.object + "_" + test.param.sub;
                         });

}  // namespace
