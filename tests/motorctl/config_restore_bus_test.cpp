// motorctl config restore, against simulated drives: all of it, or nothing, or what is not is named.
#include <gtest/gtest.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "changed_drive.h"

namespace {

class RestoreTest : public ChangedDriveTest {};

class RestoreMakeTest : public ConfigBench, public ::testing::WithParamInterface<tested::Make> {
 protected:
  const std::string make_ = GetParam().name;
  sim::SimulatedDrive drive_{Options(make_)};
};

INSTANTIATE_TEST_SUITE_P(Makes, RestoreMakeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(RestoreMakeTest, BringsBackEveryByte) {
  const std::map<std::string, std::string> texts = {{"zl", "0x2030"},
                                                    {"tt", "0x2020"},
                                                    {"hls", "0x2500"},
                                                    {"amps", "0x4710"},
                                                    {"kinco", "0x2F00"}};
  const std::string text = texts.at(make_);
  const std::uint8_t motor = make_ == "zl" ? 1 : 0;
  ASSERT_EQ(Motorctl({"sdo", "write", "1", text, "0", "str", "left front wheel"}).status, 0);
  drive_.WriteObject(0x6083, motor, 1500);
  ASSERT_EQ(Save(make_).status, 0);
  const std::string before = ReadText(file_);

  Change(drive_);
  drive_.WriteObject(0x6083, motor, 7);
  drive_.WriteObject(0x605A, 0, 1);
  drive_.WriteObject(0x1017, 0, 77);
  ASSERT_EQ(Motorctl({"sdo", "write", "1", text, "0", "str", "right"}).status, 0);
  const Result restored = Restore();
  EXPECT_EQ(restored.status, 0) << restored.out << restored.err;
  EXPECT_TRUE(Contains(restored.out, "node 1: ")) << restored.out;
  EXPECT_TRUE(Contains(restored.out, " objects restored\n")) << restored.out;
  EXPECT_EQ(drive_.ReadObject(0x605A, 0), 2U);

  ASSERT_EQ(Save(make_).status, 0);
  EXPECT_EQ(WithoutTime(ReadText(file_)), WithoutTime(before));

  bus::FarEnd record;
  const Result again = Restore();
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.err, "motorctl: node 1 holds what the file holds; nothing was written\n");
  EXPECT_EQ(NotReads(record.Frames()), std::vector<std::string>());
}

TEST_F(RestoreTest, WritesAPdoInTheOrderOfCia301) {
  const auto drive = Changed();
  bus::FarEnd record;
  ASSERT_EQ(Restore().status, 0);
  std::vector<std::string> frames;
  for (const std::string& frame : record.Frames()) {
    const bool begun = !frames.empty() || frame.compare(0, 5, "601#2") == 0;
    if (begun && frame.compare(0, 4, "601#") == 0) frames.push_back(frame);
  }
  const std::vector<std::string> expected = {
      "601#2B171000F4010000", "601#4017100000000000",  // the heartbeat, and each is read back
      "601#2301180182020080", "601#4001180100000000",  // invalid, by its identifier of now
      "601#2F011A0000000000", "601#40011A0000000000",  // nothing is mapped
      "601#23011A0100000000", "601#40011A0100000000",  // an object that is not in use
      "601#2F011802FF000000", "601#4001180200000000",  // transmission type
      "601#2B01180500000000", "601#4001180500000000",  // event timer
      "601#2301180181020000", "601#4001180100000000",  // the identifier last
      "601#4017100000000000", "601#4001180100000000", "601#4001180200000000",  // all once more
      "601#4001180500000000", "601#40011A0000000000", "601#40011A0100000000",
      "601#4000100000000000", "601#4018100100000000", "601#4018100200000000",
      "601#4018100300000000", "601#4018100400000000"};  // it is the same drive
  EXPECT_EQ(frames, expected);
  EXPECT_EQ(Held(*drive), saved_);
}

// As every host of the library: what it sends comes back to nobody on its machine.
class UnheardHost {
 public:
  UnheardHost() {
    const int off = 0;
    ::setsockopt(socket_, SOL_CAN_RAW, CAN_RAW_LOOPBACK, &off, sizeof(off));
    sockaddr_can address = {};
    address.can_family = AF_CAN;
    address.can_ifindex = static_cast<int>(::if_nametoindex("can0"));
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  ~UnheardHost() { ::close(socket_); }
  UnheardHost(const UnheardHost&) = delete;
  UnheardHost& operator=(const UnheardHost&) = delete;

  void Send(const std::string& text) const {
    const can_frame frame = bus::ParseFrame(text);
    EXPECT_EQ(::write(socket_, &frame, sizeof(frame)), static_cast<ssize_t>(sizeof(frame)));
  }

 private:
  const int socket_ = ::socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
};

TEST_F(RestoreTest, HearsAHostOfThisMachineThatDoesNotHearItself) {
  const auto drive = Changed();
  const std::vector<std::pair<std::string, std::string>> frames = {
      {"201#0000000000000000", "another host drives node 1: PDO 0x201 comes"},
      // The same that we ask for ourselves.
      {"601#4018100100000000", "another program writes or reads objects of node 1"}};
  for (const auto& [frame, reason] : frames) {
    const UnheardHost host;
    const Result refused = RestoreBeside(host, frame);
    EXPECT_EQ(refused.status, 1) << frame;
    EXPECT_TRUE(Contains(refused.err, reason)) << refused.err;
    EXPECT_EQ(Held(*drive), changed_);
  }
}

TEST_F(RestoreTest, UndoesEverythingWhenAProgramOfThisMachineComesInTheMiddle) {
  const auto drive = Changed();
  drive->Inject("delay-replies-ms=10");
  Process process({"config", "restore", file_, "1", "--yes"});
  ASSERT_TRUE(Eventually([&] { return drive->ReadObject(0x1017, 0) == 500; }));
  // Of another node first, which is none of its business.
  const UnheardHost unheard;
  unheard.Send("602#2B17100000000000");
  unheard.Send("601#4017100000000000");
  EXPECT_EQ(process.Wait(), 1);
  EXPECT_TRUE(
      Contains(process.Err(), "node 1: another program writes or reads objects of node 1\n"))
      << process.Err();
  EXPECT_EQ(Held(*drive), changed_);
}

TEST_F(RestoreTest, ShowsWhatItWillDoAndAsks) {
  const auto drive = Changed();
  const Arguments restore = {"config", "restore", file_, "1"};
  const Result unasked = Motorctl(restore);
  EXPECT_EQ(unasked.status, 2);
  EXPECT_TRUE(Contains(unasked.out, "0x1017:00  Producer heartbeat time  0 -> 500\n"))
      << unasked.out;
  EXPECT_TRUE(Contains(unasked.err, "nothing was written")) << unasked.err;
  EXPECT_EQ(Held(*drive), changed_);
  for (const bool yes : {false, true}) {
    Process asked(restore, Output::kTerminal);
    EXPECT_TRUE(Eventually([&] { return Contains(asked.Out(), "[y/N]"); }));
    asked.Type(yes ? "y\n" : "n\n");
    EXPECT_EQ(asked.Wait(), yes ? 0 : 1) << asked.Out();
    EXPECT_EQ(Held(*drive), yes ? saved_ : changed_);
  }
}

TEST_F(RestoreTest, TellsProgramsWhatItDid) {
  const auto drive = Changed();
  drive->Inject("abort-value=0x1801:1/0x281");
  std::vector<Json> lines = Restore({"--json"}).Objects();
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[0]["event"], "change");
  EXPECT_EQ(lines[0]["index"], 0x1017);
  EXPECT_EQ(lines[0]["drive"], "0");
  EXPECT_EQ(lines[0]["file"], "500");
  EXPECT_EQ(lines[6]["event"], "failed");
  EXPECT_EQ(lines[6]["not_as_they_were"], Json::array());
  drive->ClearFaults();
  lines = Restore({"--json"}).Objects();
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[6]["event"], "restored");
  EXPECT_EQ(lines[6]["objects"], 6);
}

