// motorctl jog: turns as asked, and however it ends the last speed on the wire is zero.
#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "motorctl_process.h"
#include "sim/simulated_drive.h"

namespace {

sim::SimulatedDrive::Options Options(const std::string& make) {
  sim::SimulatedDrive::Options options;
  options.make = make;
  return options;
}

bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
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
std::vector<std::string> SpeedCommands(BusRecord& record, const std::string& make) {
  const std::string start = make == "amps" ? "601#2BF02F09" : "201#";
  std::vector<std::string> commands;
  for (const std::string& frame : record.Frames()) {
    if (StartsWith(frame, start)) commands.push_back(frame.substr(start.size()));
  }
  return commands;
}

bool IsZero(const std::string& digits) {
  return !digits.empty() && digits.find_first_not_of('0') == std::string::npos;
}

void ExpectZeroAtTheEnd(const std::vector<std::string>& commands) {
  ASSERT_GE(commands.size(), 5U);
  for (auto command = commands.end() - 5; command != commands.end(); ++command) {
    EXPECT_TRUE(IsZero(*command)) << *command;
  }
}

bool AnySpeed(const std::vector<std::string>& commands) {
  return !std::all_of(commands.begin(), commands.end(), IsZero);
}

Arguments JogLine(const std::string& make, const Arguments& more = {}) {
  Arguments arguments = {"jog", "1",     "--make", make,  "--rpm",
                         "60",  "--yes", "--ramp", "300", "--seconds"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return arguments;
}

class JogMakeTest : public bus::BusTest, public ::testing::WithParamInterface<const char*> {
 protected:
  const std::string make_ = GetParam();
  BusRecord record_;
  sim::SimulatedDrive drive_{Options(make_)};
};

INSTANTIATE_TEST_SUITE_P(Makes, JogMakeTest, ::testing::Values("zl", "tt", "hls", "amps", "kinco"),
                         MakeName);

TEST_P(JogMakeTest, TurnsAsAskedAndStops) {
  const Result result = Motorctl(JogLine(make_, {"3", "--json"}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(Contains(result.err, "zero speed sent;")) << result.err;
  const std::vector<Json> objects = result.Objects();
  ASSERT_GT(objects.size(), 10U);
  EXPECT_EQ(objects.back()["event"], "end");
  EXPECT_EQ(objects.back()["ok"], true);
  EXPECT_EQ(objects.back()["stop_confirmed"], true);
  double fastest = 0;
  int target = 0;
  for (const Json& object : objects) {
    if (object["event"] != "sample") continue;
    fastest = std::max(fastest, object["measured_rpm"][0].get<double>());
    target = std::max(target, object["target_rpm"][0].get<int>());
  }
  EXPECT_EQ(target, 60);
  EXPECT_NEAR(fastest, 60, 12);
  ExpectZeroAtTheEnd(SpeedCommands(record_, make_));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);

  // Zero before it is enabled.
  const std::vector<std::string> frames = record_.Frames();
  const auto first = [&frames](const std::string& start) {
    return std::find_if(frames.begin(), frames.end(),
                        [&start](const std::string& frame) { return StartsWith(frame, start); });
  };
  const auto zero = first(make_ == "amps" ? "601#2BF02F0900000000"
                          : make_ == "zl" ? "601#23FF600200000000"
                                          : "601#23FF600000000000");
  const auto enable = first("601#2B4060000F00");
  ASSERT_NE(zero, frames.end());
  ASSERT_NE(enable, frames.end());
  EXPECT_LT(zero - frames.begin(), enable - frames.begin());
}

TEST_P(JogMakeTest, StopsOnASignalWhileItTurns) {
  Process jog(JogLine(make_, {"30"}));
  ASSERT_TRUE(Eventually([&] { return std::abs(drive_.SpeedRpm()) > 30; })) << jog.Err();
  jog.Signal(SIGINT);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "interrupted")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "measured to stand still")) << jog.Err();
  EXPECT_TRUE(AnySpeed(SpeedCommands(record_, make_)));
  ExpectZeroAtTheEnd(SpeedCommands(record_, make_));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

struct Moment {
  int ms;
  int signal;
};

class JogMomentTest : public bus::BusTest, public ::testing::WithParamInterface<Moment> {};

// Before, in and after the set-up, in the ramps, and while it stops.
INSTANTIATE_TEST_SUITE_P(
    Moments, JogMomentTest,
    ::testing::Values(Moment{0, SIGINT}, Moment{60, SIGTERM}, Moment{250, SIGHUP},
                      Moment{700, SIGINT}, Moment{1500, SIGTSTP}, Moment{2600, SIGQUIT},
                      Moment{3000, SIGUSR1}, Moment{3500, SIGTERM}, Moment{5000, SIGALRM}),
    [](const auto& moment) { return "After" + std::to_string(moment.param.ms) + "ms"; });

// Whatever the moment, no speed other than zero is the last one, and nothing turns.
TEST_P(JogMomentTest, EndsAtZeroSpeed) {
  BusRecord record;
  sim::SimulatedDrive drive(Options("zl"));
  Process jog(JogLine("zl", {"2"}));
  std::this_thread::sleep_for(std::chrono::milliseconds(GetParam().ms));
  jog.Signal(GetParam().signal);
  const int status = jog.Wait();
  const std::vector<std::string> commands = SpeedCommands(record, "zl");
  if (!commands.empty()) {
    EXPECT_TRUE(IsZero(commands.back()));
    // The process was ended by nothing but itself.
    EXPECT_GE(status, 0) << jog.Err();
    EXPECT_LE(status, 1) << jog.Err();
  }
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

class JogTest : public bus::BusTest {
 protected:
  static std::string Last(const std::vector<std::string>& frames, std::size_t count) {
    std::string text;
    for (std::size_t i = frames.size() - std::min(frames.size(), count); i < frames.size(); ++i) {
      text += frames[i] + "\n";
    }
    return text;
  }
  void WaitUntilItTurns() {
    ASSERT_TRUE(Eventually([&] { return std::abs(drive_.SpeedRpm()) > 30; }))
        << "last frames:\n"
        << Last(record_.Frames(), 30);
  }
  BusRecord record_;
  sim::SimulatedDrive drive_{Options("zl")};
};

TEST_F(JogTest, WritesTableAndPicture) {
  const std::string csv = ::testing::TempDir() + "/jog.csv";
  const std::string svg = ::testing::TempDir() + "/jog.svg";
  const Result result = Motorctl(JogLine("zl", {"2", "--rpm2", "-30", "--csv", csv, "--svg", svg}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, "target   60, measured")) << result.out;
  EXPECT_TRUE(Contains(result.out, "target  -30, measured")) << result.out;
  EXPECT_FALSE(Contains(result.out, "\x1b"));
  std::ifstream table(csv);
  std::string line;
  std::getline(table, line);
  EXPECT_EQ(line, "second,target_rpm,measured_rpm,target2_rpm,measured2_rpm");
  int lines = 0;
  int highest = 0;
  int lowest = 0;
  for (; std::getline(table, line); ++lines) {
    double second = 0;
    double measured = 0;
    double measured2 = 0;
    int target = 0;
    int target2 = 0;
    ASSERT_EQ(std::sscanf(line.c_str(), "%lf,%d,%lf,%d,%lf", &second, &target, &measured, &target2,
                          &measured2),
              5)
        << line;
    highest = std::max(highest, target);
    lowest = std::min(lowest, target2);
  }
  EXPECT_GT(lines, 50);
  EXPECT_EQ(highest, 60);
  EXPECT_EQ(lowest, -30);
  std::ifstream picture(svg);
  std::ostringstream text;
  text << picture.rdbuf();
  EXPECT_TRUE(StartsWith(text.str(), "<svg "));
  EXPECT_TRUE(Contains(text.str(), "</svg>"));
  EXPECT_EQ(Motorctl(JogLine("zl", {"2", "--csv", "/absent/file"})).status, 1);
}

TEST_F(JogTest, AsksAtATerminalAndDrawsAChart) {
  Arguments arguments = JogLine("zl", {"2"});
  arguments.erase(std::find(arguments.begin(), arguments.end(), "--yes"));
  Process refused(arguments, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(refused.Out(), "[y/N]"); }));
  refused.Type("\n");
  EXPECT_EQ(refused.Wait(), 1);
  EXPECT_TRUE(Contains(refused.Out(), "nothing was moved"));
  EXPECT_TRUE(SpeedCommands(record_, "zl").empty());

