// The far end of the bus: what a drive would be, with replies written down by the test.
//
// Frames are written as candump text: "601#2B4060000F000000", extended identifiers with 8 digits,
// remote requests as "601#R" or "601#R4". Nothing here is shared with the library, so that a wrong
// byte on one side cannot be hidden by the same wrong byte on the other.
#pragma once

#include <linux/can.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bus {

using Clock = std::chrono::steady_clock;

can_frame ParseFrame(const std::string& text);
std::string FormatFrame(const can_frame& frame);

struct RecordedFrame {
  Clock::time_point time;
  std::string text;
};

// An own raw socket on one interface with an own thread. Records every frame; answers those that
// the script or an SDO server knows. From the first Expect() or ExpectSilence() on, a frame that
// nobody expects fails the test; in the destructor, so does an expectation that was never met.
// All operations may be called from any thread, but a script is written before the operation that
// it answers is started.
class FarEnd {
 public:
  explicit FarEnd(const std::string& interface = "can1");
  ~FarEnd();
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;

  // One frame of the script; Reply() may be called several times, or not at all.
  class Expectation {
   public:
    // Sends `frame` `delay` after the expected frame arrived.
    Expectation& Reply(const std::string& frame,
                       std::chrono::milliseconds delay = std::chrono::milliseconds(0));

   private:
    friend class FarEnd;
    Expectation(FarEnd& far_end, std::size_t position) : far_end_(far_end), position_(position) {}
    FarEnd& far_end_;
    std::size_t position_;
  };

  // The next frame of the script, in order.
  Expectation Expect(const std::string& frame);

  // Expects several frames without reply.
  void ExpectAll(const std::vector<std::string>& frames);

  // No frame but the scripted ones (and SDO requests to a node that is answered) from now on.
  void ExpectSilence();

  // The SDO server of one node: confirms every write, answers reads from its object table.
  // Requests are counted from 0, writes and reads together.
  class SdoServer {
   public:
    // Value that reads give. `size` (1, 2 or 4) is the number of bytes told in the response.
    // A read of an object never set is answered by abort 0x06020000 (no such object).
    SdoServer& Object(std::uint16_t index, std::uint8_t sub_index, std::uint32_t value,
                      unsigned size = 4);
    // The k-th request is refused by an abort, by silence, or answered by these frames instead.
    SdoServer& Abort(std::size_t k, std::uint32_t abort_code = 0x06090030);
    SdoServer& Silence(std::size_t k);
    SdoServer& Answer(std::size_t k, const std::string& frame,
                      std::chrono::milliseconds delay = std::chrono::milliseconds(0));
    // Every request is met by silence / abort from now on.
    SdoServer& SilenceAll();
    SdoServer& AbortAll(std::uint32_t abort_code = 0x06090030);
    std::size_t Requests() const;

   private:
    friend class FarEnd;
    struct Reply {
      std::string frame;
      std::chrono::milliseconds delay;
    };
    SdoServer(FarEnd& far_end, std::uint8_t node) : far_end_(far_end), node_(node) {}
    // Both with far_end_.mutex_ held.
    void Handle(const can_frame& request);
    void SendAbort(const can_frame& request, std::uint32_t abort_code);

    FarEnd& far_end_;
    std::uint8_t node_;
    std::size_t requests_ = 0;
    std::map<std::pair<std::uint16_t, std::uint8_t>, std::pair<std::uint32_t, unsigned>> objects_;
    std::map<std::size_t, std::uint32_t> aborts_;
    std::map<std::size_t, std::vector<Reply>> answers_;
    bool silent_ = false;
    bool aborting_ = false;
    std::uint32_t abort_code_ = 0;
  };

  // Starts answering SDO requests to `node`; the same server when called again.
  SdoServer& AnswerSdo(std::uint8_t node);

  // Sends a frame of its own accord, now.
  void Send(const std::string& frame);

  // Every frame so far. Waits 5 ms first: a busy kernel delivers a frame a little after the write.
  std::vector<std::string> Frames();
  std::vector<RecordedFrame> Records();
  // Forgets the record so far.
  void Forget();

  // Waits until at least `count` frames are recorded; false after `timeout`.
  bool WaitFrames(std::size_t count,
                  std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));
  // Waits until every expectation is met; false after `timeout`.
  bool WaitScript(std::chrono::milliseconds timeout = std::chrono::milliseconds(2000));

 private:
  struct Scripted {
    std::string frame;
    std::vector<std::pair<std::string, std::chrono::milliseconds>> replies;
  };

  void Run();
  void Drain();                         // takes all that has arrived
  void Handle(const can_frame& frame);  // with mutex_ held
  void SendLater(const std::string& frame, std::chrono::milliseconds delay);  // with mutex_ held
  void SendNow(const can_frame& frame);
  template <typename Condition>
  bool WaitFor(Condition condition, std::chrono::milliseconds timeout);

  int socket_ = -1;
  int wake_ = -1;  // eventfd: a delayed reply or the end
  std::atomic<bool> running_{true};
  std::mutex mutex_;  // everything below
  std::vector<RecordedFrame> records_;
  std::vector<Scripted> script_;
  std::size_t next_ = 0;
  bool strict_ = false;
  std::multimap<Clock::time_point, std::string> delayed_;
  std::deque<SdoServer> servers_;
  std::thread thread_;
};

}  // namespace bus
