// What the commands of motorctl make of texts, long values, refusals and slow nodes.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "bus_environment.h"
#include "motorctl_process.h"
#include "simulated.h"

namespace {

class EveryMakeSdoTest : public bus::BusTest, public ::testing::WithParamInterface<tested::Make> {
 protected:
  const std::string make_ = GetParam().name;
};

INSTANTIATE_TEST_SUITE_P(Makes, EveryMakeSdoTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(EveryMakeSdoTest, ShowsNamesAndVersions) {
  sim::SimulatedDrive drive(Options(make_));
  const std::string name = "Simulated drive " + make_;
  EXPECT_EQ(Motorctl({"sdo", "read", "1", "0x1008", "0"}).out, name + "\n");
  const Json read = Motorctl({"sdo", "read", "1", "0x1008", "0", "--json"}).Objects().at(0);
  EXPECT_EQ(read["value"], name);
  EXPECT_EQ(read["size"], name.size());
  EXPECT_EQ(read["type"], "str");

  const Result info = Motorctl({"info", "1"});
  EXPECT_TRUE(Contains(info.out, "0x1008:00  Manufacturer device name         " + name + "\n"))
      << info.out;
  std::string texts;
  for (const Json& object : Motorctl({"info", "1", "--json"}).Objects()) {
    if (object["value"].is_string()) texts += object["value"].get<std::string>() + ";";
  }
  const std::string hardware = drive.ReadText(0x1009, 0);
  const std::string software = drive.ReadText(0x100A, 0);
  EXPECT_EQ(texts, name + ";" + hardware + ";" + software + ";");

  const Result scan = Motorctl({"scan", "--to", "1"});
  EXPECT_TRUE(Contains(scan.out, "  " + name + ", " + hardware + ", " + software + "\n"))
      << scan.out;
  const Json found = Motorctl({"scan", "--to", "1", "--json"}).Objects().at(0);
  EXPECT_EQ(found["device_name"], name);
  EXPECT_EQ(found["hardware_version"], hardware);
  EXPECT_EQ(found["software_version"], software);
}

// A drive that refuses is never said not to have answered.
TEST_P(EveryMakeSdoTest, ARefusalIsNoSilence) {
  sim::SimulatedDrive drive(Options(make_));
  for (const char* index : {"0x1000", "0x6040"}) {
    SCOPED_TRACE(index);
    drive.Inject(std::string("abort-object=") + index);
    for (const Arguments& line :
         {Arguments{"doctor", "1", "--make", make_}, Arguments{"info", "1", "--make", make_},
          Arguments{"bring-up", "1", "--make", make_}}) {
      const Result result = Motorctl(line);
      const std::string text = result.out + result.err;
      EXPECT_FALSE(Contains(text, "not answer")) << text;
      // Of the many objects of a set-up, a machine that stalls may make another one late.
      const bool only_this = line.front() == "bring-up";
      std::istringstream lines(text);
      for (std::string said; std::getline(lines, said);) {
        const bool concerned = !only_this || Contains(said, index);
        EXPECT_FALSE(concerned && Contains(said, "no answer")) << said;
      }
    }
    drive.ClearFaults();
  }
}

class SdoCommandsTest : public bus::BusTest {};

TEST_F(SdoCommandsTest, WritesAndReadsLongValues) {
  sim::SimulatedDrive drive(Options("zl"));
  const Arguments read = {"sdo", "read", "1", "0x2030", "0"};
  const auto written = [](const char* type, const char* value) {
    const Result result = Motorctl({"sdo", "write", "1", "0x2030", "0", type, value});
    EXPECT_EQ(result.err, "motorctl: written\n");
    return result.status;
  };
  EXPECT_EQ(written("str", "left front wheel"), 0);
  EXPECT_EQ(drive.ReadText(0x2030, 0), "left front wheel");
  EXPECT_EQ(Motorctl(read).out, "6C 65 66 74 20 66 72 6F 6E 74 20 77 68 65 65 6C\n");
  EXPECT_EQ(Motorctl({"sdo", "read", "1", "0x2030", "0", "str"}).out, "left front wheel\n");
  const Result number = Motorctl({"sdo", "read", "1", "0x2030", "0", "u32"});
  EXPECT_EQ(number.status, 1);
  EXPECT_TRUE(Contains(number.err, "16 bytes, u32 has 4: read it as hex or str")) << number.err;
  const Json json = Motorctl({"sdo", "read", "1", "0x2030", "0", "u32", "--json"}).Objects().at(0);
  EXPECT_EQ(json["ok"], false);
  EXPECT_EQ(json["value"], nullptr);

  // As it is printed, it can be written.
  EXPECT_EQ(written("hex", "61 62 63 64 65 00"), 0);
  EXPECT_EQ(drive.ReadText(0x2030, 0), std::string("abcde\0", 6));
  EXPECT_EQ(Motorctl(read).out, "61 62 63 64 65 00\n");
  EXPECT_EQ(Motorctl({"sdo", "read", "1", "0x2030", "0", "str"}).out, "abcde\n");
  EXPECT_EQ(written("hex", "0x1B5B316D41"), 0);
  EXPECT_EQ(drive.ReadText(0x2030, 0), "\x1b[1mA");
  EXPECT_EQ(Motorctl({"sdo", "read", "1", "0x2030", "0", "str"}).out, "\\x1B[1mA\n");
  EXPECT_EQ(written("hex", "616263"), 0);
  EXPECT_EQ(drive.ReadText(0x2030, 0), "cba") << "a number";
  EXPECT_EQ(written("hex", "61 62"), 0);
  EXPECT_EQ(drive.ReadText(0x2030, 0), "ab") << "bytes";
  EXPECT_EQ(written("str", ""), 0);
  EXPECT_EQ(Motorctl(read).out, "\n");
  const Result too_long =
      Motorctl({"sdo", "write", "1", "0x2030", "0", "str", std::string(65, 'x')});
  EXPECT_EQ(too_long.status, 1);
  EXPECT_TRUE(Contains(too_long.err, "0x06070012: Data type does not match, too long"));
}

TEST_F(SdoCommandsTest, SlowNodesAreFoundAndNamed) {
  sim::SimulatedDrive::Options options = Options("zl");
  options.node_id = 2;
  sim::SimulatedDrive drive(options);
  const Arguments scan = {"scan", "--from", "1", "--to", "5", "--json"};
  drive.Inject("delay-replies-ms=95");
  const Result slow = Motorctl(scan);
  EXPECT_TRUE(Contains(slow.err, "motorctl: 1 node answers\n")) << slow.err;
  EXPECT_EQ(slow.Objects().at(0)["device_name"], "Simulated drive zl");
  drive.ClearFaults();
  drive.Inject("delay-replies-ms=150");
  const Result late = Motorctl(scan);
  EXPECT_TRUE(Contains(late.err, "motorctl: node 2 answered after 1")) << late.err;
  EXPECT_TRUE(Contains(late.err, "too late for 100 ms; --timeout waits longer")) << late.err;
  EXPECT_EQ(late.Objects().at(0)["device_name"], "Simulated drive zl");
  EXPECT_EQ(late.status, 0);

  const Arguments write = {"sdo", "write", "2", "0x1017", "0", "u16", "500"};
  EXPECT_EQ(Motorctl(write).status, 0) << "the usual time is enough";
  Arguments hasty = write;
  hasty.back() = "700";
  hasty.insert(hasty.end(), {"--timeout", "100", "--json"});
  const Result written = Motorctl(hasty);
  EXPECT_EQ(written.status, 1);
  EXPECT_TRUE(Contains(written.err, "too late for 100 ms; it was written; --timeout waits longer"))
      << written.err;
  EXPECT_GE(written.Objects().at(0)["late_ms"].get<int>(), 140);
  EXPECT_EQ(drive.ReadObject(0x1017, 0), 700U);
  Arguments patient = {"--timeout", "2000"};
  patient.insert(patient.end(), write.begin(), write.end());
  EXPECT_EQ(Motorctl({"sdo", "--timeout", "2000", "read", "2", "0x1017", "0"}).out, "0x02BC\n");
}

// One transfer that is refused, silent or odd costs the next process nothing.
TEST_F(SdoCommandsTest, NothingStaysOpenInANode) {
  sim::SimulatedDrive drive(Options("tt"));
  for (const char* fault : {"wrong-toggle=1", "wrong-size=3", "ignore-segment=1"}) {
    drive.Inject(fault);
    const Result read = Motorctl({"sdo", "read", "1", "0x100A", "0"});
    const bool repeated = Contains(fault, "ignore");
    EXPECT_EQ(read.status, repeated ? 0 : 1) << fault << read.err;
    drive.ClearFaults();
    EXPECT_EQ(Motorctl({"sdo", "read", "1", "0x1018", "2"}).out, "0x00000002\n") << fault;
  }
}

TEST_F(SdoCommandsTest, DoctorReadsRegisterAndHistory) {
  sim::SimulatedDrive drive(Options("zl"));
  const auto check = [](const Result& result, const std::string& name) {
    for (const Json& object : result.Objects()) {
      if (object["check"] == name) {
        return object["result"].get<std::string>() + ": " + object["finding"].get<std::string>();
      }
    }
    return std::string();
  };
  const Result good = Motorctl({"doctor", "1", "--json"});
  EXPECT_EQ(check(good, "error register"), "ok: none (0x1001)");
  EXPECT_EQ(check(good, "error history"), "ok: empty (0x1003)");
  drive.LatchError(0x2310);
  drive.LatchError(0x3210);
  const Result bad = Motorctl({"doctor", "1", "--json"});
  EXPECT_EQ(check(bad, "error register"), "failed: 0x05, generic, voltage");
  EXPECT_EQ(check(bad, "error history"),
            "warning: 2 errors: 0x3210, DC link over voltage; 0x2310, Continuous over current");
  EXPECT_EQ(bad.status, 1);
  drive.Inject("abort-object=0x1003/0x06020000");
  drive.Inject("abort-object=0x1001");
  const Result refused = Motorctl({"doctor", "1", "--json"});
  EXPECT_EQ(check(refused, "error history"), "ok: the node keeps none (0x1003)");
  EXPECT_EQ(check(refused, "error register"),
            "warning: 0x1001: refused with abort code 0x08000000: General error");
  drive.ClearFaults();
  drive.Inject("ignore-object=0x1003:1");
  EXPECT_TRUE(Contains(check(Motorctl({"doctor", "1", "--json"}), "error history"),
                       "2 errors: no answer within 250 ms; 0x2310"));
}

}  // namespace
