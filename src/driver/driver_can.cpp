#include "driver_can.h"

#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "log/console.h"
#include "log/logger.h"

namespace {

// Values of GetCanError().
constexpr std::uint32_t kNoError = 0;
constexpr std::uint32_t kSocketNotCreated = 1;
constexpr std::uint32_t kNotBound = 2;
constexpr std::uint32_t kReadFailed = 3;
constexpr std::uint32_t kIncompleteFrame = 4;
constexpr std::uint32_t kWritingDisabled = 5;

constexpr std::uint32_t kToleratedWriteErrors = 9;

// Bounds how long a writer can hold the socket mutex, and so how long a stop can wait for it, on a
// bus that takes no frame. Far longer than one frame lasts on any usual bit rate.
constexpr timeval kSendTimeout = {0, 20'000};

constexpr can_filter kAcceptAll = {0, 0};

static_assert(sizeof(can_frame) == 16, "frames are read and written whole, 16 bytes");

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "%s\n", what);
  std::abort();
}

// The thread may be cancelled inside this one read and nowhere else: it holds no lock and owns
// nothing there.
ssize_t CancellableRead(int socket, can_frame& frame) {
  int previous = 0;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous);
  const ssize_t bytes = ::read(socket, &frame, sizeof(frame));
  pthread_setcancelstate(previous, nullptr);
  return bytes;
}

}  // namespace

DriverCan::DriverCan(const char* device) {
  const char* name = device != nullptr ? device : "";
  const std::size_t length = std::strlen(name);
  if (length >= sizeof(device_name_)) {
    Die("CAN device name is too long for this library: at most 31 characters");
  }
  std::memcpy(device_name_, name, length);

  CORVEL_LOG_INFO("device is {}", device_name_);
  if (!InitCanSocket()) {
    CORVEL_LOG_ERROR("Failed to initialize CAN socket in constructor");
    return;
  }
  if (running_) {
    try {
      StartReceiveThread();
    } catch (...) {
      ::close(socket_);  // the destructor of an object whose constructor throws never runs
      throw;
    }
  }
}

DriverCan::~DriverCan() {
  StopReading();
  CORVEL_LOG_INFO("DriverCan destroyed successfully");
}

bool DriverCan::InitCanSocket() {
  CORVEL_LOG_INFO("Initializing CAN socket for device: {}", device_name_);
  const int new_socket = ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
  if (new_socket < 0) {
    corvel::PrintReason("socket can create error!\n");
    can_error_ = kSocketNotCreated;
    CORVEL_LOG_ERROR("Failed to create CAN socket for device: {}", device_name_);
    return false;
  }

  ifreq request = {};
  const std::size_t length = std::strlen(device_name_);
  if (length >= sizeof(request.ifr_name)) {
    Die("CAN device name is too long for a network interface: at most 15 characters");
  }
  std::memcpy(request.ifr_name, device_name_, length);
  if (::ioctl(new_socket, SIOCGIFINDEX, &request) < 0) {
    const int error = errno;
    CORVEL_LOG_ERROR("get can interface index failed, errno: {}", error);
    ::close(new_socket);
    can_error_ = kNotBound;
    return false;
  }

  const int off = 0;
  ::setsockopt(new_socket, SOL_CAN_RAW, CAN_RAW_LOOPBACK, &off, sizeof(off));
  ::setsockopt(new_socket, SOL_CAN_RAW, CAN_RAW_RECV_OWN_MSGS, &off, sizeof(off));
  ::setsockopt(new_socket, SOL_SOCKET, SO_SNDTIMEO, &kSendTimeout, sizeof(kSendTimeout));

  sockaddr_can address = {};
  address.can_family = AF_CAN;
  address.can_ifindex = request.ifr_ifindex;
  if (::bind(new_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
    CORVEL_LOG_ERROR("bind can device error!");
    ::close(new_socket);
    can_error_ = kNotBound;
    return false;
  }

  const std::lock_guard<std::mutex> lock(socket_mutex_);
  if (socket_ < 0) {
    socket_ = new_socket;
    return true;
  }
  // Under the same number, which a reader may be about to read. Closes the old socket. Fails where
  // the host has lowered its limit of descriptors below that number.
  const bool replaced = ::dup3(new_socket, socket_, O_CLOEXEC) >= 0;
  ::close(new_socket);
  if (!replaced) {
    can_error_ = kSocketNotCreated;
    CORVEL_LOG_ERROR("Failed to create CAN socket for device: {}", device_name_);
  }
  return replaced;
}

bool DriverCan::CanWrite(unsigned int can_id, const unsigned char* data, unsigned char len) {
  if (can_error_ == kWritingDisabled) {
    return false;
  }
  can_frame frame = {};
  if (len > sizeof(frame.data)) {
    Die("CAN write length is above 8 bytes");
  }
  frame.can_id = can_id;
  frame.can_dlc = len;
  std::copy_n(data, len, frame.data);

  const std::lock_guard<std::mutex> lock(socket_mutex_);
  // Writers that queue up behind one another on a full send buffer must not keep a stop waiting for
  // all of them: they are treated as if they had come after it.
  if (socket_ < 0 || closing_) {
    CORVEL_LOG_ERROR("write error, CAN socket is not initialized");
    can_error_ = kWritingDisabled;
    return false;
  }
  const ssize_t bytes = ::write(socket_, &frame, sizeof(frame));
  if (bytes == sizeof(frame)) {
    write_error_count_ = 0;
    return true;
  }
  const int error = errno;
  CORVEL_LOG_ERROR("write error, nbytes = {}, sys errno: {}", bytes, error);
  const std::uint32_t failures = ++write_error_count_;
  if (failures > kToleratedWriteErrors) {
    CORVEL_LOG_ERROR("CAN write error count reached {} consecutive failures, marking as error",
                     failures);
    can_error_ = kWritingDisabled;
  }
  return false;
}

bool DriverCan::CanRead(unsigned int* can_id, unsigned char* data, unsigned char* len) {
  can_frame frame;  // NOLINT(cppcoreguidelines-pro-type-member-init): written by the kernel
  const ssize_t bytes = CancellableRead(socket_, frame);
  if (bytes == sizeof(frame)) {
    *can_id = frame.can_id;
    *len = frame.can_dlc;
    if (frame.can_dlc == sizeof(frame.data)) {
      std::copy_n(frame.data, sizeof(frame.data), data);  // as one word, where most frames are full
    } else {
      std::copy_n(frame.data, frame.can_dlc, data);
    }
    return true;
  }
  if (bytes < 0) {
    const int error = errno;
    if (!running_ || error == EBADF) {
      return false;
    }
    CORVEL_LOG_ERROR("can raw socket read failed, errno: {}", error);
    can_error_ = kReadFailed;
    return false;
  }
  CORVEL_LOG_ERROR("read: incomplete CAN frame, bytes read: {}", bytes);
  can_error_ = kIncompleteFrame;
  return false;
}

void DriverCan::CanFiltersConfig(const void* filters, int len) {
  if (len < 0) {
    throw std::length_error("cannot create std::vector larger than max_size()");
  }
  {
    const auto* records = static_cast<const unsigned char*>(filters);
    const std::size_t count = static_cast<std::size_t>(len) / sizeof(FilterRule);
    const std::lock_guard<std::mutex> lock(filter_mutex_);
    filters_.resize(count);
    std::copy_n(records, count * sizeof(FilterRule),
                reinterpret_cast<unsigned char*>(filters_.data()));
    ++filter_changes_;
  }
  const std::lock_guard<std::mutex> lock(socket_mutex_);
  if (socket_ >= 0) {
    // The caller's length goes to the kernel as it is, a broken one too: deliberate, the kernel
    // then keeps the filters it has.
    ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, filters, static_cast<socklen_t>(len));
  }
}

