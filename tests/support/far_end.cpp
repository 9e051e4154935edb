#include "far_end.h"

#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "eventually.h"

namespace bus {
namespace {

using std::chrono::milliseconds;

std::uint8_t Byte(std::uint32_t value, unsigned position) {
  return static_cast<std::uint8_t>(value >> (8 * position));
}

std::string SdoResponse(const can_frame& request, std::uint8_t command, std::uint32_t value) {
  can_frame response = request;
  response.can_id = request.can_id - 0x600 + 0x580;
  response.can_dlc = 8;
  response.data[0] = command;
  for (unsigned i = 0; i < 4; ++i) {
    response.data[4 + i] = Byte(value, i);
  }
  return FormatFrame(response);
}

// When the kernel received the frame that was read last, however late this process came to read it.
Clock::time_point ReceiptOfLastFrame(int socket) {
  timespec stamp = {};
  if (::ioctl(socket, SIOCGSTAMPNS, &stamp) < 0) {
    return Clock::now();
  }
  using System = std::chrono::system_clock;
  const auto since_epoch =
      std::chrono::seconds(stamp.tv_sec) + std::chrono::nanoseconds(stamp.tv_nsec);
  const auto age = System::now().time_since_epoch() - since_epoch;
  return Clock::now() - std::chrono::duration_cast<Clock::duration>(age);
}

}  // namespace

can_frame ParseFrame(const std::string& text) {
  const std::size_t hash = text.find('#');
  if (hash != 3 && hash != 8) {
    throw std::invalid_argument("not a candump frame: " + text);
  }
  can_frame frame = {};
  frame.can_id = static_cast<canid_t>(std::stoul(text.substr(0, hash), nullptr, 16));
  if (hash == 8) {
    frame.can_id |= CAN_EFF_FLAG;
  }
  const std::string payload = text.substr(hash + 1);
  if (!payload.empty() && payload[0] == 'R') {
    frame.can_id |= CAN_RTR_FLAG;
    frame.can_dlc = payload.size() > 1 ? static_cast<std::uint8_t>(payload[1] - '0') : 0;
    return frame;
  }
  if (payload.size() % 2 != 0 || payload.size() > 16) {
    throw std::invalid_argument("not a candump frame: " + text);
  }
  frame.can_dlc = static_cast<std::uint8_t>(payload.size() / 2);
  for (std::size_t i = 0; i < frame.can_dlc; ++i) {
    frame.data[i] = static_cast<std::uint8_t>(std::stoul(payload.substr(2 * i, 2), nullptr, 16));
  }
  return frame;
}

std::string FormatFrame(const can_frame& frame) {
  char buffer[32];
  if ((frame.can_id & CAN_EFF_FLAG) != 0) {
    std::snprintf(buffer, sizeof(buffer), "%08X#", frame.can_id & CAN_EFF_MASK);
  } else {
    std::snprintf(buffer, sizeof(buffer), "%03X#", frame.can_id & CAN_SFF_MASK);
  }
  std::string text = buffer;
  if ((frame.can_id & CAN_RTR_FLAG) != 0) {
    text += 'R';
    if (frame.can_dlc > 0) {
      text += static_cast<char>('0' + frame.can_dlc);
    }
    return text;
  }
  for (std::size_t i = 0; i < frame.can_dlc; ++i) {
    std::snprintf(buffer, sizeof(buffer), "%02X", static_cast<unsigned>(frame.data[i]));
    text += buffer;
  }
  return text;
}

FarEnd::FarEnd(const std::string& interface) {
  socket_ = ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW);
  wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  const int huge = 16 << 20;  // the usual buffer holds 278 frames only
  ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUFFORCE, &huge, sizeof(huge));
  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
  if (address.can_ifindex == 0 ||
      ::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
    ADD_FAILURE() << "no far end on " << interface << ": " << std::strerror(errno);
  }
  ReceiptOfLastFrame(socket_);  // the first call switches time stamps on
  thread_ = std::thread(&FarEnd::Run, this);
}

