// Bringing a vehicle up as a host does.
#pragma once

#include <gtest/gtest.h>
#include <wheels.h>

// Several times where a machine that stalled for 100 ms had one answer too late.
inline ::testing::AssertionResult BroughtUp(motor_driver::Wheels& wheels) {
  bool up = wheels.BringUp();
  for (int again = 0; again < 2 && !up; ++again) {
    up = wheels.Clear();
  }
  return up ? ::testing::AssertionSuccess()
            : ::testing::AssertionFailure() << wheels.GetReport().reason;
}
