#include "tests/sim/pdo_fixture.h"

namespace sim {
namespace {

TEST_F(PdoEngineTest, HasFourPdosOfEachDirectionWithTheirStandardIdentifiers) {
  EXPECT_EQ(dictionary_.Get(0x1400, 1), 0x201U);
  EXPECT_EQ(dictionary_.Get(0x1403, 1), 0x501U);
  EXPECT_EQ(dictionary_.Get(0x1800, 1), 0x181U);
  EXPECT_EQ(dictionary_.Get(0x1803, 1), 0x481U);
  EXPECT_EQ(dictionary_.Upload(0x1404, 1).error, AbortCode::kNoObject);
  EXPECT_EQ(dictionary_.Upload(0x1800, 4).error, AbortCode::kNoSubIndex);
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
