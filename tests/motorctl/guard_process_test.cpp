// motorctl guard as a process: what it leaves to its command, and what it keeps on a full bus.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>

#include "guarded.h"

namespace {

using std::chrono::milliseconds;

long ResidentKb(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (StartsWith(line, "VmRSS:")) return std::atol(line.c_str() + 6);
  }
  return 0;
}

std::size_t Descriptors(pid_t process) {
  const std::filesystem::directory_iterator files("/proc/" + std::to_string(process) + "/fd");
  return static_cast<std::size_t>(std::distance(begin(files), end(files)));
}

// Descriptors that a program started from here has.
int Inherited() {
  int inherited = 0;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFD);
    inherited += flags >= 0 && (flags & FD_CLOEXEC) == 0 ? 1 : 0;
  }
  return inherited;
}

TEST_F(GuardTest, LeavesTheEnvironmentAlone) {
  const Result result = Motorctl(GuardLine({"sh", "-c", "env; ls /proc/self/fd | wc -l"}));
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(Contains(result.out, "NOTIFY_SOCKET=@")) << result.out;
  EXPECT_FALSE(Contains(result.out, "SPDLOG")) << result.out;
  EXPECT_FALSE(Contains(result.out, "WATCHDOG")) << result.out;
  // One more is the directory; others this process was given itself.
  EXPECT_TRUE(Contains(result.out, "\n" + std::to_string(Inherited() + 1) + "\n")) << result.out;
}

TEST_F(GuardTest, KeepsNothingOfAFullBus) {
  Process guard(HostLine({"sleep=600000"}));
  Host(guard);
  const std::size_t descriptors = Descriptors(guard.pid());
  const long before = ResidentKb(guard.pid());
  const int socket = ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(::if_nametoindex("can1"));
  EXPECT_EQ(::bind(socket, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  can_frame frame = {};
  frame.can_dlc = 8;
  constexpr int kFrames = 200'000;
  for (int sent = 0; sent < kFrames; ++sent) {
    frame.can_id = sent % 2 == 0 ? 0x181 : 0x285;  // of its own node, and of another
    EXPECT_EQ(::write(socket, &frame, sizeof(frame)), static_cast<ssize_t>(sizeof(frame)));
  }
  ::close(socket);
  std::this_thread::sleep_for(milliseconds(200));
  const long growth = ResidentKb(guard.pid()) - before;
  std::cout << before << " KiB, after " << kFrames << " frames " << growth << " KiB more\n";
  EXPECT_LT(growth, 256);
  EXPECT_LE(Descriptors(guard.pid()), descriptors);  // the one for the start of its command may go
  guard.Signal(SIGTERM);
  EXPECT_EQ(guard.Wait(), 128 + SIGTERM) << guard.Err();
}

}  // namespace
