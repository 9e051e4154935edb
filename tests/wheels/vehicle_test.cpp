// Vehicles from files and from programs: every key, every border, every message whole.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wheels.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "processes.h"

namespace {

using motor_driver::LoadVehicle;
using motor_driver::Vehicle;
using motor_driver::VehicleError;
using motor_driver::Wheels;
using std::chrono::milliseconds;

const std::string kBase = "make: zl\nwheels: [{name: left}]\n";
const std::string kKeys =
    "unknown key, there are make, interface, wheels, period_ms, command_timeout_ms, "
    "feedback_timeout_ms, heartbeat_timeout_ms, drive_watchdog_ms, fault_deceleration, max_rpm, "
    "max_acceleration, max_deceleration, counts_per_revolution, texts and realtime_priority";

class VehicleFileTest : public ::testing::Test {
 public:
  VehicleFileTest() {
    std::string name = ::testing::TempDir() + "vehicleXXXXXX";
    directory_ = ::mkdtemp(name.data());
  }
  ~VehicleFileTest() override { std::filesystem::remove_all(directory_); }

 protected:
  std::string Path() const { return directory_ + "/vehicle.yaml"; }

  Vehicle Load(const std::string& text) const {
    std::ofstream(Path(), std::ios::binary) << text;
    return LoadVehicle(Path());
  }

  // What LoadVehicle says about a file, without its name.
  static std::string RefusalOf(const std::string& path) {
    try {
      LoadVehicle(path);
    } catch (const VehicleError& error) {
      const std::string line = error.what();
      EXPECT_EQ(line.find_first_of("\n\r\x1B"), std::string::npos) << "one line: " << line;
      EXPECT_EQ(line.rfind(path + ":", 0), 0U) << line;
      return line.substr(path.size() + 1);
    }
    return "taken";
  }
  std::string Refusal(const std::string& text) const {
    std::ofstream(Path(), std::ios::binary) << text;
    return RefusalOf(Path());
  }

