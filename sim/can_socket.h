#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/frame.h"

namespace sim {

/// A file descriptor that is closed at the end of its life.
class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor();
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

/// A non-blocking raw socket on one interface, deaf to the identifiers that drives send by default
/// (transmit PDOs, SDO replies, heartbeats), except those that it is told to listen to.
class CanSocket {
 public:
  /// Throws std::system_error: EAFNOSUPPORT without SocketCAN in the kernel, ENODEV without such a
  /// CAN interface, ENETDOWN when it is not up.
  explicit CanSocket(const std::string& interface);

  int fd() const { return fd_.get(); }

  /// Without being told to.
  static bool HearsByDefault(std::uint32_t id);
  /// Listens to these identifiers too, and no longer to those of an earlier call. No frame is lost
  /// meanwhile. Throws std::system_error.
  void ListenTo(const std::vector<std::uint32_t>& ids);

  /// The next data frame with an 11-bit identifier; others are skipped. Throws std::system_error
  /// when the interface is gone; one that is merely down has nothing to read.
  std::optional<Frame> Read();

  /// False when the kernel has no room now and the frame is to be sent again later. A frame for an
  /// interface that is down is lost, as on a bus that is cut off.
  bool Write(const Frame& frame);

 private:
  FileDescriptor fd_;
};

}  // namespace sim
