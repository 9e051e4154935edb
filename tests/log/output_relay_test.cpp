// What is said while there is a relay: it holds up nobody, and arrives as if there were none. Every
// case has a process of its own; this one never logs.
#include "log/output_relay.h"

#include <driver_can.h>
#include <gtest/gtest.h>
#include <hls_driver.h>
#include <kinco_driver.h>
#include <sys/resource.h>
#include <tt_driver.h>
#include <unistd.h>
#include <zl_driver.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bus_environment.h"
#include "far_end.h"
#include "held_output.h"
#include "journal.h"
#include "log/logger.h"
#include "output_capture.h"
#include "processes.h"

namespace {

using motor_driver::OutputRelay;
using std::chrono::milliseconds;

constexpr auto kAtOnce = milliseconds(2000);  // for thousands of lines, or else for ever
constexpr auto kEnd = milliseconds(200);

void Say(const std::string& line) {
  corvel::Logger::Instance("spdlog").logger->log(spdlog::source_loc{"file", 1, "function"},
                                                 spdlog::level::info, line);
}

void SayMany(int count) {
  for (int i = 0; i < count; ++i) {
    Say("line " + std::to_string(i));
  }
}

template <typename Action>
bus::Clock::duration Duration(Action action) {
  const auto begin = bus::Clock::now();
  action();
  return bus::Clock::now() - begin;
}

// An EXPECT of a child: what does not hold is on its first standard error.
int g_report = 2;
void Require(bool holds, const char* what) {
  if (!holds) {
    ::dprintf(g_report, "not so: %s\n", what);
  }
}

support::ProcessResult RunChild(const std::function<void()>& body) {
  return support::RunForked([&] {
    g_report = ::dup(2);
    body();
  });
}

void ExpectSoundChild(const std::function<void()>& body) {
  const support::ProcessResult result = RunChild(body);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
}

class OutputRelayTest : public bus::BusTest {};

// --- Nobody is held up ---------------------------------------------------------------------------

// What the relay is there for.
TEST_F(OutputRelayTest, WithoutOneAHeldOutputHoldsUpWhoLogs) {
  const support::ProcessResult result = RunChild([] {
    const HeldOutput held(1);
    ::alarm(1);
    Say("never");
  });
  EXPECT_EQ(result.signal, SIGALRM);
}

TEST_F(OutputRelayTest, AHeldOutputHoldsUpNobody) {
  ExpectSoundChild([] {
    for (const char* variable : {"SPDLOG_STDOUT", "SPDLOG_SYSTEMD", "SPDLOG_LEVEL"}) {
      unsetenv(variable);  // which the logger has to tell as well
    }
    const HeldOutput held(1);
    const OutputRelay relay;
    Require(Duration([] {
              SayMany(5000);
              KincoDriver kinco("nocan", 10000);
              Require(kinco.EnableSpeedModeAndPdoMode(1, 10) == 24, "every write fails");
              TtDriver tt("nocan");
              tt.EnableSpeedModeAndPdoMode(1, 10);
            }) < kAtOnce,
            "told at once");
  });
}

// No descriptor is left: a transport says why on standard error.
void FailToOpenASocket() {
  rlimit limit = {};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit none = {0, limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  { const DriverCan can("can0"); }
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

TEST_F(OutputRelayTest, AHeldStandardErrorHoldsUpNobody) {
  ExpectSoundChild([] {
    const HeldOutput held(2);
    const OutputRelay relay;
    Require(Duration(FailToOpenASocket) < kAtOnce, "told at once");
  });
}

TEST_F(OutputRelayTest, EndsWithin200MillisecondsOnAHeldOutput) {
  ExpectSoundChild([] {
    const HeldOutput held(1);
    auto least = bus::Clock::duration::max();
    for (int i = 0; i < 5; ++i) {
      auto relay = std::make_unique<OutputRelay>();
      SayMany(10);
      least = std::min(least, Duration([&] { relay.reset(); }));
    }
    Require(least < kEnd, "ended within 200 ms");
    Require(least > milliseconds(50), "tried to write what was left");
  });
}

// It has the lock of standard output.
TEST_F(OutputRelayTest, AThreadOfTheHostThatHangsInPrintfHoldsUpNothing) {
  ExpectSoundChild([] {
    HeldOutput held(1);
    std::thread host([] {
      std::printf("host\n");
      std::fflush(stdout);
    });
    std::this_thread::sleep_for(milliseconds(100));
    Require(Duration([] {
              const OutputRelay relay;
              KincoDriver kinco("nocan", 10000);
              kinco.SetSpeedMode(1);
            }) < kAtOnce,
            "ended");
    held.Read("host\n");
    host.join();
  });
}

TEST_F(OutputRelayTest, TheProcessMayExitWhileThereIsOne) {
  ExpectSoundChild([] {
    static const HeldOutput held(1);
    [[maybe_unused]] static const OutputRelay* leaked = std::make_unique<OutputRelay>().release();
    static const OutputRelay destroyed_at_exit;
    SayMany(3000);
    ::alarm(5);
    std::exit(0);
  });
}

TEST_F(OutputRelayTest, AJournalThatTakesNothingHoldsUpNobody) {
  ExpectSoundChild([] {
    setenv("SPDLOG_SYSTEMD", "true", 1);
    const Journal never_read;
    auto relay = std::make_unique<OutputRelay>();
    Require(Duration([] { SayMany(1500); }) < kAtOnce, "told at once");
    Require(Duration([&] { relay.reset(); }) < kAtOnce, "ended");
  });
}

// --- What arrives --------------------------------------------------------------------------------

// Everything that says something, except what needs minutes.
void SayEverything() {
  for (const char* variable : {"SPDLOG_STDOUT", "SPDLOG_SYSTEMD", "SPDLOG_LEVEL"}) {
    unsetenv(variable);
  }
  for (const unsigned length : {0U, 1U, 100U, 4094U, 4095U, 4096U, 4097U, 20'000U}) {
    Say(std::string(length, 'x'));
  }
  KincoDriver kinco("nocan", 10000);
  kinco.EnableSpeedModeAndPdoMode(1, 10);
  kinco.ActiveNode(1);
  kinco.ClearDriverError(1);
  kinco.ResetDriverStatus(1, DriverStatus::EmergencyStop);
  TtDriver tt("nocan");
  tt.EnableSpeedModeAndPdoMode(1, 10);
  HlsDriver hls("nocan");
  hls.SetMotorCurrent(1, 10, 20);
  std::uint32_t value = 0;
  hls.ReadParam(1, 0x2000, &value);
  FailToOpenASocket();
  bus::FarEnd far_end;
  ZlDriver zl("can0");
  far_end.Expect("601#433F600000000000").Reply("581#433F6000DDCCBBAA");
  far_end.Expect("601#2B40600080000000").Reply("581#8040600000000008");
  zl.ActiveNode(1);
  far_end.Expect("601#433F600000000000").Reply("581#433F600000000000");
  zl.ActiveNode(1);
}

TEST_F(OutputRelayTest, WhatArrivesIsByteForByteWhatItWouldBeWithoutOne) {
  support::ProcessResult without;
  support::ProcessResult with;
  // A machine that stalls for 5 ms makes a drive silent in one of the two.
  for (int i = 0; i < 3 && (i == 0 || with.out != without.out); ++i) {
    without = RunChild(SayEverything);
    with = RunChild([] {
      const OutputRelay relay;
      SayEverything();
    });
  }
  EXPECT_EQ(with.out, without.out);
  EXPECT_EQ(with.err, without.err);
  EXPECT_EQ(with.exit_status, 0);
  for (const char* text :
       {"environment variable SPDLOG_LEVEL is not set", "write error 0x6060, 0x00, 0xFD\n",
        "read param: node=1 addr=0x", "write param: node=1 addr=0x", "Motor has no error\n",
        "Clean motor error now\nwrite error  0x6040, 0x00, 0x80\n"}) {
    EXPECT_NE(without.out.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(without.err,
            "socket can create error!\n: Too many open files\nMotorError!! Code = 0xAABBCCDD\n");
}

TEST_F(OutputRelayTest, WhatTheHostPrintedBeforeComesFirst) {
  const support::ProcessResult result = RunChild([] {
    std::printf("host\n");
    const OutputRelay relay;
    Say("library");
  });
  EXPECT_EQ(result.out, "host\nlibrary\n");
}

// How many of the lines of SayMany() a text accounts for: told in order, or counted where they are
// missing.
int AccountedFor(const std::string& text) {
  int next = 0;
  for (const std::string& line : support::Lines(support::WithoutNumbers(text))) {
    int dropped = 0;
    if (line == "line " + std::to_string(next)) {
      ++next;
    } else if (std::sscanf(line.c_str(), "[WARN] %d lines dropped, the output was held up",
                           &dropped) == 1) {
      next += dropped;
    }
  }
  return next;
}

TEST_F(OutputRelayTest, SaysHowManyLinesWereDroppedWhereTheyAreMissing) {
  ExpectSoundChild([] {
    HeldOutput held(1);
    const OutputRelay relay;
    SayMany(5000);
    std::string text;
    std::string more;
    do {
      more = held.Read("\n");
      text += more;
    } while (!more.empty() && AccountedFor(text) < 5000);
    Require(AccountedFor(text) == 5000, "every line told or counted");
    Require(text.find(" lines dropped, the output was held up\n") != std::string::npos,
            "some lost");
    Require(support::Lines(text).size() > 1000, "not more than have to be");
    Say("after");
    Require(held.Read("after\n") == "after\n", "as if nothing had been");
  });
}

TEST_F(OutputRelayTest, KeepsTheOrderOfEveryThread) {
  const support::ProcessResult result = RunChild([] {
    const OutputRelay relay;
    std::vector<std::thread> threads;
    for (char name : {'a', 'b', 'c', 'd'}) {
      threads.emplace_back([name] {
        for (int i = 0; i < 200; ++i) {
          Say(name + std::to_string(i));
        }
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    // On a busy machine they are not all written in the time that the end of a relay has for it.
    std::this_thread::sleep_for(std::chrono::seconds(2));
  });
  std::map<char, int> next;
  for (const std::string& line : support::Lines(result.out)) {
    ASSERT_EQ(line.substr(1), std::to_string(next[line[0]]++));
  }
  EXPECT_EQ(next, (std::map<char, int>{{'a', 200}, {'b', 200}, {'c', 200}, {'d', 200}}));
}

TEST_F(OutputRelayTest, TheJournalGetsTheSourceOfEveryLine) {
  const support::ProcessResult result = RunChild([] {
    setenv("SPDLOG_SYSTEMD", "true", 1);
    const Journal journal;
    {
      const OutputRelay relay;
      const DriverCan can("can0");
    }
    for (const Journal::Entry& entry : journal.Entries()) {
      std::printf("%s|%s|%s|%s\n", entry.at("MESSAGE").c_str(), entry.at("PRIORITY").c_str(),
                  entry.at("CODE_FILE").c_str(), entry.at("CODE_FUNC").c_str());
    }
  });
  EXPECT_EQ(result.out,
            "  1 [INFO] device is can0\n"
            "  2 [INFO] Initializing CAN socket for device: can0\n"
            "  3 [INFO] DriverCan destroyed successfully\n"
            "  1 [INFO] device is can0|6|./src/driver/driver_can.cpp|DriverCan\n"
            "  2 [INFO] Initializing CAN socket for device: can0|6|./src/driver/driver_can.cpp|"
            "InitCanSocket\n"
            "  3 [INFO] DriverCan destroyed successfully|6|./src/driver/driver_can.cpp|"
            "~DriverCan\n");
}

// --- Outputs that are gone, several relays -------------------------------------------------------

TEST_F(OutputRelayTest, AnOutputThatIsGoneLosesItsLinesAndNothingElse) {
  const support::ProcessResult result = RunChild([] {
    {
      HeldOutput held(1);
      held.CloseReader();
      const OutputRelay relay;
      SayMany(3);  // no SIGPIPE
    }
    const int out = ::dup(1);
    ::close(1);
    {
      const OutputRelay relay;
      SayMany(3);
    }
    ::dup2(out, 1);
    const OutputRelay relay;
    Say("back");
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.out, "back\n");
  EXPECT_EQ(result.err, "");
}

TEST_F(OutputRelayTest, TheFirstToGoLeavesTheOther) {
  const support::ProcessResult result = RunChild([] {
    {
      HeldOutput held(1);
      std::thread([] {}).join();  // with the first, a sanitizer may start one of its own
      const auto before = support::Threads();
      auto first = std::make_unique<OutputRelay>();
      auto second = std::make_unique<OutputRelay>();
      Require(support::Threads() == before + 1, "one thread for both");
      first.reset();
      Require(Duration([] { SayMany(100); }) < kAtOnce, "told at once");
      second.reset();
      Require(support::Threads() == before, "no thread left");
    }
    Say("at once");
    Require(support::ReadWhole(1) == "at once\n", "written without waiting for another thread");
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_EQ(result.err, "");
}

TEST_F(OutputRelayTest, AfterTheLastOneAHeldOutputHoldsUpWhoLogs) {
  const support::ProcessResult result = RunChild([] {
    const HeldOutput held(1);
    { const OutputRelay relay; }
    ::alarm(1);
    Say("never");
  });
  EXPECT_EQ(result.signal, SIGALRM);
}

TEST_F(OutputRelayTest, LeavesSignalsToTheThreadsOfTheHost) {
  ExpectSoundChild([] {
    const OutputRelay relay;
    sigset_t mine;
    sigemptyset(&mine);
    sigaddset(&mine, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &mine, nullptr);
    ::kill(::getpid(), SIGUSR1);  // would end the process on any other thread
    std::this_thread::sleep_for(milliseconds(50));
    sigset_t pending;
    sigpending(&pending);
    Require(sigismember(&pending, SIGUSR1) == 1, "still there for this thread");
  });
}

}  // namespace
