// Bringing a vehicle up as a host does.
#pragma once

#include <gtest/gtest.h>
#include <wheels.h>

// Several times where a machine that stalled for 100 ms had one answer too late.
inline bool Cleared(motor_driver::Wheels& wheels, int attempts = 3) {
  bool cleared = false;
  for (int attempt = 0; attempt < attempts && !cleared; ++attempt) {
    cleared = wheels.Clear();
  }
  return cleared;
}

inline ::testing::AssertionResult BroughtUp(motor_driver::Wheels& wheels) {
  return wheels.BringUp() || Cleared(wheels, 2)
             ? ::testing::AssertionSuccess()
             : ::testing::AssertionFailure() << wheels.GetReport().reason;
}