  Process jog(arguments, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(jog.Out(), "[y/N]"); }));
  jog.Type("y\n");
  EXPECT_EQ(jog.Wait(), 0) << jog.Out();
  EXPECT_TRUE(Contains(jog.Out(), "(- target, * measured)")) << jog.Out();
  EXPECT_TRUE(Contains(jog.Out(), "\x1b[20A")) << jog.Out();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

// A terminal that takes no more output must not keep the wheels turning.
TEST_F(JogTest, StopsThoughItsOutputIsHeld) {
  Process jog(JogLine("zl", {"4", "--json"}), Output::kTerminal);
  jog.Type("\x13");  // Ctrl-S
  WaitUntilItTurns();
  EXPECT_TRUE(Eventually([&] { return drive_.SpeedRpm() == 0.0; }));
  std::this_thread::sleep_for(std::chrono::seconds(1));
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
  EXPECT_FALSE(Contains(jog.Out(), "\"event\":\"end\""));
  jog.Type("\x11");
  EXPECT_EQ(jog.Wait(), 0) << jog.Out();
}

TEST_F(JogTest, StopsWhenTheInterfaceComesBack) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  bus::SetDown("can0");
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_GT(drive_.SpeedRpm(), 30);  // it heard nothing
  bus::SetUp("can0");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "the bus failed")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "both wheels were measured to stand still")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

