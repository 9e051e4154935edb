// The private CAN bus of a test binary: a vxcan pair can0 (the library's end) and can1 (the far
// end) in a network namespace of its own, so that test processes in one kernel do not meet.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace bus {

// Moves the process into a new network namespace and makes the pair there. To be called before any
// thread is started. False: this kernel has no SocketCAN, or does not let us.
bool Enter();

// Makes the pair anew if anything below was called since, or if an end is missing or down.
void FreshPair();

void CreatePair();
void DeletePair();
void SetUp(const std::string& interface);
void SetDown(const std::string& interface);

// Root queueing discipline of `interface`, for example "netem loss 100%", "netem delay 50ms",
// "netem limit 1 delay 10s" (the second frame fails with ENOBUFS) or
// "tbf rate 8bit burst 16b limit 100mb" (the sender's buffer fills up: netem takes waiting frames
// off the sender's account, tbf does not).
void TrafficControl(const std::string& discipline, const std::string& interface = "can0");

// Runs a command by the shell and fails the test if it fails.
void Command(const std::string& command);

// The calling thread, and threads that it starts, go before other processes where that is allowed. For
// hosts that wait for many answers, 100 ms for each, and never busily.
void BePunctual();

// A test case that starts with a fresh pair: before the members of a derived fixture are made.
class BusTest : public ::testing::Test {
 protected:
  BusTest() { FreshPair(); }
};

class PunctualBusTest : public BusTest {
 protected:
  PunctualBusTest() { BePunctual(); }
};

}  // namespace bus
