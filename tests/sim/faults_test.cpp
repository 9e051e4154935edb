#include "sim/faults.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace sim {
namespace {

using Action = SdoFaults::Verdict::Action;

constexpr SdoRequest kWrite{SdoRequest::Kind::kDownload, 0x6060, 0, 1, 3};
constexpr SdoRequest kRead{SdoRequest::Kind::kUpload, 0x6060, 0, 0, 0};
constexpr SdoRequest kWriteSub1{SdoRequest::Kind::kDownload, 0x6060, 1, 1, 3};
constexpr SdoRequest kWriteOther{SdoRequest::Kind::kDownload, 0x6061, 0, 1, 3};

TEST(ParseFaultTest, ReadsEveryForm) {
  const Fault write = ParseFault("abort-write=3/0x06090030");
  EXPECT_EQ(write.kind, Fault::Kind::kAbortWrite);
  EXPECT_EQ(write.number, 3U);
  EXPECT_EQ(write.abort_code, AbortCode::kInvalidValue);
  EXPECT_EQ(ParseFault("abort-write=1").abort_code, AbortCode::kGeneral);
  EXPECT_EQ(ParseFault("ignore-write=2").kind, Fault::Kind::kIgnoreWrite);

  const Fault object = ParseFault("abort-object=0x6060:1/0x08000022");
  EXPECT_EQ(object.kind, Fault::Kind::kAbortObject);
  EXPECT_EQ(object.index, 0x6060);
  EXPECT_EQ(object.sub, 1);
  EXPECT_EQ(object.abort_code, AbortCode::kDeviceState);
  const Fault value = ParseFault("abort-value=0x6060:1/0xFFFFFFFD");
  EXPECT_EQ(value.kind, Fault::Kind::kAbortValue);
  EXPECT_EQ(value.index, 0x6060);
  EXPECT_EQ(value.sub, 1);
  EXPECT_EQ(value.number, 0xFFFFFFFDU);
  EXPECT_EQ(ParseFault("ignore-object=24672").index, 0x6060);
  EXPECT_FALSE(ParseFault("ignore-object=0x6060").sub.has_value());

  EXPECT_EQ(ParseFault("delay-replies-ms=20").number, 20U);
  EXPECT_EQ(ParseFault("duplicate-replies").kind, Fault::Kind::kDuplicateReplies);
  EXPECT_EQ(ParseFault("truncate-replies=7").number, 7U);
  EXPECT_EQ(ParseFault("wrong-index").kind, Fault::Kind::kWrongIndexReplies);
  EXPECT_EQ(ParseFault("abort-segment=2/0x06040047").kind, Fault::Kind::kAbortSegment);
  EXPECT_EQ(ParseFault("ignore-segment=3").kind, Fault::Kind::kIgnoreSegment);
  EXPECT_EQ(ParseFault("wrong-toggle=1").kind, Fault::Kind::kWrongToggle);
  EXPECT_EQ(ParseFault("wrong-size=0").kind, Fault::Kind::kWrongSize);
  EXPECT_EQ(ParseFault("no-size").kind, Fault::Kind::kNoSize);
  EXPECT_EQ(ParseFault("power-cut-after-ms=2000").number, 2000U);
  EXPECT_EQ(ParseFault("power-on-after-ms=3000").kind, Fault::Kind::kPowerOnAfter);
  EXPECT_EQ(ParseFault("error-after-ms=5/0x2310").error_code, 0x2310);
  EXPECT_EQ(ParseFault("no-heartbeat-after-ms=0").kind, Fault::Kind::kNoHeartbeatAfter);
  EXPECT_EQ(ParseFault("no-reports-after-ms=5").kind, Fault::Kind::kNoReportsAfter);
  EXPECT_EQ(ParseFault("block-motor-after-ms=7").kind, Fault::Kind::kBlockMotorAfter);
  EXPECT_EQ(ParseFault("emergency-stop-after-ms=1").kind, Fault::Kind::kEmergencyStopAfter);
  EXPECT_EQ(ParseFault("emergency-release-after-ms=2").kind, Fault::Kind::kEmergencyReleaseAfter);
}

TEST(ParseFaultTest, RefusesWhatIsMalformed) {
  for (const char* text : {"",
                           "abort",
                           "abort-write",
                           "abort-write=",
                           "abort-write=0",
                           "abort-write=x",
                           "abort-write=3x",
                           "abort-write=-1",
                           "abort-write=3/",
                           "abort-write=4294967296",
                           "ignore-write=1/2",
                           "abort-object=0x10000",
                           "abort-object=0x6060:256",
                           "ignore-object=:1",
                           "ignore-object=0x6060:",
                           "ignore-object=0x6060/1",
                           "abort-value=0x6060",
                           "abort-value=0x6060/",
                           "abort-value=0x6060/4294967296",
                           "truncate-replies=8",
                           "wrong-index=1",
                           "abort-segment=0",
                           "ignore-segment=0",
                           "ignore-segment=1/2",
                           "wrong-toggle=0",
                           "wrong-toggle",
                           "wrong-size=",
                           "no-size=1",
                           "duplicate-replies=",
                           "error-after-ms=5",
                           "error-after-ms=5/0",
                           "error-after-ms=5/0x10000",
                           "Abort-write=1",
                           "0x6060",
                           "abort-object=0x"}) {
    EXPECT_THROW(ParseFault(text), std::invalid_argument) << text;
  }
}

TEST(ParseFaultTest, SaysWhichFaultIsWrong) {
  try {
    ParseFault("truncate-replies=9");
    FAIL() << "no exception";
  } catch (const std::invalid_argument& error) {
    EXPECT_STREQ(error.what(), "fault 'truncate-replies=9': a number is too large");
  }
}

TEST(ParseFaultTest, HelpNamesEveryFault) {
  for (const char* name :
       {"abort-write", "ignore-write", "abort-object", "ignore-object", "abort-value",
        "delay-replies-ms", "duplicate-replies", "truncate-replies", "wrong-index", "abort-segment",
        "ignore-segment", "wrong-toggle", "wrong-size", "no-size", "power-cut-after-ms",
        "power-on-after-ms", "error-after-ms", "no-heartbeat-after-ms"}) {
    EXPECT_NE(std::string(FaultHelp()).find(name), std::string::npos) << name;
  }
}

TEST(SdoFaultsTest, StrikesTheNthWriteOnce) {
  SdoFaults faults;
  faults.Inject(ParseFault("abort-write=2/0x06090030"));
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kServe);
  EXPECT_EQ(faults.Judge(kRead).action, Action::kServe) << "reads do not count";
  const auto second = faults.Judge(kWriteOther);
  EXPECT_EQ(second.action, Action::kAbort);
  EXPECT_EQ(second.code, AbortCode::kInvalidValue);
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kServe);
}

