// motorctl guard: however its command ends, the last speed on the wire is zero.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>

#include "bus_of_guard.h"

namespace {

using std::chrono::milliseconds;

// Processes whose parent is this one.
std::vector<pid_t> Children(pid_t parent) {
  std::vector<pid_t> children;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "stat");
    std::string text;
    std::getline(file, text);
    int its_parent = 0;
    const std::size_t name_end = text.rfind(')');
    if (name_end != std::string::npos &&
        std::sscanf(text.c_str() + name_end + 1, " %*c %d", &its_parent) == 1 &&
        its_parent == parent) {
      children.push_back(std::atoi(entry.path().filename().c_str()));
    }
  }
  return children;
}

std::string CommandLine(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/cmdline");
  std::string text;
  std::getline(file, text);
  return text;
}

bool Lives(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name_end = text.rfind(')');
  return name_end != std::string::npos && text[name_end + 2] != 'Z';
}

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

Arguments GuardLine(const Arguments& command, const Arguments& options = {}) {
  return With(With({"guard", "1", "--make", "zl"}, options), With({"--"}, command));
}

Arguments HostLine(const Arguments& steps, const Arguments& options = {}) {
  return GuardLine(With({GUARDED_HOST}, steps), options);
}

Arguments GuardedJog(const std::string& seconds, const Arguments& options = {}) {
  return GuardLine(With({MOTORCTL}, JogLine("zl", seconds)), options);
}