TEST_F(RestoreTest, NeverWritesWhatMoves) {
  const auto drive = Changed();
  drive->WriteObject(0x60FF, 1, 99);
  drive->WriteObject(0x607A, 1, 1000);
  drive->WriteObject(0x6060, 0, 1);
  const Result result = Restore();
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, "stays 99, not 0: it moves, or lets move")) << result.out;
  EXPECT_EQ(drive->ReadObject(0x60FF, 1), 99U);
  EXPECT_EQ(drive->ReadObject(0x607A, 1), 1000U);
  EXPECT_EQ(drive->ReadObject(0x6060, 0), 1U);
}

TEST_F(RestoreTest, TakesAFileToAnotherNode) {
  { const auto drive = Changed(); }
  sim::SimulatedDrive::Options options = Options("zl");
  options.node_id = 3;
  sim::SimulatedDrive other(options);
  other.WriteObject(0x1801, 1, 0x80000283);
  const Result result = Motorctl({"config", "restore", file_, "3", "--yes"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(other.ReadObject(0x1801, 1), 0x283U);
  EXPECT_EQ(other.ReadObject(0x1400, 1), 0x203U);
  EXPECT_EQ(other.ReadObject(0x1017, 0), 500U);
}

TEST_F(RestoreTest, StoresLastAndOnlyWhenToldTo) {
  const auto drive = Changed("tt");
  bus::FarEnd record;
  const Result result = Restore({"--save"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(Contains(result.out, "node 1: stored\n")) << result.out;
  std::vector<std::string> sent;
  for (const std::string& frame : record.Frames()) {
    if (frame.compare(0, 4, "601#") == 0) sent.push_back(frame);
  }
  EXPECT_EQ(sent.back(), "601#2310100173617665");
  EXPECT_EQ(std::count(sent.begin(), sent.end(), sent.back()), 1);

  drive->Inject("abort-value=0x1010:1/0x65766173");
  const Result refused = Restore({"--save"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(Contains(refused.err, "IT DID NOT STORE THEM: refused with abort code"))
      << refused.err;
}

// Between the last comparison and the storing it is asked for once more.
TEST_F(RestoreTest, StoresNothingWhenAnotherProgramCameInTheEnd) {
  const auto drive = Changed("tt");
  bus::FarEnd other("can1");
  Process process({"config", "restore", file_, "1", "--yes", "--save"});
  ASSERT_TRUE(Eventually([&] { return Contains(process.Out(), " objects restored\n"); }));
  other.Send("601#4000100000000000");
  EXPECT_EQ(process.Wait(), 1);
  EXPECT_TRUE(Contains(process.Err(),
                       "*** NODE 1 HOLDS THEM UNTIL IT IS SWITCHED OFF; IT WAS NOT TOLD TO STORE "
                       "THEM: another program writes or reads objects of node 1 ***"))
      << process.Err();
  EXPECT_EQ(Held(*drive), saved_);
  for (const std::string& frame : other.Frames()) {
    EXPECT_NE(frame.compare(0, 12, "601#23101001"), 0) << frame;
  }
}

}  // namespace