  std::string directory_;
};

// --- What is taken ------------------------------------------------------------------------------

TEST_F(VehicleFileTest, TakesEveryKey) {
  const Vehicle vehicle = Load(R"(# a vehicle
make: kinco
interface: can7
wheels:
  - name: left
    node: 3
    motor: 1
    mirrored: true
    gear_ratio: 12.5
  - {name: "rück wärts", node: 127}
period_ms: 20
command_timeout_ms: 111
feedback_timeout_ms: 222
heartbeat_timeout_ms: 333
drive_watchdog_ms: 0
fault_deceleration: 444.5
max_rpm: 55.5
max_acceleration: 66.5
max_deceleration: 77.5
counts_per_revolution: 4096
texts: sub/texts.yaml
realtime_priority: 88
)");
  EXPECT_EQ(vehicle.make, "kinco");
  EXPECT_EQ(vehicle.interface, "can7");
  ASSERT_EQ(vehicle.wheels.size(), 2U);
  EXPECT_EQ(vehicle.wheels[0].name, "left");
  EXPECT_EQ(vehicle.wheels[0].node, 3);
  EXPECT_EQ(vehicle.wheels[0].motor, 1);
  EXPECT_TRUE(vehicle.wheels[0].mirrored);
  EXPECT_EQ(vehicle.wheels[0].gear_ratio, 12.5);
  EXPECT_EQ(vehicle.wheels[1].name, "rück wärts");
  EXPECT_EQ(vehicle.wheels[1].node, 127);
  EXPECT_EQ(vehicle.period, milliseconds(20));
  EXPECT_EQ(vehicle.command_timeout, milliseconds(111));
  EXPECT_EQ(vehicle.feedback_timeout, milliseconds(222));
  EXPECT_EQ(vehicle.heartbeat_timeout, milliseconds(333));
  EXPECT_EQ(vehicle.drive_watchdog, milliseconds(0));
  EXPECT_EQ(vehicle.fault_deceleration, 444.5);
  EXPECT_EQ(vehicle.max_rpm, 55.5);
  EXPECT_EQ(vehicle.max_acceleration, 66.5);
  EXPECT_EQ(vehicle.max_deceleration, 77.5);
  EXPECT_EQ(vehicle.counts_per_revolution, 4096U);
  EXPECT_EQ(vehicle.texts, directory_ + "/sub/texts.yaml");
  EXPECT_EQ(vehicle.realtime_priority, 88);
}

TEST_F(VehicleFileTest, HasTheDefaultsOfAVehicleWhereAKeyIsLeftOut) {
  const Vehicle vehicle = Load(kBase);
  const Vehicle defaults;
  EXPECT_EQ(vehicle.interface, defaults.interface);
  EXPECT_EQ(vehicle.period, defaults.period);
  EXPECT_EQ(vehicle.command_timeout, defaults.command_timeout);
  EXPECT_EQ(vehicle.feedback_timeout, defaults.feedback_timeout);
  EXPECT_EQ(vehicle.heartbeat_timeout, defaults.heartbeat_timeout);
  EXPECT_EQ(vehicle.drive_watchdog, defaults.drive_watchdog);
  EXPECT_EQ(vehicle.fault_deceleration, defaults.fault_deceleration);
  EXPECT_EQ(vehicle.max_rpm, defaults.max_rpm);
  EXPECT_EQ(vehicle.max_acceleration, defaults.max_acceleration);
  EXPECT_EQ(vehicle.max_deceleration, defaults.max_deceleration);
  EXPECT_EQ(vehicle.counts_per_revolution, defaults.counts_per_revolution);
  EXPECT_EQ(vehicle.texts, "");
  EXPECT_EQ(vehicle.realtime_priority, defaults.realtime_priority);
  ASSERT_EQ(vehicle.wheels.size(), 1U);
  EXPECT_EQ(vehicle.wheels[0].node, motor_driver::Wheel().node);
  EXPECT_EQ(vehicle.wheels[0].motor, motor_driver::Wheel().motor);
  EXPECT_EQ(vehicle.wheels[0].mirrored, motor_driver::Wheel().mirrored);
  EXPECT_EQ(vehicle.wheels[0].gear_ratio, motor_driver::Wheel().gear_ratio);
}

TEST_F(VehicleFileTest, TakesFilesAsEditorsWriteThem) {
  for (const char* const text : {
           "make: zl\r\nwheels:\r\n  - name: left\r\n",    // CRLF
           "\xEF\xBB\xBFmake: zl\nwheels:\n- name: left",  // byte order mark, no last line end
           "--- # one\nmake: 'zl' # two\nwheels: [{name: left}]\n...\n",  // marks, comments
           "{make: zl, wheels: [{name: left,}],}",
           "make:\tzl\nwheels:\n  - name:\tleft\n",
       }) {
    EXPECT_EQ(Load(text).wheels.at(0).name, "left") << text;
  }
  EXPECT_EQ(Load("make: zl\nwheels: [&w {name: &n left}, {name: right, motor: 2}]\n").make, "zl");
}

TEST_F(VehicleFileTest, TakesTextsRelativeToTheFileUnlessAbsolute) {
  EXPECT_EQ(Load(kBase + "texts: a.yaml\n").texts, directory_ + "/a.yaml");
  EXPECT_EQ(Load(kBase + "texts: ../a.yaml\n").texts, directory_ + "/../a.yaml");
  EXPECT_EQ(Load(kBase + "texts: /etc/a.yaml\n").texts, "/etc/a.yaml");
  EXPECT_EQ(Load(kBase + "texts: ''\n").texts, "");
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_);
  EXPECT_EQ(LoadVehicle("vehicle.yaml").texts, "");
  Load(kBase + "texts: a.yaml\n");
  EXPECT_EQ(LoadVehicle("vehicle.yaml").texts, "a.yaml");
  std::filesystem::current_path(before);
}

// --- Borders ------------------------------------------------------------------------------------

struct Border {
  const char* key;
  const char* inside[2];
  const char* outside[2];
  const char* refusals[2];
};

