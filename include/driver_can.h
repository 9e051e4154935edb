/// @file
/// One raw SocketCAN socket with its receive thread, read queue, filters and recovery.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <thread>
#include <vector>

/// Marks what the shared library exports.
#if defined(__GNUC__)
#define MOTOR_DRIVER_EXPORT __attribute__((visibility("default")))
#else
#define MOTOR_DRIVER_EXPORT
#endif

/// Marks what an exported class keeps to itself.
#if defined(__GNUC__)
#define MOTOR_DRIVER_LOCAL __attribute__((visibility("hidden")))
#else
#define MOTOR_DRIVER_LOCAL
#endif

/// One classic CAN frame.
struct CanFrame {
  std::uint8_t data[8];  ///< only the first `len` bytes are meaningful
  std::uint8_t len;      ///< 0 to 8
  std::uint32_t can_id;  ///< SocketCAN identifier word: flags EFF, RTR, ERR in bits 31, 30, 29
};

/// The library's only contact with the bus.
///
/// Owns one socket on one CAN interface, the receive thread that reads it, and the unbounded queue
/// of frames that nobody has taken yet. Both are released in the destructor; the thread is always
/// joined. A bus failure never throws: it gives a false result, one ERROR log line and a code in
/// GetCanError().
///
/// Threads: every operation may be called from any thread except where it says otherwise. None may
/// be called from two threads while one of them destroys the object. StopReading(), CanRecover()
/// and the destructor must not be called from the frame handler: the receive thread would wait for
/// itself. The receive thread blocks every signal, so the host's signal handlers never run on it.
///
/// Blocking: an operation that names no time waits for nothing but a mutex held for microseconds.
/// What writes a log line can also be held up by the log's outputs: a standard output that nobody
/// reads stops every thread that logs.
///
/// Local loop-back is switched off on the socket: other sockets of this machine on the same
/// interface do not see what this object sends. To watch or simulate the bus on one machine use a
/// vxcan pair, not a single vcan.
class MOTOR_DRIVER_EXPORT DriverCan {
 public:
  /// Opens `device` (for example "can0") as InitCanSocket() does and, if that succeeds, starts the
  /// receive thread. If it fails the object exists with a closed socket and no thread, and
  /// GetCanError() tells why; CanRecover() may be tried later.
  /// A name of 16 characters or more stops the process with one line on standard error.
  /// Throws std::system_error when no thread can be started. Does not wait for the bus.
  explicit DriverCan(const char* device);

  /// Stops reading and frees the frames nobody took. Returns within 100 ms, on a silent bus too.
  virtual ~DriverCan();

  DriverCan(const DriverCan&) = delete;
  DriverCan& operator=(const DriverCan&) = delete;

  /// Opens, configures and binds a new socket and puts it in place of the old one, which is closed.
  /// A fresh socket receives every frame. An interface that is down is not a failure: error 3
  /// follows from the receive thread. False leaves the old socket as it was, with error 1 (no
  /// socket: no SocketCAN in the kernel, out of file descriptors, or their limit lowered below the
  /// old socket) or 2 (interface unknown, bind failed).
  /// Starts no thread and clears no error: hosts call CanRecover() instead. Waits at most for
  /// writes of other threads, see CanWrite().
  bool InitCanSocket();

  /// Sends one frame with `len` (0 to 8) bytes of `data` to the identifier word `can_id`, flags
  /// included. True when the kernel took the whole frame; it may still wait in the transmit queue.
  /// False: nothing was sent. Ten failures in a row, or one write on a closed socket, latch error
  /// 5: from then on every write fails at once and silently until CanRecover().
  /// A `len` above 8 stops the process with one line on standard error.
  /// Normally does not block; when the socket's send buffer is full (a bus that takes no frame
  /// behind a long transmit queue) it waits 20 ms, rounded up to the kernel's clock tick, for room,
  /// then fails with errno 11. Writes of several threads run one after the other.
  bool CanWrite(unsigned int can_id, const unsigned char* data, unsigned char len);

  /// Reads one frame, blocking until one arrives: the receive thread's own operation, not the
  /// host's. The outputs are written only on success; `data` must hold 8 bytes. False: the socket
  /// is closed or being closed (silent), or error 3 (read failed) or 4 (incomplete frame).
  bool CanRead(unsigned int* can_id, unsigned char* data, unsigned char* len);

  /// Replaces the receive filters by the `len` bytes of filter records at `filters`: pairs of
  /// 32-bit words (identifier, mask) as in CAN_RAW_FILTER, 8 bytes each. Stored also while the
  /// socket is closed, and put in force again by CanRecover(). The kernel's refusal is not
  /// reported. `len` 0 removes all filters: the open socket then receives nothing, but a recovered
  /// one receives everything. A `len` that is not a multiple of 8 stores the whole records only,
  /// and the kernel refuses the rest. A negative `len` throws std::length_error and changes
  /// nothing. Waits at most for writes of other threads, see CanWrite().
  void CanFiltersConfig(const void* filters, int len);

