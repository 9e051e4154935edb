// motorctl config restore when something goes wrong in the middle.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "config_bench.h"

namespace {

using Where = std::pair<std::uint16_t, std::uint8_t>;

const std::vector<Where> kTouched = {{0x1017, 0}, {0x1801, 1}, {0x1801, 2}, {0x1801, 5},
                                     {0x1A01, 0}, {0x1A01, 1}, {0x2012, 1}, {0x2012, 2}};
constexpr int kWrites = 9;  // of a whole restore
constexpr int kUnused = 6;  // of these: a mapped object behind the number of those in use

using Values = std::map<Where, std::uint32_t>;

Values Held(sim::SimulatedDrive& drive) {
  Values held;
  for (const Where& where : kTouched) held[where] = drive.ReadObject(where.first, where.second);
  return held;
}

class RestoreFaultsTest : public ConfigBench {
 protected:
  RestoreFaultsTest() {
    SetUpDrive();
    EXPECT_EQ(Save().status, 0);
    saved_ = Held(*drive_);
    Change();
    changed_ = Held(*drive_);
  }

  void SetUpDrive() {
    drive_ = std::make_unique<sim::SimulatedDrive>(Options("zl"));
    drive_->WriteObject(0x1017, 0, 500);
    drive_->WriteObject(0x2012, 1, 100);
    drive_->WriteObject(0x2012, 2, 200);
  }

  // As another engineer would have left it.
  void Change() {
    for (const auto& [index, sub, value] :
         std::vector<std::tuple<std::uint16_t, std::uint8_t, std::uint32_t>>{
             {0x1017, 0, 0},
             {0x1801, 1, 0x80000281},
             {0x1A01, 0, 0},
             {0x1A01, 1, 0x60610008},
             {0x1A01, 0, 1},
             {0x1801, 2, 1},
             {0x1801, 5, 20},
             {0x1801, 1, 0x00000282},
             {0x2012, 1, 7},
             {0x2012, 2, 8}}) {
      EXPECT_EQ(drive_->WriteObject(index, sub, value), sim::AbortCode::kNone) << std::hex << index;
    }
  }

  Arguments Line() const { return {"config", "restore", file_, "1", "--yes"}; }

  // Restored, as it was, or every object that is neither is named.
  void ExpectWholeOrNamed(int status, const std::string& err, const std::string& what) {
    const Values now = Held(*drive_);
    if (status == 0) {
      EXPECT_EQ(now, saved_) << what << err;
      return;
    }
    for (const Where& where : kTouched) {
      char name[16];
      std::snprintf(name, sizeof name, "0X%04X:%02X", unsigned{where.first},
                    unsigned{where.second});
      const bool named = Contains(err, std::string("NOT AS IT WAS: ") + name);
      EXPECT_TRUE(named || now.at(where) == changed_.at(where)) << what << ' ' << name << '\n'
                                                                << err;
      EXPECT_FALSE(!named && now.at(where) != changed_.at(where)) << what;
    }
  }