FarEnd::~FarEnd() {
  const bool met = WaitScript(milliseconds(500));
  std::this_thread::sleep_for(milliseconds(5));  // for a last frame that nobody expects
  running_ = false;
  ::eventfd_write(wake_, 1);
  thread_.join();
  Drain();
  if (!met) {
    for (std::size_t i = next_; i < script_.size(); ++i) {
      ADD_FAILURE() << "never seen on the bus: " << script_[i].frame;
    }
  }
  ::close(socket_);
  ::close(wake_);
}

void FarEnd::Run() {
  // A drive answers within a millisecond however busy this machine is: where the kernel allows it,
  // the answer is on its way before the writer of the request runs on.
  const sched_param first = {1};
  ::pthread_setschedparam(::pthread_self(), SCHED_FIFO, &first);
  while (running_) {
    pollfd descriptors[] = {{socket_, POLLIN, 0}, {wake_, POLLIN, 0}};
    timespec wait = {1, 0};
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (!delayed_.empty()) {
        const auto left = std::max(Clock::duration::zero(), delayed_.begin()->first - Clock::now());
        const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        wait = {nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
      }
    }
    ::ppoll(descriptors, 2, &wait, nullptr);
    eventfd_t ignored = 0;
    ::eventfd_read(wake_, &ignored);
    if ((descriptors[0].revents & POLLERR) != 0) {
      // The interface went down or away. Taking the error clears it.
      int error = 0;
      socklen_t size = sizeof(error);
      ::getsockopt(socket_, SOL_SOCKET, SO_ERROR, &error, &size);
    }
    Drain();
    const std::lock_guard<std::mutex> lock(mutex_);
    while (!delayed_.empty() && delayed_.begin()->first <= Clock::now()) {
      SendNow(ParseFrame(delayed_.begin()->second));
      delayed_.erase(delayed_.begin());
    }
  }
}

void FarEnd::Drain() {
  const std::lock_guard<std::mutex> lock(mutex_);
  can_frame frame = {};
  while (::read(socket_, &frame, sizeof(frame)) == sizeof(frame)) {
    Handle(frame);
  }
}

void FarEnd::Handle(const can_frame& frame) {
  const std::string text = FormatFrame(frame);
  records_.push_back({ReceiptOfLastFrame(socket_), text});
  if (next_ < script_.size() && script_[next_].frame == text) {
    for (const auto& [reply, delay] : script_[next_].replies) {
      SendLater(reply, delay);
    }
    ++next_;
    return;
  }
  for (SdoServer& server : servers_) {
    if (frame.can_id == 0x600U + server.node_) {
      server.Handle(frame);
      return;
    }
  }
  if (strict_) {
    ADD_FAILURE() << "unexpected on the bus: " << text
                  << ", expected: " << (next_ < script_.size() ? script_[next_].frame : "nothing");
  }
}

void FarEnd::SendLater(const std::string& frame, milliseconds delay) {
  if (delay.count() == 0) {
    SendNow(ParseFrame(frame));
    return;
  }
  delayed_.emplace(Clock::now() + delay, frame);
  ::eventfd_write(wake_, 1);
}

void FarEnd::SendNow(const can_frame& frame) {
  if (::write(socket_, &frame, sizeof(frame)) != sizeof(frame)) {
    ADD_FAILURE() << "far end could not send " << FormatFrame(frame) << ": "
                  << std::strerror(errno);
  }
}

void FarEnd::Send(const std::string& frame) { SendNow(ParseFrame(frame)); }

FarEnd::Expectation FarEnd::Expect(const std::string& frame) {
  ParseFrame(frame);  // a slip of the pen in a script is told where it was made
  const std::lock_guard<std::mutex> lock(mutex_);
  strict_ = true;
  script_.push_back({frame, {}});
  return {*this, script_.size() - 1};
}

FarEnd::Expectation& FarEnd::Expectation::Reply(const std::string& frame, milliseconds delay) {
  ParseFrame(frame);
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  far_end_.script_[position_].replies.emplace_back(frame, delay);
  return *this;
}

void FarEnd::ExpectAll(const std::vector<std::string>& frames) {
  for (const std::string& frame : frames) {
    Expect(frame);
  }
}

void FarEnd::ExpectSilence() {
  const std::lock_guard<std::mutex> lock(mutex_);
  strict_ = true;
}

