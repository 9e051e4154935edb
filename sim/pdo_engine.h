#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/frame.h"
#include "sim/object_dictionary.h"

namespace sim {

/// Where a make's PDOs differ from CiA 301.
struct PdoTraits {
  Time event_timer_unit = std::chrono::milliseconds(1);  // of sub-index 5 of 0x1800 onwards
  Time inhibit_unit = std::chrono::microseconds(100);    // of sub-index 3
  // Without an event timer, a transmit PDO is sent whenever its inhibit time is over.
  bool inhibit_time_is_period = false;
  bool configurable_while_valid = false;  // mapping and inhibit time; not the identifier
  bool accepts_short_times = false;       // event timer and inhibit time as one byte
  Time change_detection = kStep;          // changes of mapped values are noticed this often
};

/// Four receive and four transmit PDOs, decided by their objects 0x1400, 0x1600, 0x1800 and 0x1A00
/// onwards.
///
/// Transmission types of a transmit PDO: 0 = at a SYNC when a mapped value has changed; 1 to 240 =
/// at every n-th SYNC; 0xFE (manufacturer-specific event) = when a mapped value that is not
/// continuous changes and when the event timer expires, but not before the inhibit time is over;
/// 0xFF (profile-specific event) = the same, but the changes are those of a mapped statusword or
/// error code. Of a receive PDO: 0 to 240 = takes effect at the next SYNC; 0xFE and 0xFF = at once.
class PdoEngine {
 public:
  static constexpr std::size_t kCount = 4;

  enum class Receipt { kNotMine, kTaken, kTooShort };

  /// Adds its objects to the dictionary.
  PdoEngine(ObjectDictionary& dictionary, std::uint8_t node_id, const PdoTraits& traits,
            FrameSink send);
  PdoEngine(const PdoEngine&) = delete;
  PdoEngine& operator=(const PdoEngine&) = delete;

  /// Entering and leaving NMT operational.
  void Start(Time now);
  void Stop() { running_ = false; }

  void Step(Time now);
  void Sync();
  Receipt Receive(const Frame& frame);

  /// The earliest time at which Step may have something to send; Time::max() when nothing is
  /// planned. `settled`: no statusword changes by itself.
  Time NextEvent(bool settled = true) const;
  /// The identifiers of the receive PDOs that are on.
  std::vector<std::uint32_t> ReceivedIds() const;

 private:
  struct Payload {
    std::uint8_t length = 0;
    std::array<std::uint8_t, 8> data{};
    bool operator==(const Payload& other) const {
      return length == other.length && data == other.data;
    }
  };
  struct Transmit {
    Time timer_start{0};
    Time inhibited_until{0};
    // Of the last transmission; empty before, which counts as a change if the type is 0xFE.
    Payload last;
    unsigned syncs = 0;
  };
  struct Received {
    bool pending = false;
    Frame frame;
  };
  // The objects of one PDO; `communication` and `mapping` are indices.
  struct Direction {
    std::uint16_t communication;
    std::uint16_t mapping;
    bool transmit;
  };

  void AddReceivePdo(std::size_t number, std::uint32_t cob_id);
  void AddTransmitPdo(std::size_t number, std::uint32_t cob_id);
  void AddMapping(const Direction& pdo);
  AbortCode CheckCobId(std::uint16_t communication, std::uint32_t value) const;
  AbortCode CheckMappedObject(bool transmit, std::uint32_t mapping);
  AbortCode CheckMappedCount(const Direction& pdo, std::uint32_t count) const;

  bool Valid(std::uint16_t communication) const;
  bool Locked(std::uint16_t communication) const;
  unsigned MappedLength(std::uint16_t mapping) const;
  void Apply(std::uint16_t mapping, const Frame& frame);
  Payload Collect(std::uint16_t mapping) const;
  bool HasProfileEvent(std::size_t number) const;
  bool Eventful(std::size_t number, const Payload& now) const;
  void Send(std::size_t number, const Payload& payload);
  void Restart(Transmit& transmit);
  Time EventTime(std::size_t number) const;

  ObjectDictionary& dictionary_;
  PdoTraits traits_;
  FrameSink send_;
  bool running_ = false;
  Time now_{0};
  std::array<Transmit, kCount> transmit_;
  std::array<Received, kCount> received_;
};

}  // namespace sim