  std::unique_ptr<sim::SimulatedDrive> drive_;
  Values saved_;
  Values changed_;
};

TEST_F(RestoreFaultsTest, IsAsItWasAfterAnyWriteThatIsRefused) {
  for (int write = 1; write <= kWrites; ++write) {
    drive_->Inject("abort-write=" + std::to_string(write));
    const Result result = Restore();
    drive_->ClearFaults();
    if (write == kUnused) {
      EXPECT_EQ(result.status, 0) << result.err;
      EXPECT_TRUE(Contains(result.err, "the drive refuses it, and nothing uses it")) << result.err;
      Change();
      continue;
    }
    EXPECT_EQ(result.status, 1) << write;
    EXPECT_EQ(Held(*drive_), changed_) << write << result.err;
    EXPECT_TRUE(Contains(result.err, "refused with abort code")) << result.err;
    EXPECT_TRUE(Contains(result.err, "node 1 is as it was before\n")) << result.err;
  }
}

TEST_F(RestoreFaultsTest, RepeatsAnyWriteThatIsLost) {
  for (int write = 1; write <= kWrites; write += 2) {
    drive_->Inject("ignore-write=" + std::to_string(write));
    const Result result = Restore();
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(Held(*drive_), saved_) << write;
    drive_->ClearFaults();
    Change();
  }
}

class RestoreWithFaultTest : public RestoreFaultsTest,
                             public ::testing::WithParamInterface<const char*> {};

TEST_P(RestoreWithFaultTest, IsWholeOrNamesWhatIsNot) {
  drive_->Inject(GetParam());
  const Result result = Restore();
  drive_->ClearFaults();
  ExpectWholeOrNamed(result.status, result.err, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Drive, RestoreWithFaultTest,
    ::testing::Values("abort-object=0x1801:5", "ignore-object=0x1801:5", "abort-value=0x1801:5/0",
                      "abort-value=0x1801:1/0x281", "abort-value=0x2012:2/200",
                      "delay-replies-ms=100", "delay-replies-ms=400", "duplicate-replies",
                      "truncate-replies=5", "wrong-index", "no-size", "error-after-ms=1200/0x2310",
                      "no-heartbeat-after-ms=1100", "emergency-stop-after-ms=1200"));

TEST_F(RestoreFaultsTest, NamesInCapitalsWhatCannotBeWrittenBack) {
  // The identifier is refused in the end, and the old event timer on the way back.
  drive_->Inject("abort-value=0x1801:1/0x281");
  drive_->Inject("abort-value=0x1801:5/20");
  const Result result = Restore();
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(result.err,
                       "*** NOT AS IT WAS: 0X1801:05 (TPDO2 COMMUNICATION: EVENT TIMER) WAS 20 AND "
                       "IS 0 ***"))
      << result.err;
  EXPECT_FALSE(Contains(result.err, "is as it was before")) << result.err;
  Values expected = changed_;
  expected[{0x1801, 5}] = 0;
  EXPECT_EQ(Held(*drive_), expected);
}

TEST_F(RestoreFaultsTest, IsWholeOrAsItWasWheneverItIsInterrupted) {
  const int signals[] = {SIGINT, SIGTERM, SIGHUP};
  int undone = 0;
  drive_->Inject("delay-replies-ms=3");
  std::size_t first = 0;
  {
    const std::size_t before = drive_->Received().sdo;
    const Result result = Restore();
    EXPECT_EQ(result.status, 0) << result.err;
    first = drive_->Received().sdo - before;
    Change();
  }
  // From the first write on, which is about as many requests before the end.
  constexpr std::size_t kLast = 2 * kWrites + 5;
  for (std::size_t at = 0; at <= kLast; at += 2) {
    const std::size_t before = drive_->Received().sdo;
    Process process(Line());
    ASSERT_TRUE(Eventually([&] { return drive_->Received().sdo >= before + first - kLast + at; }));
    process.Signal(signals[at % 3]);
    const int status = process.Wait();
    ASSERT_TRUE(status == 0 || status == 1 || status == -1) << status;
    // The signal may come when all is done, and end the process that has said so.
    const bool is_restored = status == 0 || (status == -1 && Contains(process.Out(), "restored"));
    const Values now = Held(*drive_);
    EXPECT_EQ(now, is_restored ? saved_ : changed_) << at << ' ' << status << process.Err();
    if (is_restored) {
      Change();
    } else if (Contains(process.Err(), "node 1 is as it was before")) {
      ++undone;
    }
  }
  EXPECT_GT(undone, 3);
}

TEST_F(RestoreFaultsTest, IsAsItWasWhenNobodyReadsItsOutput) {
  int ends[2] = {};
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  drive_->Inject("delay-replies-ms=3");
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], 1);
    ::execl(MOTORCTL, MOTORCTL, "config", "restore", file_.c_str(), "1", "--yes", nullptr);
    ::_exit(127);
  }
  ::close(ends[1]);
  // It has shown what it will do when the first writes go out.
  char byte = 0;
  ASSERT_EQ(::read(ends[0], &byte, 1), 1);
  ASSERT_TRUE(Eventually([this] { return drive_->ReadObject(0x1017, 0) == 500; }));
  ::close(ends[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(Held(*drive_), changed_);
}

TEST_F(RestoreFaultsTest, WritesNothingIntoADriveThatTookItsPlace) {
  drive_->Inject("delay-replies-ms=3");
  Process process(Line());
  ASSERT_TRUE(Eventually([this] { return drive_->ReadObject(0x1017, 0) == 500; }));
  drive_.reset();
  sim::SimulatedDrive::Options options = Options("zl");
  options.powered = false;
  sim::SimulatedDrive other(options);
  other.PowerOn();
  other.WriteObject(0x1018, 4, 77);
  const sim::ReceivedFrames before = other.Received();
  bus::FarEnd record;
  EXPECT_EQ(process.Wait(), 1);
  EXPECT_TRUE(Contains(process.Err(), "this is another drive: its serial number is 0x0000004D"))
      << process.Err();
  EXPECT_TRUE(Contains(process.Err(), "NOT AS IT WAS: 0X1017:00")) << process.Err();
  EXPECT_GT(other.Received().sdo, before.sdo);
  EXPECT_EQ(other.ReadObject(0x1017, 0), 0U);
  EXPECT_EQ(other.ReadObject(0x1801, 5), 0U);
}

TEST_F(RestoreFaultsTest, WritesBackIntoADriveThatBootedUp) {
  drive_->Inject("delay-replies-ms=3");
  Process process(Line());
  ASSERT_TRUE(Eventually([this] { return drive_->ReadObject(0x2012, 1) == 100; }));
  drive_->PowerCut();
  drive_->PowerOn();
  EXPECT_EQ(process.Wait(), 1);
  EXPECT_TRUE(Contains(process.Err(), "booted up in the middle") ||
              Contains(process.Err(), "read back"))
      << process.Err();
  EXPECT_EQ(drive_->ReadObject(0x1017, 0), 0U);
  EXPECT_EQ(drive_->ReadObject(0x2012, 1), 7U);
}

TEST_F(RestoreFaultsTest, NamesEverythingOfADriveThatVanished) {
  drive_->Inject("delay-replies-ms=3");
  Process process(Line());
  ASSERT_TRUE(Eventually([this] { return drive_->ReadObject(0x2012, 1) == 100; }));
  drive_->PowerCut();
  EXPECT_EQ(process.Wait(), 1);
  EXPECT_TRUE(Contains(process.Err(), "the drive answers no longer")) << process.Err();
  for (const char* object : {"0X1017:00", "0X2012:01"}) {
    EXPECT_TRUE(Contains(process.Err(), std::string("NOT AS IT WAS: ") + object)) << process.Err();
  }
}

TEST_F(RestoreFaultsTest, StopsWhenAnotherHostBegins) {
  drive_->Inject("delay-replies-ms=5");
  Process process(Line());
  ASSERT_TRUE(Eventually([this] { return drive_->ReadObject(0x1017, 0) == 500; }));
  bus::FarEnd("can1").Send("201#0000000000000000");
  EXPECT_EQ(process.Wait(), 1);
  EXPECT_TRUE(Contains(process.Err(), "another host drives node 1: PDO 0x201 comes"))
      << process.Err();
  EXPECT_EQ(Held(*drive_), changed_);
}

}  // namespace
