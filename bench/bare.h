// The yardstick: the same work done with a raw CAN socket and nothing else. No code of the library.
#pragma once

#include <linux/can.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

// One raw CAN socket. The operations are inline: a call per frame is not part of the yardstick.
class RawCan {
 public:
  // Throws std::system_error. `loopback`: other sockets of this interface see what is sent.
  RawCan(const std::string& interface, bool loopback);
  ~RawCan() { ::close(socket_); }
  RawCan(const RawCan&) = delete;
  RawCan& operator=(const RawCan&) = delete;

  bool Send(const can_frame& frame) {
    return ::write(socket_, &frame, sizeof(frame)) == sizeof(frame);
  }
  bool Receive(can_frame& frame) { return ::read(socket_, &frame, sizeof(frame)) == sizeof(frame); }
  bool TryReceive(can_frame& frame) {
    return ::recv(socket_, &frame, sizeof(frame), MSG_DONTWAIT) == sizeof(frame);
  }
  void HearOnly(std::uint32_t can_id);
  void HearNothing();
  void DropPending();
  // After this Receive() gives up when nothing arrives for a second.
  void GiveUpAfterOneSecond();

 private:
  int socket_;
};

// A thread that reads frames and counts them, or puts them in a queue behind a mutex.
class BareReader {
 public:
  BareReader(const std::string& interface, bool queueing);
  ~BareReader();
  BareReader(const BareReader&) = delete;
  BareReader& operator=(const BareReader&) = delete;

  bool Send(const can_frame& frame) { return can_.Send(frame); }
  bool Take(can_frame& frame);
  // Frames that came since the last call, taken out of the queue.
  std::uint64_t TakeAll();
  std::uint64_t queued();
  clockid_t cpu_clock();

 private:
  void Run(bool queueing);

  RawCan can_;
  std::deque<can_frame> queue_;
  std::mutex mutex_;  // queue_
  std::atomic<std::uint64_t> counted_{0};
  std::thread thread_;
};
