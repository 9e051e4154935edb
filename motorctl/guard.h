// Runs a command and stops the wheels when it ends, hangs or is stopped.
#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <optional>
#include <string>
#include <vector>

#include "context.h"
#include "guarded_command.h"
#include "node_lock.h"
#include "notify_socket.h"
#include "terminal.h"
#include "wheels/stopper.h"

namespace motorctl {

struct GuardPlan {
  Vehicle vehicle;
  std::vector<int> nodes;
  std::vector<std::string> words;        // the command
  std::vector<std::string> environment;  // of the command
  std::optional<std::chrono::milliseconds> fresh;
};

// Exit statuses of its own, as other programs have them that run a command.
enum GuardStatus { kGuardFailed = 125, kNotExecutable = 126, kNotFound = 127 };

class Guard {
 public:
  // Opens the bus. Throws CommandFailed where nothing could be stopped.
  Guard(const Context& context, const GuardPlan& plan);
  ~Guard();
  Guard(const Guard&) = delete;
  Guard& operator=(const Guard&) = delete;

  // The exit status.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  void Watch();
  void Wait();
  void PassSignals();
  void BeginStop();
  bool StopDone() const;
  void CancelStop();
  void ReportPause();
  bool Stop();
  int Finish();

  const GuardPlan& plan_;
  sigset_t previous_mask_ = {};
  int signals_ = -1;
  NodeLock lock_;
  NotifySocket notify_;
  motor_driver::Stopper stopper_;
  GuardedCommand command_;
  BackgroundOutput output_;
  std::atomic<bool> stop_cancelled_{false};
  std::future<bool> stop_;  // on the way
  std::string reason_;      // why it was ended, empty when it ended by itself
};

}  // namespace motorctl
