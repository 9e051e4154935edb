// motorctl guard between its command and a service manager: the protocol of sd_notify().
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <string>
#include <vector>

#include "guarded.h"

namespace {

// What a service manager hears.
class Manager {
 public:
  Manager() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string name = "guard_test." + std::to_string(::getpid());
    name.copy(address.sun_path + 1, name.size());
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    EXPECT_EQ(::bind(socket_, reinterpret_cast<sockaddr*>(&address), size), 0);
    name_ = "@" + name;
  }
  ~Manager() { ::close(socket_); }
  Manager(const Manager&) = delete;
  Manager& operator=(const Manager&) = delete;

  const std::string& name() const { return name_; }

  std::vector<std::string> Messages() const {
    std::vector<std::string> messages;
    char text[4096];
    for (ssize_t bytes = 0; (bytes = ::recv(socket_, text, sizeof(text), MSG_DONTWAIT)) > 0;) {
      messages.emplace_back(text, static_cast<std::size_t>(bytes));
    }
    return messages;
  }

 private:
  int socket_;
  std::string name_;
};

TEST_F(GuardTest, SpeaksForItsCommandToAServiceManager) {
  const Manager manager;
  Process guard(HostLine({"say=READY=1\nSTATUS=drives\nMAINPID=1", "say=WATCHDOG=1",
                          "say=X_WHEELS=OFF", "say=BARRIER=1"}),
                Output::kFile, "", {"NOTIFY_SOCKET=" + manager.name(), "WATCHDOG_USEC=400000"});
  EXPECT_EQ(guard.Wait(), 0) << guard.Err();
  const std::vector<std::string> messages = manager.Messages();
  ASSERT_GE(messages.size(), 3U);
  EXPECT_EQ(messages[0], "READY=1\nSTATUS=drives\n");
  // Its own signs of life follow, while it stops the wheels.
  for (std::size_t i = 1; i < messages.size(); ++i) {
    EXPECT_EQ(messages[i].substr(0, 10), "WATCHDOG=1") << messages[i];
  }
}

TEST_F(GuardTest, AsksItsCommandForTheShorterTime) {
  const Manager manager;
  const auto time = [&manager](const Arguments& options, const std::string& outer) {
    Process guard(GuardLine({"sh", "-c", "echo $WATCHDOG_USEC $WATCHDOG_PID"}, options),
                  Output::kFile, "", {"NOTIFY_SOCKET=" + manager.name(), "WATCHDOG_USEC=" + outer});
    EXPECT_EQ(guard.Wait(), 0);
    return guard.Out();
  };
  EXPECT_EQ(time({"--fresh-ms", "200"}, "1000000"), "200000\n");
  EXPECT_EQ(time({"--fresh-ms", "200"}, "100000"), "100000\n");
  EXPECT_EQ(time({}, "300000"), "300000\n");
}

}  // namespace