TEST_F(VehicleFileTest, TakesWhatIsJustInsideARangeAndRefusesWhatIsJustOutside) {
  for (const Border& border : std::vector<Border>{
           {"period_ms",
            {"2", "50"},
            {"1", "256"},
            {"1 is not in 2 to 255", "256 is not in 2 to 255"}},
           {"command_timeout_ms",
            {"20", "60000"},
            {"19", "60001"},
            {"19 is not in 20 to 60000", "60001 is not in 20 to 60000"}},
           {"feedback_timeout_ms",
            {"20", "60000"},
            {"19", "60001"},
            {"19 is not in 20 to 60000", "60001 is not in 20 to 60000"}},
           {"heartbeat_timeout_ms",
            {"300", "30000"},
            {"299", "30001"},
            {"299 is not in 300 to 30000", "30001 is not in 300 to 30000"}},
           {"fault_deceleration",
            {"1e-3", "1000000"},
            {"0", "1000000.5"},
            {"0 is not above 0 and at most 1000000",
             "1000000.5 is not above 0 and at most 1000000"}},
           {"max_acceleration",
            {"0.1", "1e6"},
            {"-0", "1e7"},
            {"-0 is not above 0 and at most 1000000",
             "10000000 is not above 0 and at most 1000000"}},
           {"max_deceleration",
            {".5", "1e6"},
            {"-1", "1e300"},
            {"-1 is not above 0 and at most 1000000", "1e+300 is not above 0 and at most 1000000"}},
           {"max_rpm",
            {"0.001", "2147483647"},
            {"0", "2147483648"},
            {"0 is not above 0 and at most 2147483647",
             "2147483648 is not above 0 and at most 2147483647"}},
           {"realtime_priority",
            {"0", "99"},
            {"-1", "100"},
            {"-1 is not in 0 to 99", "100 is not in 0 to 99"}},
       }) {
    for (const int end : {0, 1}) {
      const std::string begin = kBase + border.key + ": ";
      EXPECT_EQ(Refusal(begin + border.inside[end] + "\n"), "taken") << border.key;
      EXPECT_EQ(Refusal(begin + border.outside[end] + "\n"),
                std::string("3:1: ") + border.key + ": " + border.refusals[end]);
    }
  }
}

TEST_F(VehicleFileTest, KnowsTheBordersOfAWheel) {
  const auto wheel = [this](const std::string& text) {
    return Refusal("make: zl\nwheels:\n- name: left\n  " + text + "\n");
  };
  for (const char* const good : {"node: 1", "node: 127", "motor: 1", "motor: 2", "mirrored: true",
                                 "mirrored: false", "gear_ratio: 0.001", "gear_ratio: 10000"}) {
    EXPECT_EQ(wheel(good), "taken") << good;
  }
  EXPECT_EQ(wheel("node: 0"), "4:3: wheels[0].node: 0 is not in 1 to 127");
  EXPECT_EQ(wheel("node: 128"), "4:3: wheels[0].node: 128 is not in 1 to 127");
  EXPECT_EQ(wheel("motor: 0"), "4:3: wheels[0].motor: 0 is not in 1 to 2");
  EXPECT_EQ(wheel("motor: 3"), "4:3: wheels[0].motor: 3 is not in 1 to 2");
  EXPECT_EQ(wheel("gear_ratio: 0"),
            "4:3: wheels[0].gear_ratio: 0 is not above 0 and at most 10000");
  EXPECT_EQ(wheel("gear_ratio: -1.5"),
            "4:3: wheels[0].gear_ratio: -1.5 is not above 0 and at most 10000");
  EXPECT_EQ(wheel("gear_ratio: 10000.1"),
            "4:3: wheels[0].gear_ratio: 10000.1 is not above 0 and at most 10000");
  EXPECT_EQ(wheel("motors: 2"),
            "4:3: wheels[0].motors: unknown key, there are name, node, motor, mirrored and "
            "gear_ratio");
}

TEST_F(VehicleFileTest, HasOneMotorANodeExceptForZl) {
  for (const char* const make : {"tt", "hls", "amps", "kinco", "fake"}) {
    EXPECT_EQ(Refusal(std::string("make: ") + make + "\nwheels: [{name: a, motor: 2}]\n"),
              "2:20: wheels[0].motor: 2 is not in 1 to 1");
  }
}