class GuardTest : public bus::BusTest {
 protected:
  void BringUp() { ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl"}).status, 0); }

  bool Turns() {
    return Eventually([this] { return drive_.SpeedRpm() > 50; });
  }

  // Whoever may still be there has time to say otherwise.
  void ExpectStanding() {
    EXPECT_EQ(drive_.SpeedRpm(), 0.0);
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_EQ(drive_.SpeedRpm(), 0.0);
  }

  // Frames that a host or a guard sent.
  static std::vector<std::string> Sent(bus::FarEnd& record) {
    std::vector<std::string> sent;
    for (const std::string& frame : record.Frames()) {
      if (!StartsWith(frame, "701#")) sent.push_back(frame);
    }
    return sent;
  }

  // The one child of the guard, once it is what it is to be.
  static pid_t Host(const Process& guard) {
    pid_t host = -1;
    EXPECT_TRUE(Eventually([&] {
      const std::vector<pid_t> children = Children(guard.pid());
      if (children.size() == 1) host = children.front();
      return host > 0 && CommandLine(host) != CommandLine(guard.pid());
    }));
    return host;
  }

  sim::SimulatedDrive drive_{DriveOptions("zl")};
};

class GuardMakeTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {};

INSTANTIATE_TEST_SUITE_P(Makes, GuardMakeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(GuardMakeTest, StopsTheWheelOfAKilledHost) {
  const std::string make = GetParam().name;
  sim::SimulatedDrive drive(DriveOptions(make));
  Process guard(With({"guard", "1", "--make", make, "--", MOTORCTL}, JogLine(make, "60")));
  ASSERT_TRUE(Eventually([&drive] { return std::abs(drive.SpeedRpm()) > 50; })) << guard.Err();
  bus::FarEnd record;
  const std::vector<pid_t> hosts = Children(guard.pid());
  ASSERT_EQ(hosts.size(), 1U);
  ::kill(hosts.front(), SIGKILL);
  EXPECT_EQ(guard.Wait(), 128 + SIGKILL) << guard.Err();
  EXPECT_TRUE(Contains(guard.Err(), "ended by signal 9; the wheels stand\n")) << guard.Err();
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
  EXPECT_EQ(Commands(record.Frames()), std::vector<std::string>());
}

struct Ending {
  const char* name;
  const char* step;
  int status;
};

class GuardEndingTest : public GuardTest, public ::testing::WithParamInterface<Ending> {};

INSTANTIATE_TEST_SUITE_P(Endings, GuardEndingTest,
                         ::testing::Values(Ending{"WithSuccess", "exit=0", 0},
                                           Ending{"WithAStatus", "exit=3", 3},
                                           Ending{"ByAbort", "abort", 128 + SIGABRT}),
                         [](const auto& ending) { return ending.param.name; });

TEST_P(GuardEndingTest, StopsTheWheelsAndPassesTheStatusOn) {
  BringUp();
  Process guard(HostLine({"turn=1500", GetParam().step}));
  ASSERT_TRUE(Turns()) << guard.Err();
  EXPECT_EQ(guard.Wait(), GetParam().status) << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, SendsNothingForACommandThatCannotBeExecuted) {
  bus::FarEnd record;
  Result result = Motorctl(GuardLine({"no-such-command"}));
  EXPECT_EQ(result.status, 127);
  EXPECT_EQ(result.err,
            "motorctl: no-such-command cannot be executed: No such file or directory; nothing was "
            "sent\n");
  result = Motorctl(GuardLine({"/etc/passwd"}));
  EXPECT_EQ(result.status, 126);
  EXPECT_EQ(Motorctl(GuardLine({})).status, 2);
  EXPECT_EQ(Motorctl({"guard", "1", "--make", "zl"}).status, 2);
  EXPECT_EQ(Motorctl({"guard", "--make", "zl", "--", "true"}).status, 2);
  EXPECT_EQ(Motorctl({"guard", "1", "--", "true"}).status, 2);
  EXPECT_EQ(Motorctl({"guard", "1", "--vehicle", "/nowhere", "--", "true"}).status, 125);
  EXPECT_EQ(Sent(record), std::vector<std::string>());
}

TEST_F(GuardTest, DoesNotStartACommandWithoutABus) {
  const std::string mark = "/dev/shm/guard_test." + std::to_string(::getpid());
  Result result = Motorctl(With({"--interface", "can7"}, GuardLine({"touch", mark})));
  EXPECT_EQ(result.status, 125);
  EXPECT_TRUE(Contains(result.err, "touch was not started: there is no CAN interface can7"))
      << result.err;
  bus::SetDown("can0");
  result = Motorctl(GuardLine({"touch", mark}));
  EXPECT_EQ(result.status, 125);
  EXPECT_TRUE(Contains(result.err, "can0")) << result.err;
  EXPECT_FALSE(std::filesystem::exists(mark));
}

TEST_F(GuardTest, EndsWhatLeftTheProcessGroup) {
  BringUp();
  bus::FarEnd record;
  Process guard(HostLine({"leave", "turn=60000"}));
  EXPECT_EQ(guard.Wait(), 0) << guard.Err();
  record.Forget();
  std::this_thread::sleep_for(milliseconds(200));
  for (const std::string& frame : record.Frames()) EXPECT_FALSE(IsSpeed(frame)) << frame;
  ExpectStanding();
}

TEST_F(GuardTest, StopsTheWheelsOfAStoppedCommandAndLetsItGoOn) {
  Process guard(GuardedJog("8"));
  ASSERT_TRUE(Turns()) << guard.Err();
  const pid_t host = Host(guard);
  ::kill(host, SIGSTOP);
  EXPECT_TRUE(Eventually([this] { return drive_.SpeedRpm() == 0.0; }));
  EXPECT_TRUE(Eventually([&guard] { return Contains(guard.Err(), "is stopped"); }));
  ExpectStanding();
  EXPECT_TRUE(Lives(host));
  ::kill(host, SIGCONT);
  EXPECT_TRUE(Turns()) << guard.Err();
  EXPECT_EQ(guard.Wait(), 0) << guard.Err();
  EXPECT_FALSE(Contains(guard.Err(), "NOT CONFIRMED")) << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, EndsAStoppedCommandThatHasToBeFresh) {
  Process guard(GuardedJog("60", {"--fresh-ms", "300"}));
  ASSERT_TRUE(Turns()) << guard.Err();
  ::kill(Host(guard), SIGSTOP);
  EXPECT_EQ(guard.Wait(), 128 + SIGKILL);
  EXPECT_TRUE(Contains(guard.Err(), "was ended (no sign of life for 300 ms) and ended by signal 9"))
      << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, EndsACommandThatTurnsWheelsWithoutASignOfLife) {
  BringUp();
  Process guard(HostLine({"drive=1000", "turn=60000"}, {"--fresh-ms", "300"}));
  ASSERT_TRUE(Turns()) << guard.Err();
  EXPECT_EQ(guard.Wait(), 128 + SIGKILL) << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, LeavesACommandAloneThatNeverSpoke) {
  EXPECT_EQ(Motorctl(HostLine({"sleep=500", "exit=5"}, {"--fresh-ms", "100"})).status, 5);
}

TEST_F(GuardTest, LeavesACommandAloneWhoseWheelsAreOff) {
  EXPECT_EQ(Motorctl(HostLine({"beat=300", "say=X_WHEELS=OFF", "sleep=800", "exit=6"},
                              {"--fresh-ms", "250"}))
                .status,
            6);
}

TEST_F(GuardTest, FindsAHealthyHostFreshToItsEnd) {
  Process guard(GuardedJog("3", {"--fresh-ms", "300"}));
  EXPECT_EQ(guard.Wait(), 0) << guard.Err();
  ExpectStanding();
}

TEST_F(GuardTest, PassesSignalsOn) {
  {
    Process guard(GuardedJog("60"));
    ASSERT_TRUE(Turns()) << guard.Err();
    guard.Signal(SIGTERM);
    EXPECT_EQ(guard.Wait(), 1) << guard.Err();
    EXPECT_TRUE(Contains(guard.Err(), "interrupted")) << guard.Err();
    ExpectStanding();
  }
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGUSR2, SIGABRT}) {
    Process guard(HostLine({"sleep=60000"}));
    Host(guard);
    guard.Signal(signal);
    EXPECT_EQ(guard.Wait(), 128 + signal) << guard.Err();
  }
}