TEST_F(JogTest, SaysLoudlyThatAStopIsNotConfirmed) {
  Process jog(JogLine("zl", {"30", "--json"}));
  WaitUntilItTurns();
  bus::SetDown("can0");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "*** THE STOP IS NOT CONFIRMED: node 1 MAY STILL TURN"))
      << jog.Err();
  EXPECT_TRUE(Contains(jog.Out(), "\"stop_confirmed\":false")) << jog.Out();
}

TEST_F(JogTest, EndsAtZeroWhenTheDriveFallsSilent) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.PowerCut();
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "sends no positions any more")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "NOT CONFIRMED")) << jog.Err();
  EXPECT_TRUE(AnySpeed(SpeedCommands(record_, "zl")));
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

// It sends no PDOs any more, but its position can still be read.
TEST_F(JogTest, ConfirmsTheStopOfADriveThatRestarted) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.PowerCut();
  drive_.PowerOn();
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "its position does not change any more")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

TEST_F(JogTest, StopsWhenHeartbeatsCease) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.Inject("no-heartbeat-after-ms=0");
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "sends no heartbeat any more")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

TEST_F(JogTest, StopsWhenAWheelDoesNotFollow) {
  Process jog(JogLine("zl", {"30"}));
  WaitUntilItTurns();
  drive_.LatchError(0x2310);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "does not follow")) << jog.Err();
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

TEST_F(JogTest, TurnsNothingAfterASetUpThatFailed) {
  drive_.Inject("abort-object=0x1A03");
  const Result result = Motorctl(JogLine("zl", {"2"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "failed: 0x1A03 sub 0")) << result.err;
  EXPECT_FALSE(AnySpeed(SpeedCommands(record_, "zl")));
  EXPECT_EQ(drive_.SpeedRpm(), 0.0);
}

TEST_F(JogTest, DoesNotEnableADriveThatRefusesZero) {
  drive_.Inject("abort-object=0x60FF:2");
  const Result result = Motorctl(JogLine("zl", {"2"}));
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err, "zero to 0x60FF sub 2")) << result.err;
  EXPECT_TRUE(Contains(result.err, "nothing was moved")) << result.err;
  for (const std::string& frame : record_.Frames()) {
    EXPECT_FALSE(StartsWith(frame, "601#2B4060000F00")) << "enabled";
  }
}

// A speed that a crashed host has left behind is gone before the drive is enabled.
TEST_F(JogTest, DoesNotTurnAtASpeedLeftBehind) {
  drive_.WriteObject(0x60FF, 1, 500);
  const Result result = Motorctl(JogLine("zl", {"1"}));
  EXPECT_EQ(result.status, 0) << result.err;
  ExpectZeroAtTheEnd(SpeedCommands(record_, "zl"));
}

}  // namespace
