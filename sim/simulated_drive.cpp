#include "sim/simulated_drive.h"

#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include "sim/makes.h"

namespace sim {
namespace {

// When the kernel has no room for a frame.
constexpr std::chrono::milliseconds kSendRetry{1};
// An idle node looks up this often, so that no catching up takes long.
constexpr std::chrono::milliseconds kLongestSleep{100};
// On a bus that takes nothing, a drive keeps this many frames and loses the rest.
constexpr std::size_t kLongestQueue = 256;

int OpenEvent() {
  const int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return fd;
}

Node::Options NodeOptions(const SimulatedDrive::Options& options) {
  Node::Options node;
  node.node_id = options.node_id;
  node.heartbeat_ms = options.heartbeat_ms;
  node.start_positions = options.start_positions;
  node.counts_per_revolution = options.counts_per_revolution;
  node.tpdo1_id = options.tpdo1_id;
  node.inactive = options.inactive;
  return node;
}

// Blocks every signal for the calling thread, and so for the threads that it starts.
class SignalBlocker {
 public:
  SignalBlocker() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalBlocker() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalBlocker(const SignalBlocker&) = delete;
  SignalBlocker& operator=(const SignalBlocker&) = delete;

 private:
  sigset_t before_ = {};
};

}  // namespace

SimulatedDrive::SimulatedDrive(const Options& options)
    : socket_(options.interface),
      wake_(OpenEvent()),
      node_(FindMake(options.make), NodeOptions(options), [this](const Frame& frame) {
        if (to_send_.size() < kLongestQueue) to_send_.push_back(frame);
      }) {
  for (const Fault& fault : options.faults) node_.Inject(fault);
  if (options.powered) node_.PowerOn();
  Transmit();
  const SignalBlocker blocker;
  thread_ = std::thread([this] { Run(); });
}

SimulatedDrive::~SimulatedDrive() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  Wake();
  thread_.join();
}

template <typename Operation>
auto SimulatedDrive::OnNode(Operation operation) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CatchUp();
  return operation();
}

template <typename Operation>
void SimulatedDrive::Change(Operation operation) {
  OnNode([&] {
    operation();
    Listen();
  });
  Wake();  // there may be frames to send now, or an earlier event than the one the thread waits for
}

double SimulatedDrive::SpeedRpm(std::size_t axis) {
  return OnNode([&] { return node_.axis(axis).SpeedRpm(); });
}

std::int32_t SimulatedDrive::Position(std::size_t axis) {
  return OnNode([&] { return node_.axis(axis).Position(); });
}

std::uint16_t SimulatedDrive::Statusword(std::size_t axis) {
  return OnNode([&] { return node_.axis(axis).Statusword(); });
}

NmtState SimulatedDrive::State() {
  return OnNode([&] { return node_.nmt_state(); });
}

ReceivedFrames SimulatedDrive::Received() {
  return OnNode([&] { return node_.received(); });
}

std::uint32_t SimulatedDrive::ReadObject(std::uint16_t index, std::uint8_t sub) {
  return OnNode([&] { return node_.dictionary().Get(index, sub); });
}

std::string SimulatedDrive::ReadText(std::uint16_t index, std::uint8_t sub) {
  return OnNode([&] { return node_.dictionary().Text(index, sub); });
}

AbortCode SimulatedDrive::WriteObject(std::uint16_t index, std::uint8_t sub, std::uint32_t value) {
  AbortCode result = AbortCode::kNone;
  Change([&] { result = node_.dictionary().Set(index, sub, value); });
  return result;
}

void SimulatedDrive::Inject(const Fault& fault) {
  Change([&] { node_.Inject(fault); });
}

void SimulatedDrive::ClearFaults() {
  Change([&] { node_.ClearFaults(); });
}

void SimulatedDrive::LatchError(std::uint16_t error_code, std::size_t axis) {
  Change([&] { node_.LatchError(error_code, axis); });
}

void SimulatedDrive::PowerCut() {
  Change([&] { node_.PowerCut(); });
}

void SimulatedDrive::PowerOn() {
  Change([&] { node_.PowerOn(); });
}

void SimulatedDrive::PressEmergencyStop() {
  Change([&] { node_.PressEmergencyStop(); });
}

void SimulatedDrive::ReleaseEmergencyStop() {
  Change([&] { node_.ReleaseEmergencyStop(); });
}

std::string SimulatedDrive::Failure() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return failure_;
}

void SimulatedDrive::Wake() {
  // Cannot fail in a way that matters: a counter that is full wakes the thread as well.
  [[maybe_unused]] const int result = ::eventfd_write(wake_.get(), 1);
}

void SimulatedDrive::CatchUp() {
  // Step by step however late it is: what a position is worth depends on simulated time alone.
  const auto present = std::chrono::duration_cast<Time>(Clock::now() - start_);
  while (node_.now() + kStep <= present) {
    node_.Step();
    Transmit();
  }
}

void SimulatedDrive::Transmit() {
  while (!to_send_.empty() && socket_.Write(to_send_.front())) to_send_.pop_front();
}

void SimulatedDrive::Listen() {
  std::vector<std::uint32_t> ids = node_.ListensTo();
  ids.erase(std::remove_if(ids.begin(), ids.end(), CanSocket::HearsByDefault), ids.end());
  if (ids == heard_) return;
  socket_.ListenTo(ids);
  heard_ = std::move(ids);
}

SimulatedDrive::Clock::time_point SimulatedDrive::NextWakeUp() {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto longest = Clock::now() + (to_send_.empty() ? kLongestSleep : kSendRetry);
  const Time next = node_.NextEvent();
  return next == Time::max() ? longest : std::min(longest, start_ + next);
}

void SimulatedDrive::Run() try {
  // A drive has a processor of its own: where the kernel allows it, it answers in time however busy
  // this machine is.
  const sched_param first = {1};
  ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &first);
  for (;;) {
    const auto sleep = std::max(NextWakeUp() - Clock::now(), Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(sleep);
    const timespec timeout{seconds.count(), (sleep - seconds).count()};
    pollfd sources[] = {{socket_.fd(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    if (::ppoll(sources, 2, &timeout, nullptr) < 0 && errno != EINTR) {
      throw std::system_error(errno, std::generic_category(), "waiting for the bus");
    }
    if (sources[1].revents != 0) {
      eventfd_t ignored = 0;
      ::eventfd_read(wake_.get(), &ignored);
    }

    const std::lock_guard<std::mutex> lock(mutex_);
    if (stop_) return;
    CatchUp();
    if (sources[0].revents != 0) {
      while (const auto frame = socket_.Read()) node_.Receive(*frame);
      Listen();  // before the reply: who has it may send at once what was agreed on
    }
    Transmit();
  }
} catch (const std::exception& error) {
  const std::lock_guard<std::mutex> lock(mutex_);
  failure_ = error.what();
}

}  // namespace sim
