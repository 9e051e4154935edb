#include "sim/pdo_engine.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/sim/candump_text.h"

namespace sim {
namespace {

using std::chrono::milliseconds;
using Texts = std::vector<std::string>;

constexpr std::uint32_t kOff = 0x80000000;

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

TEST_F(PdoEngineTest, HasFourPdosOfEachDirectionWithTheirStandardIdentifiers) {
  EXPECT_EQ(dictionary_.Get(0x1400, 1), 0x201U);
  EXPECT_EQ(dictionary_.Get(0x1403, 1), 0x501U);
  EXPECT_EQ(dictionary_.Get(0x1800, 1), 0x181U);
  EXPECT_EQ(dictionary_.Get(0x1803, 1), 0x481U);
  EXPECT_EQ(dictionary_.Upload(0x1404, 1).error, AbortCode::kNoObject);
  EXPECT_EQ(dictionary_.Upload(0x1800, 4).error, AbortCode::kNoSubIndex);
}

TEST_F(PdoEngineTest, EventTimerSendsAtExactIntervalsFromTheStart) {
  ConfigureTransmit(0xFF);
  MustWrite(0x1800, 5, 2, 10);
  engine_.Start(now_);
  dictionary_.Set(0x6064, 0, 0x12345678);
  Advance(milliseconds(30));
  EXPECT_EQ(Sent(),
            (Texts{"10000 181#785634123700", "20000 181#785634123700", "30000 181#785634123700"}));
}

TEST_F(PdoEngineTest, ProfileEventDoesNotSendOnChangeOrWithoutATimer) {
  ConfigureTransmit(0xFF);
  engine_.Start(now_);
  Advance(milliseconds(5));
  dictionary_.Set(0x6064, 0, 1);
  Advance(milliseconds(5));
  EXPECT_EQ(Sent(), Texts{});
}

TEST_F(PdoEngineTest, ManufacturerEventSendsOnChangeAndOnTheTimer) {
  ConfigureTransmit(0xFE);
  MustWrite(0x1800, 5, 2, 10);
  engine_.Start(now_);
  Advance(milliseconds(4));
  EXPECT_EQ(Sent(), Texts{"500 181#000000003700"}) << "the first values are news";
  dictionary_.Set(0x6064, 0, 1);
  Advance(milliseconds(4));
  EXPECT_EQ(Sent(), Texts{"4500 181#010000003700"});
  Advance(milliseconds(7));
  EXPECT_EQ(Sent(), Texts{"14500 181#010000003700"}) << "a transmission restarts the timer";
}

TEST_F(PdoEngineTest, InhibitTimeHoldsChangesBack) {
  ConfigureTransmit(0xFE);
  MustWrite(0x1800, 1, 4, kOff | 0x181);
  MustWrite(0x1800, 3, 2, 50);
  MustWrite(0x1800, 1, 4, 0x181);
  engine_.Start(now_);
  for (std::uint32_t i = 1; i <= 12; ++i) {
    dictionary_.Set(0x6064, 0, i);
    Advance(milliseconds(1));
  }
  EXPECT_EQ(Sent(),
            (Texts{"500 181#010000003700", "5500 181#060000003700", "10500 181#0B0000003700"}));
}

TEST_F(PdoEngineTest, SynchronousTypesSendAtEveryNthSync) {
  ConfigureTransmit(3);
  MustWrite(0x1800, 5, 2, 1);
  engine_.Start(now_);
  Advance(milliseconds(5));
  for (int i = 0; i < 7; ++i) engine_.Sync();
  EXPECT_EQ(Sent().size(), 2U);
}

TEST_F(PdoEngineTest, TypeZeroSendsAtASyncAfterAChange) {
  ConfigureTransmit(0);
  engine_.Start(now_);
  engine_.Sync();
  engine_.Sync();
  EXPECT_EQ(Sent().size(), 1U);
  dictionary_.Set(0x6064, 0, 1);
  Advance(milliseconds(5));
  EXPECT_EQ(Sent(), Texts{});
  engine_.Sync();
  EXPECT_EQ(Sent().size(), 1U);
}

TEST_F(PdoEngineTest, SendsAndTakesNothingUnlessRunning) {
  ConfigureTransmit(0xFE);
  ConfigureReceive(0xFF);
  Advance(milliseconds(2));
  engine_.Sync();
  EXPECT_EQ(engine_.Receive(FromText("201#0F0001000000")), PdoEngine::Receipt::kNotMine);
  engine_.Start(now_);
  engine_.Stop();
  Advance(milliseconds(2));
  EXPECT_EQ(Sent(), Texts{});
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 0U);
  EXPECT_EQ(engine_.NextEvent(), Time::max());
}

TEST_F(PdoEngineTest, ASwitchedOffPdoIsSilentAndDeaf) {
  ConfigureTransmit(0xFE);
  ConfigureReceive(0xFF);
  engine_.Start(now_);
  MustWrite(0x1800, 1, 4, kOff | 0x181);
  MustWrite(0x1400, 1, 4, kOff | 0x201);
  Advance(milliseconds(2));
  EXPECT_EQ(Sent(), Texts{});
  EXPECT_EQ(engine_.Receive(FromText("201#0F0001000000")), PdoEngine::Receipt::kNotMine);
}

TEST_F(PdoEngineTest, AnEmptyMappingSendsNothing) {
  Configure(0x1800, 0x1A00, 0x181, {}, 0xFE);
  MustWrite(0x1800, 5, 2, 1);
  engine_.Start(now_);
  Advance(milliseconds(5));
  EXPECT_EQ(Sent(), Texts{});
}

TEST_F(PdoEngineTest, ReceivedValuesReachTheirObjectsAtOnce) {
  ConfigureReceive(0xFF);
  engine_.Start(now_);
  EXPECT_EQ(engine_.Receive(FromText("201#0F009CFFFFFF")), PdoEngine::Receipt::kTaken);
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 0x0FU);
  EXPECT_EQ(dictionary_.Get(0x60FF, 0), 0xFFFFFF9CU);
  EXPECT_EQ(engine_.Receive(FromText("202#070000000000")), PdoEngine::Receipt::kNotMine);
}

