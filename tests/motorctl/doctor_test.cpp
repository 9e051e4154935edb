// motorctl doctor: what it finds wrong, and that it says what to do.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "bus_environment.h"
#include "motorctl_process.h"
#include "simulated.h"

namespace {

class DoctorTest : public bus::BusTest {
 protected:
  // A program ip that tells what real hardware would.
  std::string IpThatPrints(const std::string& json) {
    const std::string directory = ::testing::TempDir() + "/ip";
    std::filesystem::create_directories(directory);
    std::ofstream(directory + "/ip") << "#!/bin/sh\ncat <<'END'\n" << json << "\nEND\n";
    ::chmod((directory + "/ip").c_str(), 0755);
    return directory;
  }
  std::string Hardware(const std::string& data, int queue = 10) {
    return R"([{"ifname":"can0","flags":["NOARP","UP","LOWER_UP"],"txqlen":)" +
           std::to_string(queue) +
           R"(,"link_type":"can","linkinfo":{"info_kind":"can","info_data":{)" + data + "}}}]";
  }
  // The one check of this name.
  Json Check(const Result& result, const std::string& name) {
    Json found;
    for (const Json& object : result.Objects()) {
      if (object["check"] == name) found = object;
    }
    EXPECT_FALSE(found.is_null()) << name << " in\n" << result.out;
    return found.is_null() ? Json::object() : found;
  }
  void ExpectFault(const Result& result, const std::string& check, const std::string& verdict,
                   const std::string& finding) {
    const Json object = Check(result, check);
    EXPECT_EQ(object.value("result", ""), verdict) << result.out;
    EXPECT_TRUE(Contains(object.value("finding", ""), finding)) << result.out;
    EXPECT_TRUE(object.contains("remedy") && object["remedy"].is_string()) << result.out;
    EXPECT_EQ(result.status, verdict == "failed" ? 1 : result.status);
  }
};

TEST_F(DoctorTest, NamesWhatIsWrongWithTheInterface) {
  ExpectFault(Motorctl({"doctor", "--json", "--interface", "can7"}), "interface", "failed",
              "no can7");
  ExpectFault(Motorctl({"doctor", "--json", "--interface", "lo"}), "interface", "failed",
              "not a CAN interface");
  bus::Command("ip link add vcan7 type vcan && ip link set vcan7 up");
  ExpectFault(Motorctl({"doctor", "--json", "--interface", "vcan7"}), "virtual", "warning", "vcan");
  bus::Command("ip link delete vcan7");
  bus::SetDown("can0");
  ExpectFault(Motorctl({"doctor", "--json"}), "up", "failed", "down");
}

TEST_F(DoctorTest, NamesWhatTheKernelTellsOfHardware) {
  const std::string poor = IpThatPrints(Hardware(R"("state":"ERROR-PASSIVE",)"
                                                 R"("berr_counter":{"tx":128,"rx":3},)"
                                                 R"("restart_ms":0)",
                                                 1));
  const Result result = Motorctl({"doctor", "--json"}, poor);
  ExpectFault(result, "bit rate", "failed", "none");
  ExpectFault(result, "restart-ms", "warning", "0");
  ExpectFault(result, "bus state", "warning", "ERROR-PASSIVE, error counters: transmit 128");
  ExpectFault(result, "txqueuelen", "warning", "1");
  const std::string off = IpThatPrints(
      Hardware(R"("state":"BUS-OFF","restart_ms":100,"bittiming":{"bitrate":500000})"));
  ExpectFault(Motorctl({"doctor", "--json"}, off), "bus state", "failed", "BUS-OFF");
  const std::string good = IpThatPrints(
      Hardware(R"("state":"ERROR-ACTIVE","restart_ms":100,"bittiming":{"bitrate":500000})"));
  const Result fine = Motorctl({"doctor", "--json"}, good);
  EXPECT_EQ(Check(fine, "bit rate")["result"], "ok");
  EXPECT_EQ(Check(fine, "bus state")["result"], "ok");
  const sim::SimulatedDrive drive(Options("zl", 10));
  const Result load = Motorctl({"monitor", "--once", "--json"}, good);
  ASSERT_FALSE(load.Objects().empty());
  // 100 frames of some 60 bits a second, which a busy machine may send in bursts.
  EXPECT_NEAR(load.Objects()[0]["bus_load_percent"].get<double>(), 1.2, 0.7);
  EXPECT_EQ(load.Objects()[0]["controller_state"], "ERROR-ACTIVE");
}

TEST_F(DoctorTest, NamesSilenceAndErrorFrames) {
  const Result silent = Motorctl({"doctor", "--json", "9"});
  ExpectFault(silent, "traffic", "warning", "not one frame");
  ExpectFault(silent, "heartbeats", "warning", "none");
  ExpectFault(silent, "sdo", "failed", "node 9 does not answer");
  Process doctor({"doctor", "--json"});
  EXPECT_TRUE(Eventually([&] { return Contains(doctor.Out(), "txqueuelen"); }));
  for (int i = 0; i < 10; ++i) {
    bus::Command("cansend can1 20000008#0000000000000000; sleep 0.05");
  }
  EXPECT_EQ(doctor.Wait(), 1);
  EXPECT_TRUE(Contains(doctor.Out(), "\"error frames\"")) << doctor.Out();
}

TEST_F(DoctorTest, NamesWhatIsWrongWithANode) {
  sim::SimulatedDrive drive(Options("zl"));
  drive.WriteObject(0x1000, 0, 0x00000191);
  drive.Inject("abort-object=0x1018");
  drive.Inject("abort-object=0x2012/0x06020000");
  drive.LatchError(0x2310);
  const Result result = Motorctl({"doctor", "1", "--json", "--make", "zl"});
  EXPECT_EQ(result.status, 1);
  ExpectFault(result, "device type", "failed", "0x00000191");
  ExpectFault(result, "identity", "warning", "0x08000000");
  ExpectFault(result, "objects", "failed", "0x2012 sub 1");
  ExpectFault(result, "heartbeat time", "warning", "0");
  ExpectFault(result, "error code", "failed", "0x2310, Continuous over current");
}

}  // namespace
