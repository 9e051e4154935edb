// The commands of motorctl that turn nothing, against every simulated make.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <string>

#include "bus_environment.h"
#include "motorctl_process.h"
#include "simulated.h"

namespace {

class EveryMakeTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {
 protected:
  const std::string make_ = GetParam().name;
};

INSTANTIATE_TEST_SUITE_P(Makes, EveryMakeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(EveryMakeTest, ScanNamesTheNodeThatAnswers) {
  sim::SimulatedDrive::Options options = Options(make_, 50);
  options.node_id = 3;
  sim::SimulatedDrive drive(options);
  const Result json = Motorctl({"scan", "--json", "--from", "2", "--to", "4"});
  EXPECT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(json.err, "motorctl: 1 node answers\n");
  const std::vector<Json> objects = json.Objects();
  ASSERT_EQ(objects.size(), 1U);
  EXPECT_EQ(objects[0]["node"], 3);
  EXPECT_EQ(objects[0]["device_type"].get<unsigned>() & 0xFFFFU, 402U);
  EXPECT_EQ(objects[0]["product_code"], drive.ReadObject(0x1018, 2));
  EXPECT_EQ(objects[0]["serial_number"], 3);
  EXPECT_EQ(objects[0]["nmt_state"], "pre-operational");
}

TEST_P(EveryMakeTest, InfoShowsIdentityAndState) {
  sim::SimulatedDrive drive(Options(make_));
  const Result text = Motorctl({"info", "1", "--make", make_});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_TRUE(Contains(text.out, "0x6041:00  Statusword")) << text.out;
  std::map<int, Json> values;
  for (const Json& object : Motorctl({"--json", "info", "1", "--make", make_}).Objects()) {
    values[object["index"].get<int>() * 256 + object["sub"].get<int>()] = object["value"];
    EXPECT_FALSE(object["object"].get<std::string>().empty());
  }
  EXPECT_EQ(values[0x101802], drive.ReadObject(0x1018, 2));
  EXPECT_EQ(values[0x603F00], 0);
  for (const tested::TargetVelocity& target : GetParam().target_velocities) {
    EXPECT_EQ(values.count(target.index * 256 + target.sub_index), 1U);
  }
}

TEST_P(EveryMakeTest, ReadsAndWritesObjects) {
  const sim::SimulatedDrive drive(Options(make_));
  EXPECT_EQ(Motorctl({"sdo", "write", "1", "0x1017", "0", "u16", "1500"}).status, 0);
  const Result read = Motorctl({"sdo", "read", "1", "0x1017", "0", "u16"});
  EXPECT_EQ(read.status, 0);
  EXPECT_EQ(read.out, "1500\n");
  EXPECT_EQ(Motorctl({"sdo", "read", "1", "4119", "0"}).out, "0x05DC\n");
  const Result json = Motorctl({"sdo", "read", "1", "0x1017", "0", "u16", "--json"});
  ASSERT_EQ(json.Objects().size(), 1U);
  EXPECT_EQ(json.Objects()[0]["value"], 1500);
  EXPECT_EQ(json.Objects()[0]["size"], 2);

  const Result refused = Motorctl({"sdo", "write", "1", "0x1018", "2", "u32", "7"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.out, "");
  EXPECT_TRUE(Contains(refused.err, "abort code 0x06010002: Attempt to write a read-only object"))
      << refused.err;
  const Result absent = Motorctl({"sdo", "read", "1", "0x5FFF", "0", "--json"});
  EXPECT_EQ(absent.status, 1);
  ASSERT_EQ(absent.Objects().size(), 1U);
  EXPECT_EQ(absent.Objects()[0]["abort_code"], 0x06020000);
  EXPECT_EQ(absent.Objects()[0]["value"], nullptr);
}

TEST_P(EveryMakeTest, BringUpEnablesAtZeroSpeed) {
  sim::SimulatedDrive drive(Options(make_));
  const Result result = Motorctl({"bring-up", "1", "--make", make_, "--period", "20", "--json"});
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  ASSERT_EQ(result.Objects().size(), 1U) << result.out;
  const Json object = result.Objects()[0];
  EXPECT_EQ(object["ok"], true);
  EXPECT_EQ(object["nmt_state"], "operational");
  EXPECT_EQ(object["failed_writes"], Json::array());
  EXPECT_EQ(object["statusword"].get<unsigned>() & 0x6FU, 0x27U);
  EXPECT_EQ(drive.State(), sim::NmtState::kOperational);
  EXPECT_EQ(drive.Statusword() & 0x6FU, 0x27U);
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

TEST_P(EveryMakeTest, BringUpNamesTheWritesThatFail) {
  sim::SimulatedDrive drive(Options(make_));
  drive.Inject("abort-object=0x6060/0x06090030");
  // The first write of a TPDO's communication record: "601#2B0018" and the sub-index.
  const auto step = std::find_if(
      GetParam().script.begin(), GetParam().script.end(),
      [](const SetUpStep& row) { return std::string(row.frame).substr(6, 4) == "0018"; });
  ASSERT_NE(step, GetParam().script.end());
  const std::string sub = std::string(step->frame).substr(11, 1);
  drive.Inject("ignore-object=0x1800:" + sub);
  const Result result = Motorctl({"--make", make_, "bring-up", "1"});
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(Contains(
      result.out, "failed: 0x6060 sub 0 (Modes of operation): refused with abort code 0x06090030"))
      << result.out;
  EXPECT_TRUE(Contains(result.out, "failed: 0x1800 sub " + sub)) << result.out;
  EXPECT_TRUE(Contains(result.out, "no answer"));
  EXPECT_TRUE(Contains(result.out, "not brought up")) << result.out;
}

TEST_P(EveryMakeTest, MonitorShowsStateErrorAndSpeed) {
  sim::SimulatedDrive drive(Options(make_));
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", make_, "--period", "20"}).status, 0);
  bus::Command("cansend can0 " + GetParam().backwards);
  const Result result = Motorctl({"monitor", "1", "--once", "--poll", "--make", make_, "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  const std::vector<Json> objects = result.Objects();
  ASSERT_EQ(objects.size(), 2U) << result.out;
  EXPECT_EQ(objects[0]["event"], "bus");
  EXPECT_GT(objects[0]["frames_per_s"].get<double>(), 5.0);
  EXPECT_EQ(objects[0]["bus_load_percent"], nullptr);  // a virtual bus has no bit rate
  EXPECT_EQ(objects[1]["nmt_state"], "operational");
  const Json motor = objects[1]["motors"][0];
  EXPECT_EQ(motor["statusword"].get<unsigned>() & 0x6FU, 0x27U);
  EXPECT_EQ(motor["error_code"], 0);
  EXPECT_NEAR(std::abs(motor["rpm"].get<double>()), 60, 6) << result.out;

  drive.LatchError(0x2310);
  const Result text = Motorctl({"monitor", "--once", "--poll", "--make", make_});
  EXPECT_TRUE(Contains(text.out, "Fault")) << text.out;
  EXPECT_TRUE(Contains(text.out, "error 0x2310 Continuous over current")) << text.out;
}

// A host that does not hear itself turns the wheel.
TEST_P(EveryMakeTest, MonitorShowsWhatTheHostCommands) {
  sim::SimulatedDrive drive(Options(make_));
  Process jog({"jog", "1", "--make", make_, "--rpm", "30", "--seconds", "60", "--yes"});
  ASSERT_TRUE(Eventually([&] { return std::abs(drive.SpeedRpm()) > 25; })) << jog.Err();
  const std::vector<Json> objects =
      Motorctl({"monitor", "1", "--once", "--make", make_, "--json"}).Objects();
  jog.Signal(SIGINT);
  ASSERT_EQ(objects.size(), 2U);
  const Json& bus = objects[0];
  EXPECT_GT(bus["sent_frames_per_s"].get<double>(), 5.0);
  EXPECT_GT(bus["frames_per_s"].get<double>(), bus["sent_frames_per_s"].get<double>() + 5);
  EXPECT_GT(bus["bits_per_s"].get<double>(), 50 * bus["frames_per_s"].get<double>());
  const Json& motor = objects[1]["motors"][0];
  EXPECT_EQ(motor["target_rpm"], 30.0) << objects[1];
  EXPECT_NEAR(motor["rpm"].get<double>(), 30, 6);
  jog.Wait();
}

TEST_P(EveryMakeTest, DoctorFindsNothingWrongAfterABringUp) {
  sim::SimulatedDrive drive(Options(make_));
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", make_, "--period", "20"}).status, 0);
  const Result result = Motorctl({"doctor", "1", "--make", make_, "--json"});
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_EQ(result.err, "motorctl: nothing is wrong\n");
  EXPECT_GE(result.Objects().size(), 11U);
  for (const Json& object : result.Objects()) {
    EXPECT_EQ(object["result"], "ok") << object;
    EXPECT_EQ(object["remedy"], nullptr);
  }
}

class CommandsTest : public bus::BusTest {};

TEST_F(CommandsTest, MonitorCountsErrorFramesByWhatTheyTell) {
  std::thread sender([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    bus::Command(
        "for i in 1 2; do cansend can1 20000008#0000080000000000; done; "
        "cansend can1 20000040#0000000000000000");
  });
  const Json bus = Motorctl({"monitor", "--once", "--seconds", "5", "--json"}).Objects().at(0);
  sender.join();
  EXPECT_EQ(bus["error_frames"], 3);
  ASSERT_EQ(bus["errors"].size(), 2U) << bus;
  for (const auto& [text, count] : bus["errors"].items()) {
    const bool off = Contains(text, "bus off");
    EXPECT_TRUE(off || Contains(text, "protocol violation")) << text;
    EXPECT_EQ(count, off ? 1 : 2) << text;
  }
}

TEST_F(CommandsTest, MonitorSaysWhatItMayNotHear) {
  const sim::SimulatedDrive drive(Options("zl", 50));
  const std::string out = ::testing::TempDir() + "/unheard";
  bus::Command(
      "setpriv --bounding-set -net_raw --inh-caps -net_raw " MOTORCTL " monitor --once > " + out);
  std::ostringstream text;
  text << std::ifstream(out).rdbuf();
  EXPECT_TRUE(Contains(text.str(), "what this machine sends is not heard (CAP_NET_RAW)"))
      << text.str();
  EXPECT_TRUE(Contains(text.str(), "node 1: ")) << text.str();
}

TEST_F(CommandsTest, MonitorTakesTextsFromTheConfigurationOfKinco) {
  sim::SimulatedDrive drive(Options("kinco", 100));
  drive.LatchError(0x2310);
  const std::string file = ::testing::TempDir() + "/texts.yaml";
  std::ofstream(file) << "err_code:\n  - {code: 0x2310, err_code: 1, msg: \"too much of it\"}\n";
  const Result result =
      Motorctl({"monitor", "1", "--once", "--poll", "--make", "kinco", "--config", file});
  EXPECT_TRUE(Contains(result.out, "error 0x2310 too much of it")) << result.out;
  EXPECT_EQ(Motorctl({"monitor", "--once", "--config", "/absent"}).status, 1);
}

TEST_F(CommandsTest, ATerminalIsRedrawnAndAPipeIsNot) {
  const sim::SimulatedDrive drive(Options("zl", 50));
  Process live({"monitor"}, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(live.Out(), "\x1b[2A"); })) << live.Out();
  live.Signal(SIGINT);
  EXPECT_EQ(live.Wait(), 0);
  EXPECT_TRUE(Contains(live.Out(), "node 1: pre-operational"));

  Process plain({"monitor"});
  EXPECT_TRUE(Eventually([&] { return Contains(plain.Out(), "node 1: pre-operational"); }));
  plain.Signal(SIGTERM);
  EXPECT_EQ(plain.Wait(), 0);
  EXPECT_FALSE(Contains(plain.Out(), "\x1b"));

  Process scan({"scan", "--to", "3"}, Output::kTerminal);
  EXPECT_EQ(scan.Wait(), 0);
  EXPECT_TRUE(Contains(scan.Out(), "\r[#")) << scan.Out();
}

// Objects that move or enable, as a drive's manual lists them.
TEST_F(CommandsTest, ObjectsThatTurnWheelsNeedAYes) {
  sim::SimulatedDrive drive(Options("zl"));
  for (const char* index : {"0x60FF", "0x2FF0", "0x6071", "0x607A", "0x6040", "0x6060"}) {
    const Result refused = Motorctl({"sdo", "write", "1", index, "0", "u16", "0"});
    EXPECT_EQ(refused.status, 2) << index;
    EXPECT_TRUE(Contains(refused.err, "nothing was written")) << refused.err;
  }
  EXPECT_EQ(drive.Received().sdo, 0U);
  EXPECT_EQ(Motorctl({"sdo", "write", "1", "0x6040", "0", "u16", "6", "--yes"}).status, 0);
  EXPECT_EQ(drive.Received().sdo, 1U);

  const Arguments write = {"sdo", "write", "1", "0x60FF", "1", "i32", "100"};
  Process refused(write, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(refused.Out(), "[y/N]"); }));
  refused.Type("n\n");
  EXPECT_EQ(refused.Wait(), 1);
  EXPECT_EQ(drive.ReadObject(0x60FF, 1), 0U);
  Process written(write, Output::kTerminal);
  EXPECT_TRUE(Eventually([&] { return Contains(written.Out(), "[y/N]"); }));
  written.Type("y\n");
  EXPECT_EQ(written.Wait(), 0);
  EXPECT_EQ(drive.ReadObject(0x60FF, 1), 100U);
}

TEST_F(CommandsTest, SilenceIsAFailure) {
  const Result scan = Motorctl({"scan", "--to", "2"});
  EXPECT_EQ(scan.status, 1);
  EXPECT_EQ(scan.out, "");
  const Result info = Motorctl({"info", "5"});
  EXPECT_EQ(info.status, 1);
  EXPECT_TRUE(Contains(info.err, "no answer")) << info.err;
  EXPECT_EQ(Motorctl({"sdo", "read", "5", "0x1000", "0"}).status, 1);
  EXPECT_EQ(Motorctl({"monitor", "--seconds", "0.5", "--once"}).status, 1);
  EXPECT_EQ(Motorctl({"bring-up", "5", "--make", "hls"}).status, 1);
  EXPECT_EQ(Motorctl({"--interface", "can7", "scan"}).status, 1);
}

TEST_F(CommandsTest, AFakeDriveNeedsNoBus) {
  const Arguments fake = {"bring-up", "1", "--make", "fake", "--interface", "none0"};
  const Result result = Motorctl(fake);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "node 1: simulated, there is no drive\n");
  Arguments json = fake;
  json.emplace_back("--json");
  EXPECT_EQ(Motorctl(json).Objects().at(0).at("nmt_state"), nullptr);
}

TEST_F(CommandsTest, WrongUsageEndsWithTwo) {
  const Arguments jog = {"jog", "1", "--make", "zl", "--seconds", "1", "--yes", "--rpm"};
  const auto with = [&jog](const Arguments& more) {
    Arguments all = jog;
    all.insert(all.end(), more.begin(), more.end());
    return all;
  };
  const std::vector<Arguments> wrong = {
      {},
      {"turn"},
      {"scan", "--from", "0"},
      {"scan", "--from", "5", "--to", "4"},
      {"info"},
      {"info", "128"},
      {"info", "x"},
      {"--make", "other", "scan"},
      {"--interface", "a b", "scan"},
      {"--interface", "", "scan"},
      {"--interface", "0123456789abcdef", "scan"},
      {"sdo"},
      {"sdo", "read", "1", "0x10000", "0"},
      {"sdo", "read", "1", "0x1000", "256"},
      {"sdo", "read", "1", "0x1000", "0", "u64"},
      {"sdo", "read", "1", "0x1000", "0", "--timeout", "0"},
      {"sdo", "read", "1", "0x1000", "0", "--timeout", "10001"},
      {"scan", "--timeout", "x"},
      {"sdo", "write", "1", "0x1000", "0", "hex", ""},
      {"sdo", "write", "1", "0x1000", "0", "hex", "0102030405g0"},
      {"sdo", "write", "1", "0x1000", "0", "u8", "256"},
      {"sdo", "write", "1", "0x1000", "0", "i8", "-129"},
      {"sdo", "write", "1", "0x1000", "0", "u16", "1x"},
      {"sdo", "write", "1", "0x1000", "0", "hex", "123"},
      {"sdo", "write", "1", "0x1000", "0", "u8"},
      {"bring-up", "1"},
      {"bring-up", "--make", "zl"},
      {"monitor", "--seconds", "-1"},
      {"monitor", "--seconds", "nan"},
      {"sdo", "write", "1", "0x60FF", "0", "i32", "100"},  // no --yes, no terminal
      {"vehicle"},
      {"vehicle", "check"},
      {"jog", "1", "--rpm", "10", "--seconds", "1", "--yes"},
      {"jog", "1", "--make", "zl", "--rpm", "10", "--seconds", "1"},  // no --yes, no terminal
      with({"nan"}),
      with({"1e9"}),
      with({"101"}),
      with({"-101"}),
      with({"99999", "--allow-fast"}),
      with({"10", "--rpm2", "200"}),
      with({"10", "--seconds", "nan"}),
      with({"10", "--ramp", "nan"}),
      with({"10", "--ramp", "inf"}),
      with({"10", "--ramp", "0"}),
      with({"10", "--ramp", "-1"}),
      {"jog", "1", "--make", "zl", "--rpm", "10", "--yes", "--seconds", "inf"},
      {"jog", "1", "--make", "zl", "--rpm", "10", "--yes", "--seconds", "-1"},
      {"jog", "1", "--make", "zl", "--rpm", "10", "--yes", "--seconds", "1e300"},
      {"jog", "1", "--make", "tt", "--rpm", "10", "--rpm2", "5", "--yes", "--seconds", "1"},
      {"jog", "1", "--make", "fake", "--rpm", "10", "--yes", "--seconds", "1"}};
  for (const Arguments& arguments : wrong) {
    const Result result = Motorctl(arguments);
    std::string line;
    for (const std::string& word : arguments) line += " " + word;
    EXPECT_EQ(result.status, 2) << line;
    EXPECT_EQ(result.out, "") << line;
    EXPECT_FALSE(result.err.empty()) << line;
  }
}

TEST_F(CommandsTest, HelpAndVersionEverywhere) {
  for (const char* command : {"doctor", "scan", "info", "sdo", "bring-up", "jog", "monitor"}) {
    EXPECT_EQ(Motorctl({command, "--help"}).status, 0) << command;
    EXPECT_EQ(Motorctl({command, "--version"}).out, "motorctl " MOTORCTL_VERSION "\n") << command;
  }
}

}  // namespace