TEST_F(VehicleFileTest, TakesTimesOfTwoPeriodsAndNoShorterOnes) {
  EXPECT_EQ(Refusal(kBase + "period_ms: 255\ncommand_timeout_ms: 510\nfeedback_timeout_ms: 510\n"),
            "taken");
  EXPECT_EQ(Refusal(kBase + "period_ms: 255\ncommand_timeout_ms: 509\n"),
            "4:1: command_timeout_ms: 509 is not in 510 to 60000");
  EXPECT_EQ(Refusal(kBase + "period_ms: 200\ncommand_timeout_ms: 500\n"),
            "1:1: feedback_timeout_ms: 250 is not in 400 to 60000")
      << "a default that does not fit has the place of the vehicle";
}

TEST_F(VehicleFileTest, KnowsHowFastTheMotorOfAMakeMayTurn) {
  const auto refusal = [this](const std::string& make, const std::string& rpm,
                              const std::string& ratio) {
    return Refusal("make: " + make + "\nwheels: [{name: a, gear_ratio: " + ratio +
                   "}]\nmax_rpm: " + rpm + "\n");
  };
  // 32 bits of 512 x 10000 / 1875 units per rpm.
  EXPECT_EQ(refusal("kinco", "786431", "1"), "taken");
  EXPECT_EQ(
      refusal("kinco", "786432", "1"),
      "3:1: max_rpm: 786432 x gear_ratio 1 of wheel \"a\" is 786432 rpm of the motor, a kinco "
      "takes at most 786431");
  EXPECT_EQ(refusal("amps", "32767", "1"), "taken");
  EXPECT_EQ(refusal("amps", "32768", "1"), "3:1: max_rpm: 32768 is not above 0 and at most 32767");
  EXPECT_EQ(refusal("amps", "3276.7", "10"), "taken");
  EXPECT_EQ(refusal("amps", "3276.75", "10"),
            "3:1: max_rpm: 3276.75 x gear_ratio 10 of wheel \"a\" is 32767.5 rpm of the motor, a "
            "amps takes at most 32767");
  EXPECT_EQ(refusal("hls", "20000", "10000"), "taken");
  EXPECT_EQ(refusal("hls", "200000001", "1"),
            "3:1: max_rpm: 200000001 is not above 0 and at most 200000000");
  EXPECT_EQ(refusal("hls", "20001", "10000"),
            "3:1: max_rpm: 20001 x gear_ratio 10000 of wheel \"a\" is 200010000 rpm of the motor, "
            "a hls takes at most 200000000");
}

TEST_F(VehicleFileTest, ChecksCountsWhereTheyCount) {
  const std::string kinco = "make: kinco\nwheels: [{name: a}]\ncounts_per_revolution: ";
  EXPECT_EQ(Refusal(kinco + "4\n"), "taken");
  EXPECT_EQ(Refusal(kinco + "16777216\n"), "taken");
  EXPECT_EQ(Refusal(kinco + "3\n"), "3:1: counts_per_revolution: 3 is not in 4 to 16777216");
  EXPECT_EQ(Refusal(kinco + "16777217\n"),
            "3:1: counts_per_revolution: 16777217 is not in 4 to 16777216");
  EXPECT_EQ(Refusal(kBase + "counts_per_revolution: 3\n"), "taken");
}

TEST_F(VehicleFileTest, HasOneToEightWheelsThatDiffer) {
  std::string text = "make: hls\nwheels:\n";
  EXPECT_EQ(Refusal(text + "  []\n"), "2:1: wheels: 0 wheels, a vehicle has 1 to 8");
  EXPECT_EQ(Refusal("make: hls\n"), "1:1: wheels: 0 wheels, a vehicle has 1 to 8");
  for (int wheel = 1; wheel <= 8; ++wheel) {
    text += "- {name: w" + std::to_string(wheel) + ", node: " + std::to_string(wheel) + "}\n";
    EXPECT_EQ(Refusal(text), "taken");
  }
  EXPECT_EQ(Refusal(text + "- {name: w9, node: 9}\n"),
            "2:1: wheels: 9 wheels, a vehicle has 1 to 8");
  EXPECT_EQ(Refusal("make: zl\nwheels:\n- name: a\n- name: a\n  motor: 2\n"),
            "4:3: wheels[1].name: \"a\" names another wheel, too");
  EXPECT_EQ(Refusal("make: zl\nwheels:\n- name: a\n  node: 5\n- name: b\n  node: 5\n"),
            "6:3: wheels[1].node: motor 1 of node 5 turns wheel \"a\" already");
  EXPECT_EQ(Refusal("make: zl\nwheels:\n- name: a\n- name: b\n"),
            "4:3: wheels[1].node: motor 1 of node 1 turns wheel \"a\" already")
      << "a key that is left out has the place of its wheel";
  EXPECT_EQ(Refusal("make: zl\nwheels: [{node: 1}]\n"),
            "2:10: wheels[0].name: is empty, every wheel has a name of its own");
  EXPECT_EQ(Refusal("make: zl\nwheels: [{name: \"a\\nb\"}]\n"),
            "2:11: wheels[0].name: \"a?b\" has a character that cannot be printed");
}

