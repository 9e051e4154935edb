/// @file
/// The drive interface that a host programs against, and the CANopen master under every drive
/// class.
#pragma once

#include <driver_can.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// What is known of one registered heartbeat identifier.
struct HeartbeatTimeout {
  std::uint32_t id;  ///< full CAN identifier, 0x700 + node
  /// Data byte 0 of the last heartbeat: 0 boot-up, 4 stopped, 5 operational, 0x7F pre-operational.
  std::uint8_t state;
  bool received;  ///< set by every heartbeat, never cleared: free for the host and for callbacks
  bool heard;     ///< false: never heard
  std::chrono::steady_clock::time_point last_receipt;  ///< of the last heartbeat
};

/// A drive's error code in words.
struct ErrorCodeInfo {
  std::uint32_t code = 0;  ///< which number: see the operation that returns it
  std::string msg;         ///< "unknown" when nothing is known
};

/// A node's state in one word.
enum class DriverStatus {
  Unknown = 0,       ///< not heard from yet, or the make does not report it
  BootUp = 1,        ///< its last heartbeat was the boot-up message
  Ready = 2,         ///< enabled, without error and without emergency stop
  Fault = 3,         ///< an error is present, or it is not enabled
  EmergencyStop = 4  ///< an emergency-stop input is active, or the drive shows the stop
};

/// A CANopen master (CiA 301) on one CAN interface with the drive operations every make shares. The
/// host constructs the class of the make fitted and uses it through this interface; one object
/// serves every node on its interface.
///
/// What a class does not support answers 0 or false and sends nothing. Set-up operations never stop
/// at a failed write: they return the number of writes that failed, 0 meaning success, and print
/// one fixed text per failure on standard output.
///
/// A confirmed SDO transfer takes the calling thread at most 100 ms plus the wait for transfers of
/// other threads, which run one after the other. While it runs the socket hears nothing but its
/// answer: heartbeats and PDOs sent meanwhile are missed, and frames queued before it are dropped.
///
/// Threads: all operations belong to host threads and may be called from any of them; heartbeat
/// callbacks run on the receive thread. Drive classes keep the previous encoder positions for the
/// whole process: read speeds of one class from one thread.
///
/// Where an operation below names no time, it does not block beyond a mutex held for microseconds.
/// Times named are those of a bus that takes frames; where it takes none, each frame sent can add
/// the wait of CanWrite().
class MOTOR_DRIVER_EXPORT DriverCommon : public DriverCan {
 public:
  /// Opens `interface_name` as DriverCan does and begins to record heartbeats. Check GetCanError().
  explicit DriverCommon(const char* interface_name);

  /// Stops the receive thread, then releases everything. At most 100 ms. Sends nothing: a host
  /// stops the wheels before. A class that a host derives calls StopReading() in its own
  /// destructor: until then the receive thread may make virtual calls.
  ~DriverCommon() override;

  /// @name The drive interface
  /// @{

  /// One confirmed read of the controlword (0x6040). True when the node answers it with data.
  /// At most 100 ms.
  virtual bool IsActived(std::uint8_t node);

  /// Clears a latched fault of the node. Result, duration and what else it does: see the drive
  /// class.
  virtual bool ActiveNode(std::uint8_t node) = 0;

  /// NMT reset node, 10 ms pause, NMT enter pre-operational; waits for no boot-up. `node` 0: all.
  /// True when both frames were sent. About 10 ms.
  virtual bool ResetNode(std::uint8_t node);

  /// NMT start remote node; `node` 0: all. A frame that cannot be sent is only logged.
  virtual void StartNode(std::uint8_t node);

  /// StartNode(0).
  virtual void StartAllNode();

  /// Puts the node in the make's speed mode and enables it (0x6060, 0x6040). Number of failed
  /// writes. At most 100 ms for each write.
  virtual std::uint16_t SetSpeedMode(std::uint8_t node) = 0;

  /// Speed mode as above and the whole PDO set-up, with feedback every `period_ms` milliseconds
  /// (1 to 65535, fewer where the drive class says so). Number of failed writes. At most 100 ms for
  /// each write.
  virtual std::uint16_t EnableSpeedModeAndPdoMode(std::uint8_t node, std::uint16_t period_ms) = 0;

  /// Commands one motor of the node, in the unit the drive class names (rpm where it converts). One
  /// frame, no answer awaited. True when it was sent; false where the class has another number of
  /// motors.
  virtual bool SetSpeed(std::uint8_t node, int speed);
  /// The same for the two motors of a node.
  virtual bool SetSpeed(std::uint8_t node, int speed1, int speed2);
  /// The same for the four motors of a node.
  virtual bool SetSpeed(std::uint8_t node, int speed1, int speed2, int speed3, int speed4);

