// When transmit PDOs are sent.
#include "tests/sim/pdo_fixture.h"

namespace sim {
namespace {

TEST_F(PdoEngineTest, EventTimerSendsAtExactIntervalsFromTheStart) {
  ConfigureTransmit(0xFF);
  MustWrite(0x1800, 5, 2, 10);
  engine_.Start(now_);
  dictionary_.Set(0x6064, 0, 0x12345678);
  Advance(milliseconds(30));
  EXPECT_EQ(Sent(),
            (Texts{"10000 181#785634123700", "20000 181#785634123700", "30000 181#785634123700"}));
}

TEST_F(PdoEngineTest, ProfileEventNeedsATimerOrAnEventOfTheProfile) {
  ConfigureTransmit(0xFF);
  engine_.Start(now_);
  EXPECT_EQ(engine_.NextEvent(), Time::max());
  Advance(milliseconds(5));
  dictionary_.Set(0x6064, 0, 1);
  Advance(milliseconds(5));
  EXPECT_EQ(Sent(), Texts{}) << "neither the first values nor another position";
}

TEST_F(PdoEngineTest, ProfileEventSendsAChangedStatuswordOrErrorCodeAtOnce) {
  dictionary_.Add(0x603F, 0, 2, Access::kReadOnly).Mappable();
  Configure(0x1800, 0x1A00, 0x181, {0x60640020, 0x60410010, 0x603F0010}, 0xFF);
  MustWrite(0x1800, 5, 2, 10);
  engine_.Start(now_);
  Advance(milliseconds(4));
  dictionary_.Set(0x6041, 0, 0x33);
  EXPECT_EQ(engine_.NextEvent(), now_ + kStep);
  Advance(milliseconds(1));
  EXPECT_EQ(Sent(), Texts{"4500 181#0000000033000000"});
  dictionary_.Set(0x603F, 0, 0x2310);
  Advance(milliseconds(1));
  EXPECT_EQ(Sent(), Texts{"5500 181#0000000033001023"});
  Advance(milliseconds(10));
  EXPECT_EQ(Sent(), Texts{"15500 181#0000000033001023"}) << "a transmission restarts the timer";
}

TEST_F(PdoEngineTest, ProfileEventWaitsForTheEndOfTheInhibitTime) {
  ConfigureTransmit(0xFF);
  MustWrite(0x1800, 1, 4, kOff | 0x181);
  MustWrite(0x1800, 3, 2, 50);
  MustWrite(0x1800, 1, 4, 0x181);
  engine_.Start(now_);
  Advance(milliseconds(1));
  for (const std::uint32_t status : {0x33U, 0x31U, 0x50U}) {
    dictionary_.Set(0x6041, 0, status);
    Advance(milliseconds(1));
  }
  EXPECT_EQ(engine_.NextEvent(), std::chrono::microseconds(6500));
  Advance(milliseconds(10));
  EXPECT_EQ(Sent(), (Texts{"1500 181#000000003300", "6500 181#000000005000"}));
}

TEST_F(PdoEngineTest, LooksOutForProfileEventsWhileTheStatuswordMayChangeByItself) {
  ConfigureTransmit(0xFF);
  engine_.Start(now_);
  Advance(milliseconds(1));
  EXPECT_EQ(engine_.NextEvent(), Time::max());
  EXPECT_EQ(engine_.NextEvent(/*settled=*/false), now_ + kStep);
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

}  // namespace
}  // namespace sim