TEST(SdoFaultsTest, CountsForEachFaultFromItsInjection) {
  SdoFaults faults;
  faults.Inject(ParseFault("abort-write=1"));
  faults.Inject(ParseFault("ignore-write=3"));
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kAbort);
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kServe);
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kIgnore);
  faults.Inject(ParseFault("abort-write=1"));
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kAbort);
}

TEST(SdoFaultsTest, StrikesAnObjectInBothDirections) {
  SdoFaults faults;
  faults.Inject(ParseFault("ignore-object=0x6060:0"));
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kIgnore);
  EXPECT_EQ(faults.Judge(kRead).action, Action::kIgnore);
  EXPECT_EQ(faults.Judge(kWriteSub1).action, Action::kServe);
  EXPECT_EQ(faults.Judge(kWriteOther).action, Action::kServe);
}

TEST(SdoFaultsTest, StrikesOneValueOfAnObject) {
  SdoFaults faults;
  faults.Inject(ParseFault("abort-value=0x6060:0/3"));
  SdoRequest other_value = kWrite;
  other_value.value = 2;
  for (int again = 0; again < 4; ++again) {
    EXPECT_EQ(faults.Judge(kWrite).action, Action::kAbort);
    EXPECT_EQ(faults.Judge(other_value).action, Action::kServe);
    EXPECT_EQ(faults.Judge(kRead).action, Action::kServe);
    EXPECT_EQ(faults.Judge(kWriteSub1).action, Action::kServe);
    EXPECT_EQ(faults.Judge(kWriteOther).action, Action::kServe);
  }
}

TEST(SdoFaultsTest, StrikesEverySubIndexWhenNoneIsGiven) {
  SdoFaults faults;
  faults.Inject(ParseFault("abort-object=0x6060"));
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kAbort);
  EXPECT_EQ(faults.Judge(kWriteSub1).action, Action::kAbort);
  faults.Clear();
  EXPECT_EQ(faults.Judge(kWrite).action, Action::kServe);
}

}  // namespace
}  // namespace sim