  /// Takes one queued frame and, if it is a position report, turns the distance since the previous
  /// one into rpm. `counts`: encoder position, wraps around at 32 bits. The first reading after
  /// loading the library starts from position 0. False, outputs as the drive class says, when the
  /// queue is empty or where the class has another number of motors; never waits.
  virtual bool GetSpeed(std::uint8_t& node, double& rpm, int& counts);
  /// The same for the two motors of a node.
  virtual bool GetSpeed(std::uint8_t& node, double& rpm1, int& counts1, double& rpm2, int& counts2);
  /// The same for the four motors of a node.
  virtual bool GetSpeed(std::uint8_t& node, double& rpm1, int& counts1, double& rpm2, int& counts2,
                        double& rpm3, int& counts3, double& rpm4, int& counts4);

  /// Whether the node works; how that is judged, and how long it takes, is the drive class's.
  virtual bool CheckStatus(std::uint8_t node) = 0;

  /// Fault reset. False here: not supported.
  virtual bool ClearDriverError(std::uint8_t node);

  /// Leads the node out of `status`. False here: not supported.
  virtual bool ResetDriverStatus(std::uint8_t node, DriverStatus status);

  /// Whether the node reports with the period it was given. False here: not supported.
  virtual bool CheckReportPeriod(std::uint8_t node);

  /// Stores the node's parameters in its own memory. True also where the class does not support it,
  /// see there.
  virtual bool SaveAllParams(std::uint8_t node) = 0;

  /// One confirmed read of the first TPDO's event timer (0x1800 sub 5) in the drive's unit; 0 when
  /// it cannot be read. At most 100 ms.
  virtual std::uint16_t GetTpdo0Period(std::uint8_t node);

  /// Asks the node for a heartbeat every `period_ms` milliseconds, 0 for none (0x1017). Not
  /// confirmed: true when the request was sent; the answer lands in the read queue.
  virtual bool SetHeartbeatPacket(std::uint8_t node, std::uint16_t period_ms);

  /// What AddHeartbeatId() registers; runs on the receive thread with the heartbeat mutex held.
  /// Once set_is_initialized(true) was called it warns at the third pre-operational heartbeat in a
  /// row, counted over all nodes and drive objects of the process.
  virtual void HeartbeatCallback(HeartbeatTimeout& hb);

  /// Encoder counts per motor revolution.
  virtual std::uint32_t GetNumberOfPulsesPerRevolution() = 0;

  /// Set-up of a make in one call; true and nothing done here.
  virtual bool Init(std::uint8_t node, std::uint16_t period_ms);
  /// The same with a second argument, whose meaning is the drive class's.
  virtual bool Init(std::uint8_t node, std::uint8_t second, std::uint16_t period_ms);

  /// The node's present error in words; code 0 and "unknown" here.
  virtual ErrorCodeInfo GetErrorCode(std::uint8_t node) const;

  /// Loads a make's texts from a file. False here: not supported.
  virtual bool LoadDriverConfig(const std::string& path);

  /// The node's state; Unknown here.
  virtual DriverStatus GetDriverStatus(std::uint8_t node);
  /// The raw values behind the state in one line; "" here.
  virtual std::string GetDriverStatusDetails(std::uint8_t node) const;

  /// @}
  /// @name Frames
  /// @{

  /// The frame handler: records a registered heartbeat and consumes it (true), leaves any other
  /// frame to the read queue (false). Called by the receive thread only.
  bool HandleCanFrame(const CanFrame& frame);

  /// CanWrite().
  bool WriteData(std::uint32_t can_id, const std::uint8_t* data, std::uint8_t len);

  /// Takes the oldest queued frame, unless another thread is in an SDO transfer. `data` must hold 8
  /// bytes. False: nothing taken; identifier and length are 0, `data` is untouched. Never waits.
  bool ReadData(std::uint32_t* can_id, std::uint8_t* data, std::uint8_t* len);

  /// The same; without a frame `frame` is untouched.
  bool ReadData(CanFrame& frame);

  /// Sleeps the calling thread for `ms` milliseconds (0 to 4294967); a signal may cut it short.
  void CanDelayMs(std::uint32_t ms);

  /// Always true.
  bool IsNormal();

  /// @}
  /// @name Heartbeats
  /// @{

  /// Registers a heartbeat identifier (0x700 + node): from now on its heartbeats are recorded and
  /// no longer queued. An identifier already registered keeps its callback. Not from a callback.
  void AddHeartbeatId(const std::uint32_t& id);

  /// The same with a callback of the host, which replaces an earlier one; it may be empty. The
  /// callback runs on the receive thread with the heartbeat mutex held: it must be short and must
  /// not call AddHeartbeatId, AddHeartbeatCallback, IsManagedNode or IsNodeOnline of this object.
  /// A confirmed SDO transfer in it fails after its 100 ms: the thread that would read the answer
  /// is the one that waits. An exception that leaves it ends the process.
  void AddHeartbeatCallback(const std::uint32_t& id,
                            std::function<void(HeartbeatTimeout&)> callback);