TEST_F(GuardTest, EndsAStoppedCommandWhenAsked) {
  Process guard(HostLine({"stop"}));
  EXPECT_TRUE(Eventually([&guard] { return Contains(guard.Err(), "is stopped"); }));
  guard.Signal(SIGTERM);
  EXPECT_EQ(guard.Wait(), 128 + SIGTERM) << guard.Err();
}

TEST_F(GuardTest, TakesItsHostDownWhenItIsKilledItself) {
  Process guard(GuardedJog("60"));
  ASSERT_TRUE(Turns()) << guard.Err();
  const pid_t host = Host(guard);
  guard.Signal(SIGKILL);
  EXPECT_EQ(guard.Wait(), -1);
  EXPECT_TRUE(Eventually([this, host] { return !Lives(host); }));
  ExpectStanding();
}

TEST_F(GuardTest, SaysInCapitalsWhenTheStopIsNotConfirmed) {
  Process guard(HostLine({"sleep=500"}));
  Host(guard);
  drive_.PowerCut();
  EXPECT_EQ(guard.Wait(), 1);
  EXPECT_TRUE(Contains(guard.Err(), "THE STOP IS NOT CONFIRMED: NODE 1 MAY STILL TURN"))
      << guard.Err();
}

TEST_F(GuardTest, IsTheOnlyOneOfItsNode) {
  Process first(HostLine({"sleep=60000"}));
  Host(first);
  bus::FarEnd record;
  for (int attempt = 0; attempt < 40; ++attempt) {
    const Result second = Motorctl(GuardLine({"true"}));
    EXPECT_EQ(second.status, 125);
    EXPECT_EQ(second.err,
              "motorctl: true was not started: node 1 on can0 is guarded already, by "
              "process " +
                  std::to_string(first.pid()) + "\n");
  }
  EXPECT_EQ(Sent(record), std::vector<std::string>());
  EXPECT_EQ(Motorctl({"guard", "2", "--make", "fake", "--", "true"}).status, 0);
  first.Signal(SIGKILL);
  first.Wait();
  EXPECT_EQ(Motorctl(GuardLine({"true"})).status, 0);
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

TEST_F(GuardTest, LetsItsCommandReadTheKeyboard) {
  Process guard(GuardLine({"sh", "-c", "read word; test $word = go && exit 7"}), Output::kTerminal);
  Host(guard);
  guard.Type("go\n");
  EXPECT_EQ(guard.Wait(), 7) << guard.Out();
}

TEST_F(GuardTest, StopsAndEndsItsCommandFromTheKeyboard) {
  Process guard(HostLine({"sleep=60000"}), Output::kTerminal);
  Host(guard);
  std::this_thread::sleep_for(milliseconds(200));
  guard.Type("\x1a");  // Ctrl-Z
  EXPECT_TRUE(Eventually([&guard] { return Contains(guard.Out(), "is stopped"); })) << guard.Out();
  guard.Type("\x03");  // Ctrl-C
  EXPECT_EQ(guard.Wait(), 128 + SIGINT) << guard.Out();
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
  EXPECT_EQ(Descriptors(guard.pid()), descriptors);
  guard.Signal(SIGTERM);
  EXPECT_EQ(guard.Wait(), 128 + SIGTERM) << guard.Err();
}

TEST_F(GuardTest, ProvesOnTheVehicleThatItWorks) {
  const Result result = Motorctl({"guard", "1", "--make", "zl", "--prove", "--yes"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(StartsWith(result.out, "PASSED: node 1 stood ")) << result.out << result.err;
  ExpectStanding();
}

TEST_F(GuardTest, ProvesNothingWithoutAWheelThatTurns) {
  EXPECT_EQ(Motorctl({"guard", "1", "--make", "zl", "--prove"}).status, 2);
  drive_.Inject("abort-object=0x6040");
  const Result result = Motorctl({"guard", "1", "--make", "zl", "--prove", "--yes", "--json"});
  EXPECT_EQ(result.status, 1);
  ASSERT_EQ(result.Objects().size(), 1U) << result.out;
  EXPECT_EQ(result.Objects()[0]["ok"], false);
}

}  // namespace