TEST_F(VehicleFileTest, KnowsMakesAndInterfaces) {
  for (const char* const make : {"zl", "tt", "hls", "amps", "kinco", "fake"}) {
    EXPECT_EQ(Refusal(std::string("make: ") + make + "\nwheels: [{name: a}]\n"), "taken");
  }
  EXPECT_EQ(Refusal("make: ZL\nwheels: [{name: a}]\n"),
            "1:1: make: \"ZL\" is not zl, tt, hls, amps, kinco or fake");
  EXPECT_EQ(Refusal("wheels: [{name: a}]\n"),
            "1:1: make: \"\" is not zl, tt, hls, amps, kinco or fake");
  for (const char* const good : {"c", "vcan0", "can_left-1.5", "abcdefghijklmno"}) {
    EXPECT_EQ(Refusal(kBase + "interface: " + good + "\n"), "taken") << good;
  }
  for (const char* const bad :
       {"", "abcdefghijklmnop", "can 0", "can/0", "-can", "cän", "can0;ls"}) {
    EXPECT_EQ(Refusal(kBase + "interface: '" + bad + "'\n"),
              std::string("3:1: interface: \"") + bad +
                  "\" is not a name of 1 to 15 letters, digits, '.', '_' or '-', which may not "
                  "come first");
  }
  for (const std::string value : {"-1", "1", "99", "65536"}) {
    EXPECT_EQ(Refusal(kBase + "drive_watchdog_ms: " + value + "\n"),
              "3:1: drive_watchdog_ms: " + value +
                  " is not in 100 to 65535, and is not 0, which is none");
  }
  for (const std::string value : {"0", "100", "65535"}) {
    EXPECT_EQ(Refusal(kBase + "drive_watchdog_ms: " + value + "\n"), "taken");
  }
}

// --- Types --------------------------------------------------------------------------------------