  /// How old the last heartbeat of a live node may be, in seconds; 0 (the default) or less: any
  /// age.
  void SetHeartbeatTimeOut(double seconds);

  /// Whether 0x700 + node is registered. Waits for a heartbeat callback that runs. Not from a
  /// callback.
  bool IsManagedNode(std::uint8_t node);

  /// Whether the node is registered, was heard, and was heard within the time-out. There is no
  /// watchdog: a host asks once per control cycle. Waits for a heartbeat callback that runs. Not
  /// from a callback.
  bool IsNodeOnline(std::uint8_t node);

  /// True once bring-up is done: lets HeartbeatCallback() report restarts.
  void set_is_initialized(bool value);

  /// @}

  /// The host's release of speed commands, false at first. Only makes that say so look at it.
  void set_speed_command_enabled(bool value);

  /// @name SDO client (expedited transfers, CiA 301)
  /// `can_id`: request identifier, 0x600 + node; the answer comes with 0x80 less. `command`: 0x2F,
  /// 0x2B, 0x27, 0x23 write 1, 2, 3, 4 bytes; 0x40 reads. All four bytes of `data` are sent.
  /// @{

  /// Sends a request and awaits nothing; true when it was sent. The answer lands in the read queue.
  bool SdoWrite(std::uint32_t can_id, std::uint8_t command, std::uint16_t index,
                std::uint8_t sub_index, std::uint32_t data);

  /// Takes the oldest queued frame, whatever it is, and reads it as an SDO frame. False and all
  /// outputs 0 when there was none, it was shorter than 4 bytes (it is lost), or another thread is
  /// in a transfer. Never waits.
  bool SdoRead(std::uint32_t* can_id, std::uint8_t* command, std::uint16_t* index,
               std::uint8_t* sub_index, std::uint32_t* data);

  /// The waiting half of a transfer: takes frames for at most 100 ms until one has this identifier,
  /// index and sub-index; every other frame taken is dropped. `data` is 0 when the answer has fewer
  /// than 8 bytes. Outputs are written only on success. For callers that arranged the filters
  /// themselves.
  bool WaitSdoResponse(std::uint32_t response_id, std::uint16_t index, std::uint8_t sub_index,
                       std::uint8_t* command, std::uint32_t* data);

  /// One confirmed transfer. True when the drive answered a write with 0x60, a read (0x40) with
  /// expedited data. False: not sent, no answer within 100 ms (WARN line), refused by the drive, or
  /// a command that is not one of the five. No retry. Leaves the socket hearing every frame. At most
  /// 100 ms, after the transfers of other threads.
  bool SdoWriteWithFeedback(std::uint32_t can_id, std::uint8_t command, std::uint16_t index,
                            std::uint8_t sub_index, std::uint32_t data);

  /// The same, and hands out the answer's four data bytes: the value read, or the abort code when
  /// the drive refused (result false). 0 without an answer. `response_data` must not be null.
  bool SdoWriteWithFeedbackData(std::uint32_t can_id, std::uint8_t command, std::uint16_t index,
                                std::uint8_t sub_index, std::uint32_t data,
                                std::uint32_t* response_data);

  /// @}

 protected:
  /// What set_speed_command_enabled() was given last.
  bool speed_command_enabled() const {
    return speed_command_enabled_.load(std::memory_order_acquire);
  }

  /// Period of the feedback PDO in milliseconds, as last given to EnableSpeedModeAndPdoMode().
  std::atomic<std::uint16_t> pdo_period_{10};

 private:
  struct HeartbeatEntry {
    HeartbeatTimeout record;
    std::function<void(HeartbeatTimeout&)> callback;
  };
  enum class SdoOutcome { kNotSent, kTimedOut, kRefused, kAccepted };

  MOTOR_DRIVER_LOCAL HeartbeatEntry* FindHeartbeat(std::uint32_t id);
  MOTOR_DRIVER_LOCAL SdoOutcome TransferSdo(std::uint32_t can_id, std::uint8_t command,
                                            std::uint16_t index, std::uint8_t sub_index,
                                            std::uint32_t data, std::uint32_t* response_data);

  std::mutex heartbeat_mutex_;  // heartbeats_
  // Held for a whole SDO transfer. Recursive: the thread in a transfer may read frames itself.
  std::recursive_mutex sdo_mutex_;
  std::vector<HeartbeatEntry> heartbeats_;
  std::atomic<bool> is_initialized_{false};
  std::atomic<double> heartbeat_timeout_s_{0.0};
  std::atomic<bool> speed_command_enabled_{false};
};
