#include "idle.h"

#include <dirent.h>
#include <fmt/core.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <zl_driver.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bare.h"

namespace {

double CpuSeconds() {
  timespec cpu = {};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
  return static_cast<double>(cpu.tv_sec) + static_cast<double>(cpu.tv_nsec) * 1e-9;
}

// Exact, which the counters in /proc/self/statm are not: each CPU adds to them in batches.
double ResidentKb() {
  std::ifstream rollup("/proc/self/smaps_rollup");
  double resident = 0;
  for (std::string word; rollup >> word;) {
    if (word == "Rss:") {
      rollup >> resident;
    }
  }
  return resident;
}

double Entries(const char* directory) {
  const std::unique_ptr<DIR, int (*)(DIR*)> entries(::opendir(directory), &::closedir);
  double count = -2;  // . and ..
  while (entries != nullptr && ::readdir(entries.get()) != nullptr) {
    ++count;
  }
  return count;
}

}  // namespace

IdleCost MeasureIdle(IdleHolder holder, const std::string& interface, double seconds) {
  std::array<int, 2> pipe_ends = {};
  if (::pipe(pipe_ends.data()) < 0) {
    throw std::runtime_error("no pipe");
  }
  std::vector<std::string> words = {"motor-driver-bench",
                                    "--interface",
                                    interface,
                                    "--seconds",
                                    fmt::format("{}", seconds),
                                    "--idle-holder",
                                    holder == IdleHolder::kLibrary ? "library" : "bare"};
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  const pid_t process = ::fork();
  if (process == 0) {
    ::dup2(pipe_ends[1], STDOUT_FILENO);
    ::close(pipe_ends[0]);
    ::close(pipe_ends[1]);
    ::execv("/proc/self/exe", arguments.data());
    ::_exit(1);
  }
  ::close(pipe_ends[1]);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> output(::fdopen(pipe_ends[0], "r"),
                                                               &std::fclose);
  IdleCost cost = {};
  const int fields =  // NOLINTNEXTLINE(cert-err34-c): written by ourselves, and counted
      std::fscanf(output.get(), "%lf %lf %lf %lf %lf", &cost.cpu_us_per_second, &cost.resident_kb,
                  &cost.added_kb, &cost.threads, &cost.descriptors);
  ::waitpid(process, nullptr, 0);
  if (fields != 5) {
    throw std::runtime_error("the idle process did not report");
  }
  return cost;
}

int HoldIdle(IdleHolder holder, const std::string& interface, double seconds) {
  const double resident_before = ResidentKb();
  std::unique_ptr<ZlDriver> drive;
  std::unique_ptr<BareReader> bare;
  if (holder == IdleHolder::kLibrary) {
    drive = std::make_unique<ZlDriver>(interface.c_str());
    if (drive->GetCanError() != 0) {
      return 1;
    }
  } else {
    bare = std::make_unique<BareReader>(interface, true);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // the thread has come to its read
  const double cpu_before = CpuSeconds();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const double cpu = CpuSeconds() - cpu_before;
  const double resident = ResidentKb();
  // Without the directory that is being counted.
  const double descriptors = Entries("/proc/self/fd") - 1;
  fmt::print("{} {} {} {} {}\n", cpu / seconds * 1e6, resident, resident - resident_before,
             Entries("/proc/self/task"), descriptors);
  return 0;
}
