// The control thread of a vehicle: sends and judges once per period, and does what takes longer in
// between.
#pragma once

#include <wheels.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "wheels/bring_up.h"
#include "wheels/drives.h"
#include "wheels/judge.h"
#include "wheels/notifier.h"
#include "wheels/priority_mutex.h"

namespace motor_driver {

class Control final : private Surroundings {
 public:
  using Clock = std::chrono::steady_clock;
  using Progress = std::function<void(const std::string&)>;
  using IsCancelled = std::function<bool()>;

  // `vehicle` was checked and outlives the object.
  explicit Control(const Vehicle& vehicle);
  // Ends the thread, and with it the drive object.
  ~Control() override;

  // As in Wheels; these three one at a time.
  bool BringUp(const Progress& progress, const IsCancelled& cancelled);
  bool Clear();
  bool Stop(std::chrono::milliseconds limit);
  // After the last stop: the drives need not watch this host any more.
  void Release();

  bool Command(const double* rpm, std::size_t count);
  Report GetReport() const;
  WheelReport GetWheel(std::size_t wheel) const;
  std::vector<SetUpFailure> Failures() const;

 private:
  static constexpr std::size_t kMostWheels = 8;
  using Speeds = std::array<double, kMostWheels>;

  enum class Job { kNone, kBringUp, kClear, kStop, kRelease };

  // What hosts and the control thread share.
  struct Shared {
    Report report;
    bool has_command = false;
    Speeds command{};
    Clock::time_point commanded_at;
    Speeds target_rpm{};   // as sent
    Speeds revolutions{};  // simulated makes only
    std::vector<SetUpFailure> failures;
  };

  // A host's call that the control thread carries out, and what the two say to each other.
  struct Call {
    Job job = Job::kNone;
    Clock::time_point deadline;  // kStop
    std::optional<std::string> step;
    bool done = false;
    bool result = false;
  };

  // Surroundings
  bool Begin(const std::string& step) override;
  bool Cancelled() override { return cancelled_; }
  void Wait(std::chrono::milliseconds time) override;
  void Transferred() override;

  bool Ask(Job job, std::chrono::milliseconds limit, const Progress& progress,
           const IsCancelled& cancelled);
  void Finish(bool result);

  void Run();
  Job TakeCall();
  void Serve(Job job);
  Trouble BringUpAll();
  Trouble BringUpSimulated();
  Trouble ClearFault();
  std::vector<bool> NodesConcerned(motor_driver::BringUp& bring_up);
  void Cycle(Clock::time_point now);
  void JudgeCycle(std::chrono::nanoseconds passed);
  Speeds Goals(Clock::time_point now);
  void Move(const Speeds& goals);
  void SendTargets();
  void Settle();
  bool Standing() const;
  bool Stands(std::size_t node) const;
  void NotifyAlive();

  State CurrentState() const { return state_; }
  void SetState(State state);
  // `next`: kOff where nothing was enabled.
  void EnterFault(const Trouble& trouble, State next = State::kFault);
  template <typename Change>
  void Publish(Change change) {
    const std::lock_guard<PriorityMutex> lock(shared_mutex_);
    change(shared_);
  }

  const Vehicle& vehicle_;
  Drives drives_;
  Judge judge_;
  Notifier notifier_;         // of the control thread
  Notifier caller_notifier_;  // of a host that waits for it

  mutable PriorityMutex shared_mutex_;
  Shared shared_;
  std::atomic<State> state_{State::kOff};  // of the report: every cycle asks several times

  std::mutex call_mutex_;  // call_
  std::condition_variable call_changed_;
  Call call_;
  std::atomic<bool> asked_{false};  // call_ waits for the control thread
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> ending_{false};
  bool released_ = false;  // the last stop was confirmed, and nothing is asked any more

  // The control thread's own.
  bool stopping_ = false;
  bool abrupt_ = false;     // zero at once: there is nothing to ramp down with
  bool was_ready_ = false;  // every node was brought up
  bool enabled_ = false;    // something was sent that can enable a drive
  Clock::time_point stop_deadline_;
  Clock::time_point last_cycle_;
  Clock::time_point last_zeros_;
  std::optional<Clock::time_point>
      zero_since_;                   // nothing but zeros was sent, and all of it went out
  Speeds speeds_{};                  // of the wheels, before rounding
  std::vector<double> target_rpm_;   // of the wheels, as sent
  std::vector<MotorRpm> motor_rpm_;  // by node

  std::thread thread_;
};

}  // namespace motor_driver