TEST_F(VehicleFileTest, RefusesEveryOtherType) {
  const std::vector<std::string> whole = {
      "period_ms",         "command_timeout_ms",    "feedback_timeout_ms", "heartbeat_timeout_ms",
      "drive_watchdog_ms", "counts_per_revolution", "realtime_priority"};
  for (const std::string& key : whole) {
    const std::string place = "3:" + std::to_string(key.size() + 3) + ": " + key + ": ";
    for (const char* const bad :
         {"ten", "1.5", "10 ms", "0x10", "1e2", "+5", "''", "1_000", "true", "10,", "１０"}) {
      const std::string shown = std::string(bad) == "''" ? "" : bad;
      EXPECT_EQ(Refusal(kBase + key + ": " + bad + "\n"),
                place + "\"" + shown + "\" is not a whole number, as 10 is");
    }
    for (const char* const bad : {"[10]", "{a: 10}"}) {
      EXPECT_EQ(Refusal(kBase + key + ": " + bad + "\n"),
                place + "is not a whole number, as 10 is");
    }
    EXPECT_EQ(Refusal(kBase + key + ": 99999999999999999999\n"),
              place + "\"99999999999999999999\" is too large or too small");
  }
  EXPECT_EQ(Refusal(kBase + "counts_per_revolution: -1\n"),
            "3:24: counts_per_revolution: \"-1\" is too large or too small");
  EXPECT_EQ(Refusal(kBase + "realtime_priority: 4294967297\n"),
            "3:20: realtime_priority: \"4294967297\" is too large or too small")
      << "does not fit, and must not count as 1";
  EXPECT_EQ(Refusal(kBase + "period_ms: -10\n"), "3:1: period_ms: -10 is not in 2 to 255");

  for (const std::string key :
       {"fault_deceleration", "max_rpm", "max_acceleration", "max_deceleration"}) {
    const std::string place = "3:" + std::to_string(key.size() + 3) + ": " + key + ": ";
    for (const char* const bad :
         {"fast", "10 rpm", ".nan", "nan", "inf", "-inf", ".inf", "0x10", "1,5", "true", "+5"}) {
      EXPECT_EQ(Refusal(kBase + key + ": " + bad + "\n"),
                place + "\"" + bad + "\" is not a number, as 1.5 is");
    }
    EXPECT_EQ(Refusal(kBase + key + ": [10]\n"), place + "is not a number, as 1.5 is");
    for (const char* const nothing : {":\n", ":\n# and so on\ninterface: can0\n", ": ~\n"}) {
      EXPECT_EQ(Refusal(kBase + key + nothing), "3:1: " + key + ": is not a number, as 1.5 is");
    }
    for (const char* const bad : {"1e400", "-1e400", "1e-400"}) {
      EXPECT_EQ(Refusal(kBase + key + ": " + bad + "\n"),
                place + "\"" + bad + "\" is too large or too small");
    }
  }

  for (const std::string key : {"make", "interface", "texts"}) {
    for (const char* const bad : {"[zl]", "{a: b}"}) {
      EXPECT_EQ(Refusal("wheels: [{name: a}]\n" + key + ": " + bad + "\n"),
                "2:" + std::to_string(key.size() + 3) + ": " + key + ": is not a text");
    }
  }
  for (const char* const bad : {"yes", "1", "True", "''"}) {
    const std::string shown = std::string(bad) == "''" ? "" : bad;
    EXPECT_EQ(Refusal(std::string("make: zl\nwheels:\n- name: a\n  mirrored: ") + bad + "\n"),
              "4:13: wheels[0].mirrored: \"" + shown + "\" is neither true nor false");
  }
  EXPECT_EQ(Refusal("make: zl\nwheels:\n- name: a\n  mirrored: [true]\n"),
            "4:13: wheels[0].mirrored: is neither true nor false");
  EXPECT_EQ(Refusal("make: zl\nwheels:\n- name: [a]\n"), "3:9: wheels[0].name: is not a text");
  EXPECT_EQ(Refusal("make:\nwheels: [{name: a}]\n"), "1:1: make: is not a text");
  EXPECT_EQ(Refusal("make: zl\nwheels:\nperiod_ms: 10\n"), "2:1: wheels: is not a list of wheels");
  EXPECT_EQ(Refusal("make: zl\nwheels: left\n"), "2:1: wheels: is not a list of wheels");
  EXPECT_EQ(Refusal("make: zl\nwheels: {name: a}\n"), "2:1: wheels: is not a list of wheels");
  EXPECT_EQ(Refusal("make: zl\nwheels: [left]\n"),
            "2:10: wheels[0]: is not a list of keys with values");
  EXPECT_EQ(Refusal("make: zl\nwheels:\n- - name: a\n"),
            "3:3: wheels[0]: is not a list of keys with values");
  EXPECT_EQ(Refusal("- make: zl\n"), "1:1: vehicle: is not a list of keys with values");
  EXPECT_EQ(Refusal("zl\n"), "1:1: vehicle: is not a list of keys with values");
}

TEST_F(VehicleFileTest, RefusesKeysThatItDoesNotKnowOrKnowsAlready) {
  EXPECT_EQ(Refusal(kBase + "max_speed: 5\n"), "3:1: max_speed: " + kKeys);
  EXPECT_EQ(Refusal(kBase + "period: 5\n"), "3:1: period: " + kKeys);
  EXPECT_EQ(Refusal(kBase + "Make: zl\n"), "3:1: Make: " + kKeys);
  EXPECT_EQ(Refusal(kBase + "<<: {max_rpm: 5}\n"), "3:1: <<: " + kKeys);
  EXPECT_EQ(Refusal(kBase + "? [a]\n: 5\n"), "3:3: ?: " + kKeys);
  EXPECT_EQ(Refusal(kBase + "\"a\\e[31m\\nb\": 5\n"), "3:1: a?[31m?b: " + kKeys);
  EXPECT_EQ(Refusal(kBase + std::string(1000, 'x') + ": 5\n"),
            "3:1: " + std::string(60, 'x') + "...: " + kKeys);
  EXPECT_EQ(Refusal("make: zl\nmake: zl\n"), "2:1: make: stands twice");
  EXPECT_EQ(Refusal("make: zl\nwheels:\n- name: a\n  node: 1\n  node: 1\n"),
            "5:3: wheels[0].node: stands twice");
}

