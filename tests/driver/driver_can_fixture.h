// What the tests of the transport share.
#pragma once

#include <driver_can.h>
#include <gtest/gtest.h>
#include <linux/can.h>
#include <net/if.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "eventually.h"
#include "far_end.h"
#include "observed_driver.h"
#include "output_capture.h"

using std::chrono::milliseconds;
using support::Eventually;
using support::OutputCapture;
using support::WithoutNumbers;
using Texts = std::vector<std::string>;

inline constexpr std::uint32_t kExtended = 0x80000000;
inline constexpr std::uint32_t kRemote = 0x40000000;

// What is promised for stops, recoveries and destruction; 20 ms are usual.
inline constexpr milliseconds kPromised(100);
// Where a case cannot be tried again on a busy machine, it fails only when something hangs.
inline constexpr milliseconds kHangs(3000);

// One byte per second behind a queue without end: the socket's send buffer fills up.
inline constexpr const char* kBusThatTakesNothing = "tbf rate 8bit burst 16b limit 100mb";

inline constexpr const char* kConstructed =
    "[INFO] device is can0\n"
    "[INFO] Initializing CAN socket for device: can0\n";
inline constexpr const char* kRecovered =
    "[INFO] Starting CAN recovery...\n"
    "[INFO] Initializing CAN socket for device: can0\n"
    "[INFO] CAN recovery completed successfully\n";
inline constexpr const char* kDestroyed = "[INFO] DriverCan destroyed successfully\n";

struct Filter {
  std::uint32_t can_id;
  std::uint32_t mask;
};

// The kernel takes 512 filters at most.
inline const std::vector<Filter> kTooManyFilters(513, {0x123, 0x7FF});

inline std::string Repeated(const std::string& text, int times) {
  std::string result;
  for (; times > 0; --times) {
    result += text;
  }
  return result;
}

// Runs an operation that must not hang and tells how long it took.
template <typename Operation>
milliseconds TimeOf(const char* what, Operation operation) {
  const auto begin = bus::Clock::now();
  operation();
  const auto took = std::chrono::duration_cast<milliseconds>(bus::Clock::now() - begin);
  ::testing::Test::RecordProperty(what, static_cast<int>(took.count()));
  std::fprintf(stderr, "%s: %d ms\n", what, static_cast<int>(took.count()));
  return took;
}

// The time of an operation, tried again where a busy machine made it slow: the fastest of five.
template <typename Prepare, typename Operation>
milliseconds FastestTimeOf(const char* what, Prepare prepare, Operation operation) {
  milliseconds fastest = milliseconds::max();
  for (int i = 0; i < 5 && fastest >= kPromised; ++i) {
    prepare();
    fastest = std::min(fastest, TimeOf(what, operation));
  }
  return fastest;
}

inline bool Write(DriverCan& can, const std::string& text) {
  const can_frame frame = bus::ParseFrame(text);
  return can.CanWrite(frame.can_id, frame.data, frame.can_dlc);
}

// Everything in the queue, once it holds `count` frames.
inline Texts Take(DriverCan& can, std::size_t count) {
  EXPECT_TRUE(Eventually([&] { return can.GetReadQueueSize() >= count; }))
      << can.GetReadQueueSize() << " frames of " << count;
  return TakeQueued(can);
}

inline void SetFilters(DriverCan& can, const std::vector<Filter>& filters) {
  can.CanFiltersConfig(filters.data(), static_cast<int>(filters.size() * sizeof(Filter)));
}

// Descriptor of this process's CAN socket on can0.
inline int FindSocket() {
  for (int descriptor = 3; descriptor < 64; ++descriptor) {
    sockaddr_can address = {};
    socklen_t size = sizeof(address);
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
        address.can_family == AF_CAN &&
        address.can_ifindex == static_cast<int>(::if_nametoindex("can0"))) {
      return descriptor;
    }
  }
  ADD_FAILURE() << "no CAN socket";
  return -1;
}

inline void AllowDescriptors(rlim_t count) {
  rlimit limit = {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = count;
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
}

class DriverCanOpen : public bus::BusTest {};

class DriverCanBus : public bus::BusTest {
 protected:
  // A socket that nobody reads any more reports the error of an interface that went down or away.
  void WaitForReadError() {
    ASSERT_TRUE(Eventually([this] { return can_.GetCanError() == 3; }));
    std::this_thread::sleep_for(milliseconds(50));
  }

  // Puts `other` in the place of the library's socket, without its knowledge, and closes it here.
  // The read that is under way stays with the socket until its next frame.
  void ReplaceSocket(int other) {
    WaitForReader();
    EXPECT_GE(::dup2(other, FindSocket()), 0);
    ::close(other);
  }

  // Until the receive thread is blocked in its read.
  void WaitForReader() {
    far_end_.Send("7FF#");
    EXPECT_TRUE(Eventually([this] { return can_.DropOneCanFrame(); }));
    std::this_thread::sleep_for(milliseconds(50));
  }

  DriverCan can_{"can0"};
  bus::FarEnd far_end_{"can1"};
};

class DriverCanFilters : public DriverCanBus {
 protected:
  // What of these is received; 7FF is not waited for where it does not pass.
  Texts Passing(std::size_t count) {
    for (const char* frame : {"123#01", "124#02", "480#03", "4FF#04", "500#05"}) {
      far_end_.Send(frame);
    }
    if (count == 0) {
      std::this_thread::sleep_for(milliseconds(50));
    }
    return Take(can_, count);
  }

  const Texts all_ = {"123#01", "124#02", "480#03", "4FF#04", "500#05"};
};

// A handler that stays inside until it is let go.
class Gate {
 public:
  void Pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    ++inside_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  bool WaitInside() {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, milliseconds(2000), [this] { return inside_ > 0; });
  }
  void Open() {
    const std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int inside_ = 0;
  bool open_ = false;
};
