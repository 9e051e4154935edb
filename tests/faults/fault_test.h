// What the tests of faults share: what the process holds must be the same before and after, and
// what the kernel counted is what the library must have seen.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <thread>

#include "bus_environment.h"
#include "closed_loop.h"
#include "processes.h"

// A case makes its drives in its body: they are gone when this looks what they left behind.
class FaultTest : public bus::BusTest {
 protected:
  // A sanitizer starts a thread of its own with the first of the process, and not before.
  FaultTest() {
    std::thread([] {}).join();
  }
  void SetUp() override {
    descriptors_ = support::OpenDescriptors();
    EXPECT_TRUE(support::WaitThreads(1)) << support::Threads();
  }
  void TearDown() override {
    EXPECT_EQ(support::OpenDescriptors(), descriptors_);
    EXPECT_TRUE(support::WaitThreads(1)) << support::Threads();
  }

 private:
  std::size_t descriptors_ = 0;
};

inline tested::Make MakeNamed(const std::string& name) {
  for (const tested::Make& make : tested::Makes()) {
    if (make.name == name) {
      return make;
    }
  }
  throw std::invalid_argument("no make " + name);
}

// Frames that arrived at the interface.
std::size_t Received(const std::string& interface);

// Frames that the queueing discipline of the interface threw away.
std::size_t ThrownAway(const std::string& interface);

// Back to an interface that takes every frame at once. What is in the queue is lost.
inline void EndTrafficControl(const std::string& interface) {
  bus::Command("tc qdisc del dev " + interface + " root");
}
