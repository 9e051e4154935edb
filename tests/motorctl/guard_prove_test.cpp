// motorctl guard --prove: on the vehicle, with the wheel off the ground.
#include <gtest/gtest.h>

#include <string>

#include "guarded.h"

namespace {

TEST_F(GuardTest, ProvesOnTheVehicleThatItWorks) {
  const Result result = Motorctl({"guard", "1", "--make", "zl", "--prove", "--yes"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(StartsWith(result.out, "PASSED: node 1 stood ")) << result.out << result.err;
  ExpectStanding();
}

TEST_F(GuardTest, ProvesNothingWithoutAWheelThatTurns) {
  EXPECT_EQ(Motorctl({"guard", "1", "--make", "zl", "--prove"}).status, 2);
  drive_.Inject("abort-object=0x6040");
  const Result result = Motorctl({"guard", "1", "--make", "zl", "--prove", "--yes", "--json"});
  EXPECT_EQ(result.status, 1);
  ASSERT_EQ(result.Objects().size(), 1U) << result.out;
  EXPECT_EQ(result.Objects()[0]["ok"], false);
}

}  // namespace
