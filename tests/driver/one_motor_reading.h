// One call of GetSpeed of a drive with one motor per node, and what it left behind.
#pragma once

#include <driver_common.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "far_end.h"
#include "observed_driver.h"

struct Reading {
  bool result;
  int node;
  double rpm;
  int counts;
};

// The outputs hold 99, 0.5 and 1111 before the call.
inline Reading Read(DriverCommon& driver) {
  std::uint8_t node = 99;
  Reading reading = {false, 0, 0.5, 1111};
  reading.result = driver.GetSpeed(node, reading.rpm, reading.counts);
  reading.node = node;
  return reading;
}

inline void ExpectReading(const Reading& reading, int node, double rpm, int counts) {
  EXPECT_TRUE(reading.result);
  EXPECT_EQ(reading.node, node);
  EXPECT_EQ(reading.rpm, rpm);
  EXPECT_EQ(reading.counts, counts);
}

inline void ExpectEmptyQueue(const Reading& reading) {
  EXPECT_FALSE(reading.result);
  EXPECT_EQ(reading.node, 0);
  EXPECT_EQ(reading.rpm, 0.0);
  EXPECT_EQ(reading.counts, 0);
}

// The previous positions are the whole process's: this puts one to a known value.
inline void StartFrom(DriverCommon& driver, bus::FarEnd& far_end,
                      const std::string& position_frame) {
  Queue(driver, far_end, {position_frame});
  EXPECT_TRUE(Read(driver).result);
}
