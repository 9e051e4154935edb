// motorctl --vehicle: what a file says in place of options, and what it does not.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "jog_bench.h"
#include "wheels/makes.h"

namespace {

class VehicleTest : public bus::BusTest {
 protected:
  std::string File(const std::string& text) {
    const std::string file = ::testing::TempDir() + "/vehicle." + std::to_string(++files_);
    std::ofstream(file) << text;
    return file;
  }
  int files_ = 0;
  const std::string two_ = File(
      "make: tt\n"
      "wheels:\n"
      "  - {name: left, node: 3}\n"
      "  - {name: right, node: 4, mirrored: true}\n");
};

sim::SimulatedDrive::Options At(int node) {
  sim::SimulatedDrive::Options options = Options("tt");
  options.node_id = static_cast<std::uint8_t>(node);
  return options;
}

TEST_F(VehicleTest, SamplesAreGood) {
  int samples = 0;
  for (const auto& entry : std::filesystem::directory_iterator(VEHICLES)) {
    const std::string file = entry.path().string();
    const Result result = Motorctl({"vehicle", "check", file});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_TRUE(Contains(result.out, "left: " + entry.path().stem().string() + " on can0, node 1"))
        << result.out;
    EXPECT_TRUE(Contains(result.out, file + ": good\n")) << result.out;
    ++samples;
  }
  EXPECT_GE(samples, 6);
}

TEST_F(VehicleTest, CheckSaysWhatIsWrongAndWhere) {
  const std::string file = File("make: tt\nwheels: [{name: left, node: 128}]\n");
  const Result result = Motorctl({"vehicle", "check", file});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(Contains(result.err, file + ":2:")) << result.err;
  EXPECT_TRUE(Contains(result.err, "node: 128 is not in 1 to 127")) << result.err;
  const Result json = Motorctl({"vehicle", "check", file, "--json"});
  EXPECT_EQ(json.status, 1);
  EXPECT_EQ(json.Objects().at(0).at("ok"), false);
  EXPECT_EQ(Motorctl({"vehicle", "check", "/absent"}).status, 1);
  // Whatever the variable names.
  EXPECT_EQ(Motorctl({"vehicle", "check", two_}, "", {"MOTORCTL_VEHICLE=/absent"}).status, 0);
  EXPECT_EQ(Motorctl({"info", "1"}, "", {"MOTORCTL_VEHICLE=/absent"}).status, 1);
}

TEST_F(VehicleTest, GivesMakeAndNodes) {
  sim::SimulatedDrive left(At(3));
  sim::SimulatedDrive right(At(4));
  const Result info = Motorctl({"info", "--vehicle", two_, "--json"});
  EXPECT_EQ(info.status, 0) << info.err;
  EXPECT_EQ(info.Objects().front()["node"], 3);
  EXPECT_EQ(info.Objects().back()["node"], 4);
  EXPECT_EQ(info.Objects().back()["index"], 0x6063);  // of the make
  const Result up = Motorctl({"bring-up", "--json"}, "", {"MOTORCTL_VEHICLE=" + two_});
  EXPECT_EQ(up.status, 0) << up.err;
  EXPECT_EQ(up.Objects().size(), 2U);
  EXPECT_EQ(right.Statusword() & 0x6FU, 0x27U);
  EXPECT_EQ(Motorctl({"monitor", "--once", "--vehicle", two_}).status, 0);
  const Result doctor = Motorctl({"doctor", "--vehicle", two_});
  EXPECT_TRUE(Contains(doctor.out, "node 3 answers")) << doctor.out;
  EXPECT_TRUE(Contains(doctor.out, "node 4 answers")) << doctor.out;
}

TEST_F(VehicleTest, TheCommandLineWins) {
  sim::SimulatedDrive drive(At(9));
  const Arguments vehicle = {"--vehicle", two_};
  const auto with = [&](const Arguments& more) {
    Arguments all = vehicle;
    all.insert(all.end(), more.begin(), more.end());
    return Motorctl(all);
  };
  EXPECT_EQ(with({"info", "9", "--json"}).Objects().at(0).at("node"), 9);
  const Result other = with({"--interface", "can7", "info", "9"});
  EXPECT_EQ(other.status, 1);
  EXPECT_TRUE(Contains(other.err, "can7")) << other.err;
  EXPECT_TRUE(Contains(with({"--make", "fake", "bring-up"}).out, "simulated"));
}

// Forward of the vehicle is backward of the mirrored motor.
TEST_F(VehicleTest, JogTurnsAllWheelsOfTheVehicle) {
  sim::SimulatedDrive left(At(3));
  sim::SimulatedDrive right(At(4));
  Process jog(
      {"jog", "--vehicle", two_, "--rpm", "40", "--seconds", "4", "--yes", "--ramp", "200"});
  EXPECT_TRUE(Eventually([&] { return left.SpeedRpm() > 35 && right.SpeedRpm() < -35; }))
      << jog.Err();
  EXPECT_EQ(jog.Wait(), 0) << jog.Err();
  EXPECT_EQ(left.SpeedRpm(), 0.0);
  EXPECT_EQ(right.SpeedRpm(), 0.0);
  EXPECT_EQ(
      Motorctl({"jog", "--vehicle", two_, "--rpm", "40", "--rpm2", "1", "--seconds", "4", "--yes"})
          .status,
      2);
}

// What a class knows stands in the table as well, for programs that make no drive object.
TEST(MakesTest, CountsAreThoseOfTheClasses) {
  for (const motor_driver::Make& make : motor_driver::Makes()) {
    if (make.simulated) continue;
    motor_driver::Vehicle vehicle;
    vehicle.counts_per_revolution = 12345;
    const unsigned long counts = make.create(vehicle)->GetNumberOfPulsesPerRevolution();
    EXPECT_EQ(counts, make.counts_are_configured ? 12345 : make.counts_per_revolution) << make.name;
  }
}

}  // namespace