FarEnd::SdoServer& FarEnd::AnswerSdo(std::uint8_t node) {
  const std::lock_guard<std::mutex> lock(mutex_);
  for (SdoServer& server : servers_) {
    if (server.node_ == node) {
      return server;
    }
  }
  servers_.push_back(SdoServer(*this, node));
  return servers_.back();
}

std::vector<std::string> FarEnd::Frames() {
  std::vector<std::string> texts;
  for (const RecordedFrame& record : Records()) {
    texts.push_back(record.text);
  }
  return texts;
}

std::vector<RecordedFrame> FarEnd::Records() {
  std::this_thread::sleep_for(milliseconds(5));
  Drain();
  const std::lock_guard<std::mutex> lock(mutex_);
  return records_;
}

void FarEnd::Forget() {
  std::this_thread::sleep_for(milliseconds(5));
  Drain();
  const std::lock_guard<std::mutex> lock(mutex_);
  records_.clear();
}

template <typename Condition>
bool FarEnd::WaitFor(Condition condition, milliseconds timeout) {
  return support::Eventually(
      [&] {
        Drain();
        const std::lock_guard<std::mutex> lock(mutex_);
        return condition();
      },
      timeout);
}

bool FarEnd::WaitFrames(std::size_t count, milliseconds timeout) {
  return WaitFor([&] { return records_.size() >= count; }, timeout);
}

bool FarEnd::WaitScript(milliseconds timeout) {
  return WaitFor([&] { return next_ == script_.size(); }, timeout);
}

FarEnd::SdoServer& FarEnd::SdoServer::Object(std::uint16_t index, std::uint8_t sub_index,
                                             std::uint32_t value, unsigned size) {
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  objects_[{index, sub_index}] = {value, size};
  return *this;
}

FarEnd::SdoServer& FarEnd::SdoServer::Abort(std::size_t k, std::uint32_t abort_code) {
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  aborts_[k] = abort_code;
  return *this;
}

FarEnd::SdoServer& FarEnd::SdoServer::Silence(std::size_t k) {
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  answers_[k].clear();
  return *this;
}

FarEnd::SdoServer& FarEnd::SdoServer::Answer(std::size_t k, const std::string& frame,
                                             milliseconds delay) {
  ParseFrame(frame);
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  answers_[k].push_back({frame, delay});
  return *this;
}

FarEnd::SdoServer& FarEnd::SdoServer::SilenceAll() {
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  silent_ = true;
  return *this;
}

FarEnd::SdoServer& FarEnd::SdoServer::AbortAll(std::uint32_t abort_code) {
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  aborting_ = true;
  abort_code_ = abort_code;
  return *this;
}

std::size_t FarEnd::SdoServer::Requests() const {
  far_end_.Drain();
  const std::lock_guard<std::mutex> lock(far_end_.mutex_);
  return requests_;
}

void FarEnd::SdoServer::SendAbort(const can_frame& request, std::uint32_t abort_code) {
  far_end_.SendLater(SdoResponse(request, 0x80, abort_code), milliseconds(0));
}

void FarEnd::SdoServer::Handle(const can_frame& request) {
  const std::size_t k = requests_++;
  if (silent_) {
    return;
  }
  if (const auto answer = answers_.find(k); answer != answers_.end()) {
    for (const Reply& reply : answer->second) {
      far_end_.SendLater(reply.frame, reply.delay);
    }
    return;
  }
  if (aborting_) {
    SendAbort(request, abort_code_);
    return;
  }
  if (const auto abort = aborts_.find(k); abort != aborts_.end()) {
    SendAbort(request, abort->second);
    return;
  }
  const bool is_read = request.data[0] == 0x40;
  if (!is_read) {
    far_end_.SendLater(SdoResponse(request, 0x60, 0), milliseconds(0));
    return;
  }
  const auto index = static_cast<std::uint16_t>(request.data[1] | (request.data[2] << 8));
  const auto object = objects_.find({index, request.data[3]});
  if (object == objects_.end()) {
    SendAbort(request, 0x06020000);
    return;
  }
  const auto [value, size] = object->second;
  const std::uint8_t command = size == 1 ? 0x4F : size == 2 ? 0x4B : 0x43;
  far_end_.SendLater(SdoResponse(request, command, value), milliseconds(0));
}

}  // namespace bus
