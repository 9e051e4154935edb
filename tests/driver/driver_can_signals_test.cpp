// The receive thread and the signals of the host.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "driver_can_fixture.h"
#include "eventually.h"
#include "processes.h"

namespace {

std::atomic<pid_t> handled_by{0};

TEST_F(DriverCanOpen, HandlersOfTheHostNeverRunOnItsThread) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = [](int) { handled_by = static_cast<pid_t>(::syscall(SYS_gettid)); };
  ::sigaction(SIGUSR1, &action, &before);
  {
    const DriverCan can("can0");
    sigset_t user;
    sigemptyset(&user);
    sigaddset(&user, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &user, nullptr);
    // To the process: any thread that does not block it would do.
    ::kill(::getpid(), SIGUSR1);
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(handled_by, 0);
    pthread_sigmask(SIG_UNBLOCK, &user, nullptr);
    EXPECT_EQ(handled_by, ::getpid());
  }
  ::sigaction(SIGUSR1, &before, nullptr);
}

// Signal mask of the youngest thread besides this; a sanitizer may have an older one of its own.
std::uint64_t BlockedByOtherThread() {
  int youngest = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    youngest = std::max(youngest, std::stoi(task.path().filename()));
  }
  std::ifstream status("/proc/self/task/" + std::to_string(youngest) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("SigBlk:", 0) == 0) {
      return std::stoull(line.substr(7), nullptr, 16);
    }
  }
  return 0;
}

TEST_F(DriverCanOpen, ItsThreadBlocksEverySignalButTheFaultsOfItsOwn) {
  std::uint64_t expected = ~std::uint64_t{0};
  // The last two are the C library's own, one of them how a thread is cancelled.
  for (const int open : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGKILL,
                         SIGSTOP, __SIGRTMIN, __SIGRTMIN + 1}) {
    expected &= ~(std::uint64_t{1} << (open - 1));
  }
  DriverCan can("can0");
  // While it starts, a thread blocks even more.
  EXPECT_TRUE(Eventually([&] { return BlockedByOtherThread() == expected; }))
      << std::hex << BlockedByOtherThread() << " instead of " << expected;
  EXPECT_TRUE(can.CanRecover());
  EXPECT_TRUE(support::WaitThreads(2));
  EXPECT_TRUE(Eventually([&] { return BlockedByOtherThread() == expected; }))
      << std::hex << BlockedByOtherThread() << " instead of " << expected;
}

TEST_F(DriverCanOpen, ChangesNoDispositionAndNoMaskOfTheHost) {
  const auto dispositions = [] {
    std::vector<void (*)(int)> handlers;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
      struct sigaction action = {};
      ::sigaction(signal, nullptr, &action);
      handlers.push_back(action.sa_handler);
    }
    return handlers;
  };
  const auto mask = [] {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    std::vector<int> members;
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
      members.push_back(sigismember(&blocked, signal));
    }
    return members;
  };
  const auto dispositions_before = dispositions();
  const auto mask_before = mask();
  {
    DriverCan can("can0");
    EXPECT_EQ(mask(), mask_before);
    EXPECT_TRUE(can.CanRecover());
    can.StopReading();
    EXPECT_TRUE(can.CanRecover());
    EXPECT_EQ(dispositions(), dispositions_before);
  }
  EXPECT_EQ(dispositions(), dispositions_before);
  EXPECT_EQ(mask(), mask_before);
}

}  // namespace
