#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "sim/pdo_engine.h"
#include "tests/sim/candump_text.h"

namespace sim {

using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

inline constexpr std::uint32_t kOff = 0x80000000;

// Node 1 with a few objects to map; the event timer counts milliseconds.
class PdoEngineTest : public testing::Test {
 protected:
  explicit PdoEngineTest(const PdoTraits& traits = {})
      : engine_(dictionary_, 1, traits, [this](const Frame& frame) {
          sent_.push_back(std::to_string(now_.count()) + " " + ToText(frame));
        }) {
    dictionary_.Add(0x6040, 0, 2, Access::kReadWrite).Mappable();
    dictionary_.Add(0x6041, 0, 2, Access::kReadOnly, 0x37).Mappable();
    dictionary_.Add(0x6064, 0, 4, Access::kReadOnly).Mappable();
    dictionary_.Add(0x60FF, 0, 4, Access::kReadWrite).Mappable();
    dictionary_.Add(0x2000, 0, 4, Access::kReadWrite);
    dictionary_.Add(0x2001, 0, 4, Access::kWriteOnly).Mappable();
  }

  AbortCode Write(std::uint16_t index, std::uint8_t sub, unsigned size, std::uint32_t value) {
    return dictionary_.Download(index, sub, size, value);
  }
  void MustWrite(std::uint16_t index, std::uint8_t sub, unsigned size, std::uint32_t value) {
    ASSERT_EQ(Write(index, sub, size, value), AbortCode::kNone)
        << std::hex << index << ":" << unsigned{sub};
  }
  // Leaves the PDO switched on with these objects and this transmission type.
  void Configure(std::uint16_t communication, std::uint16_t mapping, std::uint32_t cob_id,
                 const std::vector<std::uint32_t>& entries, std::uint32_t type) {
    MustWrite(communication, 1, 4, kOff | cob_id);
    MustWrite(communication, 2, 1, type);
    MustWrite(mapping, 0, 1, 0);
    std::uint8_t sub = 0;
    for (const std::uint32_t entry : entries) MustWrite(mapping, ++sub, 4, entry);
    MustWrite(mapping, 0, 1, sub);
    MustWrite(communication, 1, 4, cob_id);
  }
  void ConfigureTransmit(std::uint32_t type) {
    Configure(0x1800, 0x1A00, 0x181, {0x60640020, 0x60410010}, type);
  }
  void ConfigureReceive(std::uint32_t type) {
    Configure(0x1400, 0x1600, 0x201, {0x60400010, 0x60FF0020}, type);
  }
  void Advance(milliseconds duration) {
    for (const Time end = now_ + duration; now_ < end;) engine_.Step(now_ += kStep);
  }
  Texts Sent() { return std::exchange(sent_, {}); }

  ObjectDictionary dictionary_;
  Time now_{0};
  Texts sent_;
  PdoEngine engine_;
};

}  // namespace sim