void DriverCan::ClearCanFilterRules() { CanFiltersConfig(&kAcceptAll, sizeof(kAcceptAll)); }

bool DriverCan::ApplyCurrentFilters() {
  static_assert(sizeof(FilterRule) == sizeof(can_filter), "handed to the kernel as they are");
  std::uint32_t changes = 0;
  do {
    std::vector<FilterRule> rules;
    {
      const std::lock_guard<std::mutex> lock(filter_mutex_);
      rules = filters_;
      changes = filter_changes_;
    }
    if (rules.empty()) {
      // Deliberate: an emptied list closed the old socket's ears, but a new socket hears
      // everything.
      return true;
    }
    const std::lock_guard<std::mutex> lock(socket_mutex_);
    if (socket_ < 0) {
      return false;
    }
    const auto size = static_cast<socklen_t>(rules.size() * sizeof(FilterRule));
    if (::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_FILTER, rules.data(), size) < 0) {
      const int error = errno;
      CORVEL_LOG_ERROR("restore CAN filters failed, errno: {}", error);
      return false;
    }
    // Another thread, at the end of an SDO transfer for instance, may have stored others meanwhile
    // and been at the socket before us: those must not be covered by the ones copied above.
  } while (changes != filter_changes_);
  return true;
}

std::uint32_t DriverCan::GetCanError() const { return can_error_; }

std::uint32_t DriverCan::GetWriteErrorCount() const { return write_error_count_; }

bool DriverCan::CanRecover() {
  const std::lock_guard<std::mutex> lock(recovery_mutex_);
  CORVEL_LOG_INFO("Starting CAN recovery...");
  StopReading();
  ClearReadQueue();
  can_error_ = kNoError;
  write_error_count_ = 0;
  if (!InitCanSocket()) {
    CORVEL_LOG_ERROR("Failed to initialize CAN socket during recovery");
    return false;
  }
  if (!ApplyCurrentFilters()) {
    CORVEL_LOG_ERROR("Failed to restore CAN filters during recovery");
    can_error_ = kNotBound;
    return false;
  }
  if (!StartReceiveThread()) {
    CORVEL_LOG_ERROR("CAN recovery stopped by another thread");
    can_error_ = kSocketNotCreated;
    return false;
  }
  CORVEL_LOG_INFO("CAN recovery completed successfully");
  return true;
}
