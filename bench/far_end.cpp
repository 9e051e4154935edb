#include "far_end.h"

#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "bare.h"

namespace {

constexpr std::uint32_t kRequest = 0x601;
constexpr std::uint32_t kAnswer = 0x581;
constexpr std::int64_t kNsPerSecond = 1'000'000'000;

struct Command {
  bool answer;
  Traffic traffic;  // of an answering far end only the count
};

std::int64_t Now() {
  timespec now = {};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNsPerSecond + now.tv_nsec;
}

void SleepUntil(std::int64_t deadline) {
  const timespec until = {deadline / kNsPerSecond, deadline % kNsPerSecond};
  while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
  }
}

// A bus is not held up by the host: the reader must not delay a frame nor tear a burst, even on a
// single CPU. Where this is not permitted they are, the figures of both sides alike.
void SetRealTime(bool on) {
  const sched_param priority = {on ? 1 : 0};
  ::sched_setscheduler(0, on ? SCHED_FIFO : SCHED_OTHER, &priority);
}

Sent SendAll(RawCan& can, const Traffic& traffic) {
  SetRealTime(true);
  const std::int64_t start = Now();
  std::uint32_t sent = 0;
  for (std::uint32_t i = 0; i < traffic.count; ++i) {
    if (traffic.frames_per_second != 0 && i % traffic.burst == 0) {
      const std::int64_t due = start + i * kNsPerSecond / traffic.frames_per_second;
      if (due > Now()) {
        SleepUntil(due);
      }
    }
    can_frame frame = {};
    frame.can_id = traffic.can_id + i % traffic.nodes;
    frame.can_dlc = 8;
    const std::int64_t stamp = Now();
    std::memcpy(frame.data, &stamp, sizeof(stamp));
    sent += can.Send(frame) ? 1 : 0;
  }
  SetRealTime(false);
  return {sent, static_cast<double>(Now() - start) / kNsPerSecond};
}

Sent AnswerAll(RawCan& can, std::uint32_t count) {
  Sent answered = {};
  can_frame frame = {};
  while (answered.count < count && can.Receive(frame)) {
    frame.can_id = kAnswer;
    frame.data[0] = 0x4B;  // two bytes of data follow
    frame.data[4] = 0x27;
    frame.data[5] = 0x06;
    answered.count += can.Send(frame) ? 1 : 0;
  }
  return answered;
}

[[noreturn]] void Serve(const std::string& interface, int control) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::prctl(PR_SET_TIMERSLACK, 1UL);  // or the pace of the frames would be blurred by 50 us
  try {
    RawCan can(interface, false);
    can.GiveUpAfterOneSecond();
    can.HearNothing();
    Sent done = {};
    ::send(control, &done, sizeof(done), 0);
    Command command = {};
    while (::recv(control, &command, sizeof(command), 0) == sizeof(command)) {
      if (command.answer) {
        can.HearOnly(kRequest);
        ::send(control, &done, sizeof(done), 0);
        done = AnswerAll(can, command.traffic.count);
        can.HearNothing();
      } else {
        done = SendAll(can, command.traffic);
      }
      ::send(control, &done, sizeof(done), 0);
    }
  } catch (const std::system_error& error) {
    const int code = error.code().value();
    ::send(control, &code, sizeof(code), 0);
  }
  ::_exit(0);
}

}  // namespace

FarEnd::FarEnd(const std::string& interface) {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  process_ = ::fork();
  if (process_ == 0) {
    ::close(ends[0]);
    Serve(interface, ends[1]);
  }
  const int fork_error = errno;
  ::close(ends[1]);
  control_ = ends[0];
  if (process_ < 0) {
    ::close(control_);
    throw std::system_error(fork_error, std::generic_category(), "fork");
  }
  Sent ready = {};
  int code = 0;
  const ssize_t size = ::recv(control_, &ready, sizeof(ready), 0);
  if (size != sizeof(ready)) {
    std::memcpy(&code, &ready, sizeof(code));
    ::close(control_);
    ::waitpid(process_, nullptr, 0);
    throw std::system_error(code, std::generic_category(),
                            "cannot open CAN interface " + interface);
  }
}

FarEnd::~FarEnd() {
  ::close(control_);
  ::waitpid(process_, nullptr, 0);
}

void FarEnd::Start(const Traffic& traffic) {
  const Command command = {false, traffic};
  ::send(control_, &command, sizeof(command), 0);
}

void FarEnd::StartAnswering(std::uint32_t count) {
  const Command command = {true, {kRequest, 1, count, 1, 0}};
  ::send(control_, &command, sizeof(command), 0);
  Finish();
}

bool FarEnd::Done() {
  pollfd readable = {control_, POLLIN, 0};
  return ::poll(&readable, 1, 0) != 0;
}

Sent FarEnd::Finish() {
  Sent done = {};
  if (::recv(control_, &done, sizeof(done), 0) != sizeof(done)) {
    throw std::runtime_error("the far end of the bus has died");
  }
  return done;
}

double SecondsSince(const std::uint8_t* stamp) {
  std::int64_t then = 0;
  std::memcpy(&then, stamp, sizeof(then));
  return static_cast<double>(Now() - then) / kNsPerSecond;
}