TEST_F(PdoEngineTest, SynchronousReceiveWaitsForTheSync) {
  ConfigureReceive(1);
  engine_.Start(now_);
  EXPECT_EQ(engine_.Receive(FromText("201#0F0064000000")), PdoEngine::Receipt::kTaken);
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 0U);
  engine_.Sync();
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 0x0FU);
  dictionary_.Set(0x6040, 0, 6);
  engine_.Sync();
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 6U) << "taken once only";
}

TEST_F(PdoEngineTest, AFrameShorterThanTheMappingIsRefusedALongerOneIsCut) {
  ConfigureReceive(0xFF);
  engine_.Start(now_);
  EXPECT_EQ(engine_.Receive(FromText("201#0F00640000")), PdoEngine::Receipt::kTooShort);
  EXPECT_EQ(dictionary_.Get(0x6040, 0), 0U);
  EXPECT_EQ(engine_.Receive(FromText("201#0F0064000000FFFF")), PdoEngine::Receipt::kTaken);
  EXPECT_EQ(dictionary_.Get(0x60FF, 0), 0x64U);
}

TEST_F(PdoEngineTest, MappingCanOnlyBeChangedWhileThePdoIsOffAndItsCountIsZero) {
  ConfigureTransmit(0xFF);
  EXPECT_EQ(Write(0x1A00, 0, 1, 0), AbortCode::kDeviceState) << "still on";
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x60640020), AbortCode::kDeviceState) << "still on";
  MustWrite(0x1800, 1, 4, kOff | 0x181);
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x60640020), AbortCode::kDeviceState) << "count is not 0";
  MustWrite(0x1A00, 0, 1, 0);
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x60640020), AbortCode::kNone);
}

TEST_F(PdoEngineTest, RefusesWhatCannotBeMapped) {
  MustWrite(0x1800, 1, 4, kOff | 0x181);
  MustWrite(0x1400, 1, 4, kOff | 0x201);
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x30000020), AbortCode::kNoObject);
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x60640120), AbortCode::kNoSubIndex);
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x20000020), AbortCode::kCannotBeMapped) << "not mappable";
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x60640010), AbortCode::kCannotBeMapped) << "other length";
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x20010020), AbortCode::kCannotBeMapped) << "cannot be read";
  EXPECT_EQ(Write(0x1600, 1, 4, 0x60640020), AbortCode::kCannotBeMapped) << "cannot be written";
  EXPECT_EQ(Write(0x1600, 1, 4, 0x20010020), AbortCode::kNone);
}

TEST_F(PdoEngineTest, RefusesMoreThanEightBytesAndCountsWithoutEntries) {
  MustWrite(0x1800, 1, 4, kOff | 0x181);
  EXPECT_EQ(Write(0x1A00, 0, 1, 9), AbortCode::kPdoLengthExceeded);
  EXPECT_EQ(Write(0x1A00, 0, 1, 1), AbortCode::kCannotBeMapped);
  for (std::uint8_t sub = 1; sub <= 3; ++sub) MustWrite(0x1A00, sub, 4, 0x60640020);
  EXPECT_EQ(Write(0x1A00, 0, 1, 3), AbortCode::kPdoLengthExceeded);
  EXPECT_EQ(Write(0x1A00, 0, 1, 2), AbortCode::kNone);
}

