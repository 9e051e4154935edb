// What the tests of motorctl jog share: drives, and every frame that went by.
#pragma once

#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "motorctl_process.h"
#include "simulated.h"

inline bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

// The median of what a jog that prints JSON measured at this target, of the first motor. The fastest
// and the slowest are those of a machine that stalled. 0 without a measurement.
inline double UsualRpm(const std::vector<Json>& objects, int target) {
  std::vector<double> measured;
  for (const Json& object : objects) {
    if (object["event"] != "sample" || object["target_rpm"][0] != target) continue;
    measured.push_back(object["measured_rpm"][0]);
  }
  std::sort(measured.begin(), measured.end());
  return measured.empty() ? 0 : measured[measured.size() / 2];
}

// Writes down every frame on can1. It only listens, and takes no time from the drive: for that
// bus::FarEnd, which answers before anything else runs, is the wrong tool.
class BusRecord {
 public:
  BusRecord() : socket_(::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW)) {
    sockaddr_can address = {};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(::if_nametoindex("can1"));
    const timeval wait = {0, 50'000};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    thread_ = std::thread([this] { Run(); });
  }
  ~BusRecord() {
    running_ = false;
    thread_.join();
    ::close(socket_);
  }
  BusRecord(const BusRecord&) = delete;
  BusRecord& operator=(const BusRecord&) = delete;

  // All that was sent until now.
  std::vector<std::string> Frames() {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }

 private:
  void Run() {
    can_frame frame = {};
    while (running_) {
      if (::read(socket_, &frame, sizeof(frame)) != sizeof(frame)) continue;
      const std::lock_guard<std::mutex> lock(mutex_);
      frames_.push_back(bus::FormatFrame(frame));
    }
  }

  int socket_;
  std::atomic<bool> running_{true};
  std::mutex mutex_;
  std::vector<std::string> frames_;
  std::thread thread_;
};

// The speed commands of node 1, oldest first, without their identifier.
inline std::vector<std::string> SpeedCommands(BusRecord& record, const std::string& make) {
  const tested::Make& tested = *std::find_if(tested::Makes().begin(), tested::Makes().end(),
                                             [&](const auto& row) { return row.name == make; });
  // A PDO is recognised by its identifier, an SDO transfer by its object as well.
  const std::size_t header = tested.backwards[0] == '6' ? 12 : 4;
  const std::string start = tested.backwards.substr(0, header);
  std::vector<std::string> commands;
  for (const std::string& frame : record.Frames()) {
    if (StartsWith(frame, start)) commands.push_back(frame.substr(start.size()));
  }
  return commands;
}

inline bool IsZero(const std::string& digits) {
  return !digits.empty() && digits.find_first_not_of('0') == std::string::npos;
}

inline void ExpectZeroAtTheEnd(const std::vector<std::string>& commands) {
  ASSERT_GE(commands.size(), 5U);
  for (auto command = commands.end() - 5; command != commands.end(); ++command) {
    EXPECT_TRUE(IsZero(*command)) << *command;
  }
}

inline bool AnySpeed(const std::vector<std::string>& commands) {
  return !std::all_of(commands.begin(), commands.end(), IsZero);
}

inline Arguments JogLine(const std::string& make, const Arguments& more = {}) {
  Arguments arguments = {"jog", "1",     "--make", make,  "--rpm",
                         "60",  "--yes", "--ramp", "300", "--seconds"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}