  /// One filter that lets every frame through (identifier 0, mask 0), set as by CanFiltersConfig().
  void ClearCanFilterRules();

  /// Puts the stored filters in force on the open socket. True when there are none to restore.
  /// False: socket closed, or the kernel refused them (logged). Waits at most for writes of other
  /// threads, see CanWrite().
  bool ApplyCurrentFilters();

  /// Why the transport failed last; stays until CanRecover() or another failure. 0: it did not.
  /// 1: no socket. 2: not bound to the interface, or filters not restored. 3: reading failed. 4: an
  /// incomplete frame was read. 5: writing is disabled. docs/threads-and-failures.md has what sets
  /// each of them and what a host does. Any value but 0 means that CanRecover() is needed. Never
  /// blocks.
  std::uint32_t GetCanError() const;

  /// Failed writes since the last good one. Never blocks.
  std::uint32_t GetWriteErrorCount() const;

  /// Body of the receive thread; `arg` is the DriverCan. Not for hosts.
  static void Callback(void* arg);

  /// Installs the handler that sees every received frame first, on the receive thread, in order of
  /// arrival. True consumes the frame, false queues it. An empty handler queues everything. A frame
  /// being handled at this moment is still handled by the previous handler. An exception that
  /// leaves the handler ends the process. The handler must not call SetFrameHandler(). Not for the
  /// host of a drive class: there it would replace the recording of heartbeats.
  void SetFrameHandler(std::function<bool(const CanFrame&)> handler);

  /// Takes the oldest queued frame; false and `frame` untouched when there is none. Never waits.
  bool GetCanFrame(CanFrame& frame);

  /// The same, unpacked. `data` must hold 8 bytes. Without a frame: false, identifier and length 0,
  /// `data` untouched.
  bool GetCanFrame(unsigned int* can_id, unsigned char* data, unsigned char* len);

  /// Number of queued frames.
  std::uint32_t GetReadQueueSize();

  /// Drops the oldest queued frame; false when there is none.
  bool DropOneCanFrame();

  /// Drops every queued frame.
  void ClearReadQueue();

  /// Ends the receive thread and closes the socket; queued frames stay. A write that follows
  /// latches error 5. Returns within 100 ms, on a silent bus too. Not from the frame handler.
  void StopReading();

  /// Rebuilds a failed transport in place: stops the reader, drops queued frames, clears error and
  /// write error count, opens a new socket, restores the filters and starts a new receive thread.
  /// The frame handler stays. False: GetCanError() tells why (1, or 2; either also when
  /// StopReading() of another thread came in between), nothing is received, and it may be called
  /// again at any time. Calls from several threads run one after the other.
  ///
  /// True is not yet a working bus: an interface that is down can be opened, and error 3 comes back
  /// within milliseconds; a write of another thread that meets the moment without a socket latches
  /// error 5. Look at GetCanError() in every cycle.
  ///
  /// Throws std::system_error when no thread can be started; nothing is received then, and it may
  /// be called again. Returns within 100 ms, on a silent bus too. Not from the frame handler.
  bool CanRecover();

 private:
  struct FilterRule {  // as the kernel's filter record
    std::uint32_t can_id;
    std::uint32_t mask;
  };

  // First in, first out. An emptied queue starts anew in the block it has, so that a host that
  // keeps up costs no allocation.
  class FrameQueue {
   public:
    std::size_t size() const { return count_; }
    MOTOR_DRIVER_LOCAL void Push(const CanFrame& frame);
    MOTOR_DRIVER_LOCAL bool Pop(CanFrame& frame);
    // Empties the queue; what has to be freed goes to `freed`. In constant time.
    MOTOR_DRIVER_LOCAL void Drop(FrameQueue& freed);

   private:
    static constexpr std::size_t kBlock = 256;  // 4 KiB

    std::list<std::array<CanFrame, kBlock>> blocks_;
    std::size_t first_ = 0;  // of the oldest frame in the first block
    std::size_t count_ = 0;
  };

  MOTOR_DRIVER_LOCAL bool StartReceiveThread();
  MOTOR_DRIVER_LOCAL void EndReader(std::thread& reader);

  std::atomic<int> socket_{-1};       // -1 when closed; the receive thread reads it without a lock
  std::atomic<bool> closing_{false};  // a stop waits for socket_mutex_: writers give way
  char device_name_[32] = {};
  FrameQueue read_queue_;
  std::mutex queue_mutex_;     // read_queue_
  std::mutex socket_mutex_;    // opening, closing, writing, filters; receive_thread_
  std::mutex filter_mutex_;    // filters_
  std::mutex recovery_mutex_;  // one recovery at a time
  std::atomic<bool> running_{true};
  std::atomic<bool> reader_ended_{true};
  std::thread receive_thread_;
  std::atomic<std::uint32_t> can_error_{0};
  std::atomic<std::uint32_t> write_error_count_{0};
  std::mutex handler_mutex_;  // frame_handler_
  std::function<bool(const CanFrame&)> frame_handler_;
  std::vector<FilterRule> filters_;
  std::atomic<std::uint32_t> filter_changes_{0};  // counts the changes of filters_
};
