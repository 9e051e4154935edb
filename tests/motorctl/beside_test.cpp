// What goes on beside a command: emergency messages, and a reader of its output that goes away.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "bus_environment.h"
#include "far_end.h"
#include "jog_bench.h"
#include "motorctl_process.h"
#include "simulated.h"

namespace {

class BesideTest : public bus::BusTest {};

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
  return count;
}

const std::string kEmergency =
    "motorctl: emergency of node 1: 0x2310 Continuous over current; error register 0x03 generic, "
    "current\n";

TEST_F(BesideTest, DoctorNamesEmergenciesOnceWhileItListens) {
  bus::FarEnd node("can1");
  Process doctor({"doctor"});
  ASSERT_TRUE(Eventually([&] { return Contains(doctor.Out(), "txqueuelen"); }));
  node.Send("081#0000000000000000");  // nothing ended
  node.Send("080#0000000000000000");  // SYNC
  node.Send("081#1023030000000000");
  EXPECT_TRUE(Eventually([&] { return doctor.Err() == kEmergency; })) << doctor.Err();
  node.Send("081#1023030000000000");
  node.Send("081#0000000000000000");
  node.Send("081#1023030000000000");
  doctor.Wait();
  EXPECT_EQ(doctor.Err().find(kEmergency +
                              "motorctl: emergency of node 1: 0x0000 No error; error register 0x00 "
                              "no error\n" +
                              kEmergency + "motorctl: nothing is wrong"),
            0U)
      << doctor.Err();
}

TEST_F(BesideTest, BringUpNamesEmergencies) {
  sim::SimulatedDrive drive(Options("zl"));
  bus::FarEnd node("can1");
  Process bring_up({"bring-up", "1", "--make", "zl"});
  ASSERT_TRUE(Eventually([&] { return Contains(bring_up.Err(), "node 1: reset"); }));
  node.Send("081#1023030000000000");
  bring_up.Wait();
  EXPECT_EQ(Count(bring_up.Err(), kEmergency), 1U) << bring_up.Err();
}

TEST_F(BesideTest, JogNamesTheEmergencyThatEndsIt) {
  sim::SimulatedDrive drive(Options("zl"));
  Process jog(JogLine("zl", {"30"}));
  ASSERT_TRUE(Eventually([&] { return drive.SpeedRpm() > 20; })) << jog.Err();
  drive.LatchError(0x2310);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_EQ(Count(jog.Err(), kEmergency), 1U) << jog.Err();
}

TEST_F(BesideTest, SdoAndMonitorNameEmergencies) {
  sim::SimulatedDrive drive(Options("zl", 100));
  drive.Inject("ignore-object=0x1017");
  Process read({"sdo", "read", "1", "0x1017", "0", "--timeout", "2500"});
  Process monitor({"monitor", "--seconds", "6"});
  Process scan({"scan", "--from", "3", "--to", "60"});
  Process info({"info", "9", "--timeout", "2500"});
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  drive.LatchError(0x2310);
  for (Process* process : {&read, &monitor, &scan, &info}) {
    process->Wait();
    EXPECT_EQ(Count(process->Err(), kEmergency), 1U) << process->Err();
  }
}

// `| head` has what it wanted.
TEST_F(BesideTest, EndsQuietlyWhenNobodyReads) {
  sim::SimulatedDrive drive(Options("zl", 50));
  for (const Arguments& line :
       {Arguments{"monitor"}, Arguments{"monitor", "--once", "--json"},
        Arguments{"scan", "--to", "2"}, Arguments{"info", "1"}, Arguments{"doctor"},
        Arguments{"sdo", "read", "1", "0x1000", "0"}, Arguments{"explain", "0x2310"}}) {
    Process process(line, Output::kClosedPipe);
    EXPECT_EQ(process.Wait(), 1) << line[0];
    EXPECT_EQ(process.Err(), "") << line[0];
  }
  Process record({"record", "--after", "0.1", "--directory", ::testing::TempDir()},
                 Output::kClosedPipe);
  ASSERT_TRUE(Eventually([&] { return Contains(record.Err(), "recording can0"); }));
  drive.LatchError(0x2310);
  EXPECT_EQ(record.Wait(), 1);
  EXPECT_FALSE(Contains(record.Err(), "standard output")) << record.Err();
}

TEST_F(BesideTest, AJogThatNobodyReadsStopsItsWheel) {
  sim::SimulatedDrive drive(Options("zl"));
  Process jog(JogLine("zl", {"30"}), Output::kClosedPipe);
  EXPECT_EQ(jog.Wait(), 1);
  EXPECT_TRUE(Contains(jog.Err(), "nobody reads the output any more")) << jog.Err();
  EXPECT_TRUE(Contains(jog.Err(), "measured to stand still")) << jog.Err();
  EXPECT_EQ(drive.SpeedRpm(), 0.0);
}

}  // namespace
