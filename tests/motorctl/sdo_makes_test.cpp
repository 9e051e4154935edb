// The SDO client of motorctl and the simulated drives of every make, with their faults.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "bus_environment.h"
#include "far_end.h"
#include "makes.h"
#include "motorctl_process.h"
#include "sdo_client.h"
#include "simulated.h"

namespace motorctl {
namespace {

using Kind = SdoAnswer::Kind;
using std::chrono::milliseconds;

constexpr std::uint32_t kToggle = 0x05030000;
constexpr std::uint32_t kLength = 0x06070010;
const std::string kText = "a text of sixty-four bytes, which take ten segments on the bus.";

struct UserText {
  const char* make;
  std::uint16_t index;
};
constexpr UserText kUserTexts[] = {
    {"zl", 0x2030}, {"tt", 0x2020}, {"hls", 0x2500}, {"amps", 0x4710}, {"kinco", 0x2F00}};

std::string Text(const SdoAnswer& answer) { return {answer.bytes.begin(), answer.bytes.end()}; }

class SdoMakeTest : public bus::BusTest, public testing::WithParamInterface<tested::Make> {
 protected:
  SdoMakeTest()
      : user_(std::find_if(std::begin(kUserTexts), std::end(kUserTexts), [](const UserText& row) {
                return row.make == GetParam().name;
              })->index) {}
  SdoAnswer Read() { return client_.Upload(1, user_, 0, 1); }
  SdoAnswer Write(const std::string& text) {
    return client_.Download(1, user_, 0, {text.begin(), text.end()});
  }
  // A transfer that was given up costs the next one nothing.
  void ExpectNothingLeftOpen() {
    drive_.ClearFaults();
    EXPECT_EQ(client_.Upload(1, 0x1018, 2, 1).number(), drive_.ReadObject(0x1018, 2));
  }

  const std::uint16_t user_;
  sim::SimulatedDrive drive_{Options(GetParam().name)};
  // Shorter than the drive waits for its client.
  SdoClient client_{"can0", milliseconds(400)};
};

INSTANTIATE_TEST_SUITE_P(Makes, SdoMakeTest, testing::ValuesIn(tested::Makes()),
                         [](const auto& test) { return test.param.name; });

TEST_P(SdoMakeTest, ReadsNamesAndNumbers) {
  for (const std::uint16_t index :
       {std::uint16_t{0x1008}, std::uint16_t{0x1009}, std::uint16_t{0x100A}}) {
    const SdoAnswer answer = client_.Upload(1, index, 0);
    EXPECT_EQ(Text(answer), drive_.ReadText(index, 0));
    EXPECT_EQ(answer.segment > 0, answer.bytes.size() > 4);
  }
  EXPECT_EQ(Text(client_.Upload(1, 0x1008, 0)), "Simulated drive " + GetParam().name);
  EXPECT_EQ(client_.Upload(1, 0x1000, 0).number(), 0x00020192U);
  EXPECT_EQ(client_.Upload(1, 0x1017, 0).bytes.size(), 2U);
  EXPECT_EQ(client_.Upload(1, 0x5FFF, 0).abort_code, 0x06020000U);
}

TEST_P(SdoMakeTest, WritesAndReadsTextsOfEveryLength) {
  for (std::size_t size = 0; size <= kText.size(); ++size) {
    const std::string text = kText.substr(0, size);
    EXPECT_TRUE(Write(text).ok()) << size;
    EXPECT_EQ(drive_.ReadText(user_, 0), text);
    EXPECT_EQ(Text(Read()), text);
  }
  const SdoAnswer too_long = Write(kText + "xx");
  EXPECT_EQ(too_long.kind, Kind::kAborted);
  EXPECT_EQ(too_long.abort_code, 0x06070012U);
  EXPECT_EQ(client_.Download(1, 0x1017, 0, {1, 2, 3, 4, 5}).abort_code, 0x06070012U);
  EXPECT_EQ(client_.Download(1, 0x1017, 0, {1}).abort_code, 0x06070013U);
  EXPECT_EQ(client_.Download(1, 0x1008, 0, Bytes(9)).abort_code, 0x06010002U);
}

TEST_P(SdoMakeTest, EveryFaultIsToldFromTheOthers) {
  struct Row {
    const char* fault;
    Kind read;
    std::uint32_t read_code;
    Kind written;
    std::uint32_t written_code;
  };
  const Row rows[] = {
      {"abort-segment=2/0x06040047", Kind::kAborted, 0x06040047, Kind::kAborted, 0x06040047},
      {"wrong-toggle=3", Kind::kGivenUp, kToggle, Kind::kGivenUp, kToggle},
      {"wrong-size=3", Kind::kGivenUp, kLength, Kind::kOk, 0},
      {"wrong-size=65", Kind::kGivenUp, kLength, Kind::kOk, 0},
      {"no-size", Kind::kOk, 0, Kind::kOk, 0},
      {"duplicate-replies", Kind::kOk, 0, Kind::kOk, 0},
      {"delay-replies-ms=20", Kind::kOk, 0, Kind::kOk, 0},
      {"abort-write=1/0x08000022", Kind::kOk, 0, Kind::kAborted, 0x08000022},
  };
  ASSERT_TRUE(Write(kText).ok());
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fault);
    drive_.Inject(row.fault);
    const SdoAnswer read = Read();
    EXPECT_EQ(read.kind, row.read);
    EXPECT_EQ(read.abort_code, row.read_code);
    EXPECT_TRUE(!read.ok() || Text(read) == kText) << Text(read);
    ExpectNothingLeftOpen();
    drive_.Inject(row.fault);
    const SdoAnswer written = Write(kText);
    EXPECT_EQ(written.kind, row.written);
    EXPECT_EQ(written.abort_code, row.written_code);
    ExpectNothingLeftOpen();
  }
}