TEST_F(PdoEngineTest, RefusesBadIdentifiersTypesAndUntimelyChanges) {
  EXPECT_EQ(Write(0x1800, 1, 4, 0x20000181), AbortCode::kInvalidValue) << "29-bit identifier";
  EXPECT_EQ(Write(0x1800, 1, 4, kOff | 0x581), AbortCode::kInvalidValue) << "SDO";
  EXPECT_EQ(Write(0x1800, 1, 4, kOff), AbortCode::kInvalidValue) << "NMT";
  EXPECT_EQ(Write(0x1800, 1, 4, 0x182), AbortCode::kDeviceState) << "while on";
  EXPECT_EQ(Write(0x1800, 1, 4, 0x181), AbortCode::kNone) << "no change";
  EXPECT_EQ(Write(0x1800, 1, 4, 0x40000181), AbortCode::kNone) << "no remote requests";
  EXPECT_EQ(Write(0x1800, 3, 2, 10), AbortCode::kDeviceState) << "inhibit time while on";
  EXPECT_EQ(Write(0x1800, 2, 1, 0xF1), AbortCode::kInvalidValue);
  EXPECT_EQ(Write(0x1800, 2, 1, 0xFD), AbortCode::kInvalidValue);
  EXPECT_EQ(Write(0x1800, 2, 1, 0xF0), AbortCode::kNone);
  EXPECT_EQ(Write(0x1800, 5, 1, 10), AbortCode::kLengthTooLow);
}

TEST_F(PdoEngineTest, AContinuousValueIsSentButIsNoEvent) {
  dictionary_.Find(0x6064, 0).object->Continuous();
  ConfigureTransmit(0xFE);
  MustWrite(0x1800, 5, 2, 10);
  engine_.Start(now_);
  Advance(milliseconds(1));
  EXPECT_EQ(Sent(), Texts{"500 181#000000003700"});
  dictionary_.Set(0x6064, 0, 1);
  Advance(milliseconds(4));
  EXPECT_EQ(Sent(), Texts{});
  dictionary_.Set(0x6041, 0, 0x33);
  Advance(milliseconds(1));
  EXPECT_EQ(Sent(), Texts{"5500 181#010000003300"});
  Advance(milliseconds(10));
  EXPECT_EQ(Sent(), Texts{"15500 181#010000003300"});
}

PdoTraits Lenient() {
  PdoTraits traits;
  traits.inhibit_unit = milliseconds(1);
  traits.inhibit_time_is_period = true;
  traits.configurable_while_valid = true;
  traits.accepts_short_times = true;
  traits.change_detection = milliseconds(5);
  return traits;
}

class LenientPdoEngineTest : public PdoEngineTest {
 protected:
  LenientPdoEngineTest() : PdoEngineTest(Lenient()) {}
};

TEST_F(LenientPdoEngineTest, CanBeConfiguredWhileThePdoIsOn) {
  MustWrite(0x1A00, 0, 1, 0);
  MustWrite(0x1A00, 1, 4, 0x60640020);
  MustWrite(0x1A00, 0, 1, 1);
  EXPECT_EQ(Write(0x1A00, 1, 4, 0x60640020), AbortCode::kDeviceState) << "count is not 0";
  MustWrite(0x1800, 3, 1, 10);
  MustWrite(0x1800, 5, 1, 10);
  EXPECT_EQ(Write(0x1800, 1, 4, 0x182), AbortCode::kDeviceState) << "another identifier";
}

TEST_F(LenientPdoEngineTest, TheInhibitTimeIsThePeriodWithoutAnEventTimer) {
  ConfigureTransmit(0xFF);
  MustWrite(0x1800, 3, 2, 10);
  engine_.Start(now_);
  EXPECT_EQ(engine_.NextEvent(), milliseconds(10));
  Advance(milliseconds(20));
  EXPECT_EQ(Sent(), (Texts{"10000 181#000000003700", "20000 181#000000003700"}));
  MustWrite(0x1800, 5, 2, 15);
  Advance(milliseconds(15));
  EXPECT_EQ(Sent(), Texts{"35000 181#000000003700"});
}

TEST_F(LenientPdoEngineTest, NoticesChangesAsOftenAsItLooks) {
  ConfigureTransmit(0xFE);
  engine_.Start(now_);
  EXPECT_EQ(engine_.NextEvent(), milliseconds(5));
  Advance(milliseconds(6));
  EXPECT_EQ(Sent(), Texts{"5000 181#000000003700"});
  dictionary_.Set(0x6041, 0, 0x33);
  EXPECT_EQ(engine_.NextEvent(), milliseconds(10));
  Advance(milliseconds(4));
  EXPECT_EQ(Sent(), Texts{"10000 181#000000003300"});
}

TEST_F(PdoEngineTest, SaysWhenItNextHasSomethingToDo) {
  engine_.Start(now_);
  EXPECT_EQ(engine_.NextEvent(), Time::max());
  ConfigureTransmit(0xFF);
  MustWrite(0x1800, 5, 2, 10);
  EXPECT_EQ(engine_.NextEvent(), milliseconds(10));
  Advance(milliseconds(4));
  EXPECT_EQ(engine_.NextEvent(), milliseconds(10));
  Advance(milliseconds(6));
  EXPECT_EQ(engine_.NextEvent(), milliseconds(20));
  MustWrite(0x1800, 2, 1, 0xFE);
  EXPECT_EQ(engine_.NextEvent(), now_ + kStep);
}

}  // namespace
}  // namespace sim
