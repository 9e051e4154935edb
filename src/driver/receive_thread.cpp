// The receive thread of DriverCan and its read queue.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/blocked_signals.h"
#include "driver_can.h"

namespace {

constexpr auto kPauseAfterFailedRead = std::chrono::milliseconds(10);

// A reader on a busy bus ends with the next frame; on a silent one nothing but cancellation ends
// its read, since closing a raw CAN socket does not wake it and shutdown() is not supported.
constexpr auto kReaderGrace = std::chrono::milliseconds(20);
constexpr auto kReaderPoll = std::chrono::milliseconds(1);

// Closes the socket under its reader, but keeps the number taken by a descriptor that cannot be
// read: a reader about to read must not meet what another thread of the host opened under that
// number. The number is to be closed once the reader has ended.
void CloseButHold(int socket) {
  const int unreadable = ::open("/", O_PATH | O_CLOEXEC);
  if (unreadable >= 0) {
    // Where this fails, as in a process out of file descriptors, the socket stays open until its
    // reader has ended: that one drops what it still reads, and is ended all the same. Closing the
    // number under it would be the worse choice.
    (void)::dup3(unreadable, socket, O_CLOEXEC);
    ::close(unreadable);
  }
}

}  // namespace

void DriverCan::Callback(void* arg) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  auto& self = *static_cast<DriverCan*>(arg);
  // Runs on cancellation too, which unwinds the stack like an exception.
  const struct EndMark {
    std::atomic<bool>& ended;
    ~EndMark() { ended = true; }
  } end_mark{self.reader_ended_};

  while (self.running_) {
    CanFrame frame = {};
    if (!self.CanRead(&frame.can_id, frame.data, &frame.len)) {
      std::this_thread::sleep_for(kPauseAfterFailedRead);
      continue;
    }
    if (!self.running_) {
      return;
    }
    const std::function<bool(const CanFrame&)> handler = [&self] {
      const std::lock_guard<std::mutex> lock(self.handler_mutex_);
      return self.frame_handler_;
    }();
    if (handler && handler(frame)) {
      continue;
    }
    const std::lock_guard<std::mutex> lock(self.queue_mutex_);
    self.read_queue_.Push(frame);
  }
}

void DriverCan::SetFrameHandler(std::function<bool(const CanFrame&)> handler) {
  const std::lock_guard<std::mutex> lock(handler_mutex_);
  frame_handler_ = std::move(handler);
}

void DriverCan::StopReading() {
  running_ = false;  // at once, so that the reader ends while this waits for a writer
  closing_ = true;
  int old_socket = -1;
  std::thread reader;
  {
    const std::lock_guard<std::mutex> lock(socket_mutex_);
    running_ = false;  // once more: a recovery may have started a reader in between
    closing_ = false;
    old_socket = socket_.exchange(-1);
    if (old_socket >= 0) {
      CloseButHold(old_socket);
    }
    reader.swap(receive_thread_);
  }
  if (reader.joinable()) {
    EndReader(reader);
  }
  if (old_socket >= 0) {
    ::close(old_socket);
  }
}

void DriverCan::EndReader(std::thread& reader) {
  for (auto waited = kReaderPoll; !reader_ended_ && waited < kReaderGrace; waited += kReaderPoll) {
    std::this_thread::sleep_for(kReaderPoll);
  }
  if (!reader_ended_) {
    pthread_cancel(reader.native_handle());
  }
  reader.join();
}

// False without a socket: StopReading() of another thread came in between, and a reader would be
// deaf for good.
bool DriverCan::StartReceiveThread() {
  const BlockedSignals inherited_by_the_thread;
  const std::lock_guard<std::mutex> lock(socket_mutex_);
  if (socket_ < 0) {
    return false;
  }
  running_ = true;
  reader_ended_ = false;
  receive_thread_ = std::thread(&DriverCan::Callback, this);
  return true;
}

bool DriverCan::GetCanFrame(CanFrame& frame) {
  const std::lock_guard<std::mutex> lock(queue_mutex_);
  return read_queue_.Pop(frame);
}

bool DriverCan::GetCanFrame(unsigned int* can_id, unsigned char* data, unsigned char* len) {
  CanFrame frame = {};
  const bool taken = GetCanFrame(frame);
  *can_id = frame.can_id;
  std::copy_n(frame.data, frame.len, data);
  *len = frame.len;
  return taken;
}

std::uint32_t DriverCan::GetReadQueueSize() {
  const std::lock_guard<std::mutex> lock(queue_mutex_);
  return static_cast<std::uint32_t>(read_queue_.size());
}

bool DriverCan::DropOneCanFrame() {
  CanFrame dropped = {};
  return GetCanFrame(dropped);
}

void DriverCan::ClearReadQueue() {
  FrameQueue dropped;  // declared before the lock, so freed after its release
  const std::lock_guard<std::mutex> lock(queue_mutex_);
  read_queue_.Drop(dropped);
}

void DriverCan::FrameQueue::Push(const CanFrame& frame) {
  const std::size_t end = first_ + count_;
  if (end == blocks_.size() * kBlock) {
    blocks_.emplace_back();
  }
  blocks_.back()[end % kBlock] = frame;
  ++count_;
}

bool DriverCan::FrameQueue::Pop(CanFrame& frame) {
  if (count_ == 0) {
    return false;
  }
  frame = blocks_.front()[first_];
  --count_;
  ++first_;
  if (count_ == 0) {
    first_ = 0;
  } else if (first_ == kBlock) {
    blocks_.pop_front();
    first_ = 0;
  }
  return true;
}

void DriverCan::FrameQueue::Drop(FrameQueue& freed) {
  if (blocks_.size() > 1) {
    blocks_.swap(freed.blocks_);
  }
  first_ = 0;
  count_ = 0;
}