// --- Files --------------------------------------------------------------------------------------

TEST_F(VehicleFileTest, SaysWhyAFileCannotBeRead) {
  EXPECT_EQ(RefusalOf(directory_ + "/none"), " cannot be opened: No such file or directory");
  EXPECT_EQ(RefusalOf(directory_), " is a directory, not the file of a vehicle");
  EXPECT_EQ(Refusal(kBase + "x/y: 1\n"), "3:1: x/y: " + kKeys);
  EXPECT_EQ(RefusalOf(Path() + "/below"), " cannot be opened: Not a directory");
  EXPECT_EQ(Refusal(""), " is empty, a vehicle has keys with values");
  EXPECT_EQ(Refusal("# nothing\n\n"), " is empty, a vehicle has keys with values");
  EXPECT_EQ(Refusal(kBase + "---\n" + kBase), " holds several documents, a vehicle is one");
  const std::string padding(65536 - kBase.size(), '#');
  EXPECT_EQ(Refusal(kBase + padding), "taken");
  EXPECT_EQ(Refusal(kBase + padding + "#"), " too long for a vehicle, at most 65536 bytes");
  EXPECT_EQ(RefusalOf("/dev/zero"), " too long for a vehicle, at most 65536 bytes");
}

TEST_F(VehicleFileTest, SaysThatItMayNotReadAFile) {
  Load(kBase);
  ASSERT_EQ(::chmod(Path().c_str(), 0), 0);
  const auto result = support::RunForked([this] {
    // Root reads everything.
    if (::geteuid() == 0 && ::seteuid(65534) != 0) {
      std::_Exit(2);
    }
    ::chmod(directory_.c_str(), 0755);
    std::fputs(RefusalOf(Path()).c_str(), stdout);
    std::fflush(stdout);
  });
  EXPECT_EQ(result.out, " cannot be opened: Permission denied");
}

TEST_F(VehicleFileTest, SaysWhereAFileIsNoYaml) {
  EXPECT_EQ(Refusal("make: zl\n\twheels: 1\n"),
            "2:1: vehicle: is not YAML: illegal tab when looking for indentation");
  EXPECT_EQ(Refusal("make: [zl\n"), "2:1: vehicle: is not YAML: end of sequence flow not found");
  EXPECT_EQ(Refusal("make: *zl\n"),
            "1:7: vehicle: is not YAML: the referenced anchor is not defined");
  EXPECT_EQ(Refusal("make: zl\n  wheels: 1\n"), "2:9: vehicle: is not YAML: illegal map value");
  EXPECT_EQ(Refusal(std::string(kBase) + "make: \"\\q\"\n"),
            "3:10: vehicle: is not YAML: unknown escape character: q");
}