TEST_P(SdoMakeTest, SilenceEndsATransferForBoth) {
  ASSERT_TRUE(Write(kText).ok());
  client_.set_timeout(milliseconds(100));
  for (const char* fault : {"ignore-segment=2", "wrong-index", "truncate-replies=7"}) {
    SCOPED_TRACE(fault);
    drive_.Inject(fault);
    EXPECT_EQ(Read().kind, Kind::kNoAnswer);
    ExpectNothingLeftOpen();
  }
  drive_.Inject("ignore-segment=1");
  EXPECT_TRUE(client_.Upload(1, user_, 0, 2).ok()) << "the second attempt is answered";
}

TEST_P(SdoMakeTest, ASlowNodeIsLateAndNotSilent) {
  client_.set_timeout(milliseconds(100));
  drive_.Inject("delay-replies-ms=150");
  const SdoAnswer written = client_.Download(1, 0x1017, 0, {0xE8, 0x03});
  EXPECT_EQ(written.kind, Kind::kLate);
  EXPECT_GE(written.late.count(), 140);
  EXPECT_EQ(drive_.ReadObject(0x1017, 0), 1000U) << "it was carried out";
  EXPECT_EQ(Read().kind, Kind::kLate);
  client_.set_timeout(milliseconds(400));
  EXPECT_EQ(Text(client_.Upload(1, 0x1008, 0)), "Simulated drive " + GetParam().name);
}

class SdoProcessTest : public bus::BusTest {};

TEST_F(SdoProcessTest, CtrlCEndsALongWriteInTheNodeToo) {
  bus::FarEnd node("can1");
  node.Expect("601#210020010A000000").Reply("581#6000200100000000");
  node.ExpectAll({"601#0061626364656667", "601#8000200100000008"});
  Process process({"sdo", "write", "1", "0x2000", "1", "str", "abcdefghij", "--timeout", "10000"});
  ASSERT_TRUE(node.WaitFrames(2, std::chrono::seconds(20)));
  process.Signal(SIGINT);
  EXPECT_EQ(process.Wait(), 1);
  EXPECT_TRUE(node.WaitScript());
  EXPECT_TRUE(Contains(process.Err(), "interrupted, and ended with abort code 0x08000000"))
      << process.Err();
}

}  // namespace
}  // namespace motorctl
