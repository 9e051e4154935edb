// What a host on Wheels tells whoever started it, without knowing of it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <wheels.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "eventually.h"

namespace {

using std::chrono::milliseconds;

constexpr const char* kAlive = "WATCHDOG=1";
constexpr const char* kOff = "X_WHEELS=OFF";

class NotifyTest : public ::testing::Test {
 public:
  NotifyTest() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string name = "notify_test." + std::to_string(::getpid());
    name.copy(address.sun_path + 1, name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), size), 0);
    ::setenv("NOTIFY_SOCKET", ("@" + name).c_str(), 1);
    ::setenv("WATCHDOG_USEC", "80000", 1);
    vehicle_.make = "fake";
    vehicle_.wheels.push_back({});
    vehicle_.wheels.front().name = "left";
    vehicle_.max_acceleration = 1000;
    vehicle_.max_deceleration = 50;
    wheels_.emplace(vehicle_);
  }
  ~NotifyTest() override {
    wheels_.reset();
    ::close(socket_);
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
  }

 protected:
  // What comes within this time, from now on.
  std::vector<std::string> Heard(milliseconds time) {
    Arrived();
    std::this_thread::sleep_for(time);
    return Arrived();
  }
  std::vector<std::string> Arrived() const {
    std::vector<std::string> messages;
    char text[256];
    for (ssize_t bytes = 0; (bytes = ::recv(socket_, text, sizeof(text), MSG_DONTWAIT)) > 0;) {
      messages.emplace_back(text, static_cast<std::size_t>(bytes));
    }
    return messages;
  }

  int socket_;
  motor_driver::Vehicle vehicle_;
  std::optional<motor_driver::Wheels> wheels_;
};

TEST_F(NotifyTest, LivesWhileItIdles) {
  ASSERT_TRUE(wheels_->BringUp());
  const std::vector<std::string> heard = Heard(milliseconds(500));
  EXPECT_GE(heard.size(), 4U);  // 25 on an idle machine
  EXPECT_LE(heard.size(), 26U);
  EXPECT_EQ(std::count(heard.begin(), heard.end(), kAlive), static_cast<long>(heard.size()));
}

TEST_F(NotifyTest, IsSilentWhileAWheelTurnsOnAStaleCommand) {
  ASSERT_TRUE(wheels_->BringUp());
  const double speed = 100;
  const auto end = std::chrono::steady_clock::now() + milliseconds(300);
  while (std::chrono::steady_clock::now() < end) {
    ASSERT_TRUE(wheels_->Command(&speed, 1));
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_GE(Arrived().size(), 5U);
  ASSERT_TRUE(support::Eventually([&] { return wheels_->GetReport().command_stale; }));
  // It takes 2 s to stand.
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(Heard(milliseconds(500)), std::vector<std::string>());
  // What stands is harmless.
  ASSERT_TRUE(support::Eventually([&] { return wheels_->GetWheel(0).target_rpm == 0; }));
  EXPECT_GE(Heard(milliseconds(500)).size(), 4U);
}

TEST_F(NotifyTest, SaysThatTheWheelsAreOffAtTheOrderlyEnd) {
  ASSERT_TRUE(wheels_->BringUp());
  Arrived();
  wheels_.reset();
  const std::vector<std::string> heard = Arrived();
  ASSERT_FALSE(heard.empty());
  EXPECT_EQ(heard.back(), kOff);
  EXPECT_EQ(std::count(heard.begin(), heard.end(), kOff), 1);
}

TEST_F(NotifyTest, NeverWaitsForAReceiverThatDoesNotRead) {
  ASSERT_TRUE(wheels_->BringUp());
  const std::uint64_t before = wheels_->GetReport().cycles;
  // Longer than it takes to fill the queue of the socket; 150 cycles on an idle machine.
  std::this_thread::sleep_for(milliseconds(1500));
  EXPECT_GT(wheels_->GetReport().cycles, before + 40);
  EXPECT_LT(wheels_->GetReport().latest_cycle, milliseconds(500));
}

}  // namespace