TEST_F(VehicleFileTest, SaysSoInOneLineWhateverItIsGiven) {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) {
    bytes += static_cast<char>(byte);
  }
  std::string bomb = "a: &a [x, x, x, x, x, x, x, x, x]\n";
  for (char name = 'b'; name < 'n'; ++name) {
    bomb += std::string(1, name) + ": &" + name + " [";
    for (int copy = 0; copy < 9; ++copy) {
      bomb += std::string(copy == 0 ? "*" : ", *") + static_cast<char>(name - 1);
    }
    bomb += "]\n";
  }
  std::string nested = "make: zl\nwheels: ";
  for (int level = 0; level < 400; ++level) {
    nested += "[";
  }
  nested += std::string(400, ']') + "\n";
  std::string aliases = "make: zl\nwheels: [&w {name: a}";
  for (int alias = 0; alias < 10'000; ++alias) {
    aliases += ",*w";
  }
  aliases += "]\n";
  std::string entries;
  for (int entry = 0; entry < 30'000; ++entry) {
    entries += "?\n";
  }
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Refusal(bytes), "1:1: vehicle: is not a list of keys with values");
  EXPECT_EQ(Refusal(std::string(60'000, '[')), "1:1: vehicle: is nested too deep for one");
  EXPECT_EQ(Refusal(std::string(60'000, '{')), "1:1: vehicle: is nested too deep for one");
  EXPECT_EQ(Refusal("a\n# b\n, "), " holds several documents, a vehicle is one") << "and ends";
  EXPECT_EQ(Refusal(bomb), "1:1: a: " + kKeys);
  EXPECT_EQ(Refusal("make: zl\nwheels: []\n" + bomb), "3:1: a: " + kKeys);
  EXPECT_EQ(Refusal(nested), "2:10: wheels[0]: is not a list of keys with values");
  EXPECT_EQ(Refusal(aliases), "2:1: wheels: 10001 wheels, a vehicle has 1 to 8");
  EXPECT_EQ(Refusal(entries), "3:1: ?: stands twice");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

// --- Vehicles of a program ----------------------------------------------------------------------

Vehicle Sound() {
  Vehicle vehicle;
  vehicle.make = "fake";
  vehicle.interface = "test";
  vehicle.wheels.resize(2);
  vehicle.wheels[0].name = "left";
  vehicle.wheels[1].name = "right";
  vehicle.wheels[1].node = 2;
  return vehicle;
}

std::string RefusalOfWheels(const std::function<void(Vehicle&)>& change) {
  Vehicle vehicle = Sound();
  change(vehicle);
  try {
    const Wheels wheels(vehicle);
  } catch (const VehicleError& error) {
    return error.what();
  }
  return "taken";
}

TEST(VehicleOfAProgramTest, IsRefusedWithTheKeyOfItsFile) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(RefusalOfWheels([](Vehicle&) {}), "taken");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v = Vehicle(); }),
            "make: \"\" is not zl, tt, hls, amps, kinco or fake");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.make = "z\n\x1B"; }),
            "make: \"z??\" is not zl, tt, hls, amps, kinco or fake");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.wheels.clear(); }),
            "wheels: 0 wheels, a vehicle has 1 to 8");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.wheels[1].node = 128; }),
            "wheels[1].node: 128 is not in 1 to 127");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.wheels[1].node = 1; }),
            "wheels[1].node: motor 1 of node 1 turns wheel \"left\" already");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.wheels[1].gear_ratio = kNan; }),
            "wheels[1].gear_ratio: nan is not above 0 and at most 10000");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.max_rpm = kInfinity; }),
            "max_rpm: inf is not above 0 and at most 2147483647");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.max_rpm = kNan; }),
            "max_rpm: nan is not above 0 and at most 2147483647");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.max_acceleration = -1; }),
            "max_acceleration: -1 is not above 0 and at most 1000000");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.period = milliseconds::max(); }),
            "period_ms: 9223372036854775807 is not in 2 to 255");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.command_timeout = milliseconds(-1); }),
            "command_timeout_ms: -1 is not in 20 to 60000");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.interface = ""; }),
            "interface: \"\" is not a name of 1 to 15 letters, digits, '.', '_' or '-', which may "
            "not come first");
}

TEST(VehicleOfAProgramTest, HasItsInterfaceAloneUntilItEnds) {
  {
    Wheels first(Sound());
    EXPECT_EQ(RefusalOfWheels([](Vehicle&) {}),
              "interface: test is taken by another object of this process, one is allowed");
    EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.interface = "other"; }), "taken");

    ASSERT_TRUE(first.BringUp());
    EXPECT_THROW(Wheels second(Sound()), VehicleError);
    EXPECT_EQ(first.GetReport().state, motor_driver::State::kReady) << "and the first goes on";
    const double rpm[] = {10, 10};
    EXPECT_TRUE(first.Command(rpm, 2));
    EXPECT_TRUE(first.Stop());
  }
  EXPECT_EQ(RefusalOfWheels([](Vehicle&) {}), "taken");
  EXPECT_EQ(RefusalOfWheels([](Vehicle& v) { v.make = "none"; }),
            "make: \"none\" is not zl, tt, hls, amps, kinco or fake");
  EXPECT_EQ(RefusalOfWheels([](Vehicle&) {}), "taken") << "a refused one took nothing";
}

}  // namespace
