// Commands that know the data sheet of a drive.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "bus_environment.h"
#include "motorctl_process.h"
#include "simulated.h"

namespace {

class EdsCommandsTest : public bus::BusTest {
 protected:
  // Of the drive that is there, zl.
  static Result WithSheet(Arguments arguments) {
    arguments.insert(arguments.end(), {"--eds", std::string(DATA_SHEETS) + "/zl.eds"});
    return Motorctl(arguments);
  }
  static std::string In(const std::string& text) {
    return text + " in " DATA_SHEETS "/zl.eds; --force writes it all the same; see --help\n";
  }

  sim::SimulatedDrive drive_{Options("zl")};
};

TEST_F(EdsCommandsTest, AReadNeedsNoType) {
  drive_.WriteObject(0x605A, 0, 6);
  drive_.WriteObject(0x1017, 0, 1500);
  EXPECT_EQ(WithSheet({"sdo", "read", "1", "0x1017", "0"}).out, "1500\n");
  EXPECT_EQ(WithSheet({"sdo", "read", "1", "0x1017", "0", "hex"}).out, "0x05DC\n")
      << "a type that is told comes first";
  drive_.WriteObject(0x60FF, 1, 0xFFFFFFE2);
  const Result json = WithSheet({"sdo", "read", "1", "0x60FF", "1", "--json"});
  ASSERT_EQ(json.Objects().size(), 1U) << json.out << json.err;
  EXPECT_EQ(json.Objects()[0]["object"], "Target velocity: Motor 1");
  EXPECT_EQ(json.Objects()[0]["type"], "INTEGER32");
  EXPECT_EQ(json.Objects()[0]["value"], -30);
}

TEST_F(EdsCommandsTest, AWriteNeedsNoType) {
  EXPECT_EQ(WithSheet({"sdo", "write", "1", "0x1017", "0", "1500"}).err, "motorctl: written\n");
  EXPECT_EQ(drive_.ReadObject(0x1017, 0), 1500U);
  EXPECT_EQ(WithSheet({"sdo", "write", "1", "0x60FF", "1", "-30", "--yes"}).status, 0);
  EXPECT_EQ(drive_.ReadObject(0x60FF, 1), 0xFFFFFFE2);
  EXPECT_EQ(WithSheet({"sdo", "write", "1", "0x1017", "0", "u16", "700"}).status, 0);
  EXPECT_EQ(drive_.ReadObject(0x1017, 0), 700U);
  const Result json = WithSheet({"sdo", "write", "1", "0x1017", "0", "0x3E8", "--json"});
  ASSERT_EQ(json.Objects().size(), 1U) << json.out << json.err;
  EXPECT_EQ(json.Objects()[0]["type"], "UNSIGNED16");
  EXPECT_EQ(json.Objects()[0]["value"], 1000);
}

TEST_F(EdsCommandsTest, TextsAreReadAndWritten) {
  EXPECT_EQ(WithSheet({"sdo", "read", "1", "0x1008", "0"}).out, "Simulated drive zl\n");
  EXPECT_EQ(WithSheet({"sdo", "write", "1", "0x2030", "0", "left wheel \\x20"}).status, 0);
  EXPECT_EQ(WithSheet({"sdo", "read", "1", "0x2030", "0", "hex"}).out,
            "6C 65 66 74 20 77 68 65 65 6C 20 20\n");
  EXPECT_EQ(WithSheet({"sdo", "read", "1", "0x2030", "0"}).out, "left wheel \\x20\n");
  const Result json = WithSheet({"sdo", "read", "1", "0x2030", "0", "--json"});
  ASSERT_EQ(json.Objects().size(), 1U) << json.out << json.err;
  EXPECT_EQ(json.Objects()[0]["type"], "VISIBLE_STRING");
  EXPECT_EQ(json.Objects()[0]["value"], "left wheel \\x20");
}

TEST_F(EdsCommandsTest, WhatTheSheetForbidsIsNotSent) {
  struct Row {
    Arguments arguments;
    std::string refusal;
  };
  const Row rows[] = {
      {{"0x1018", "2", "5"}, In("0x1018 sub 2 (Identity object: Product code): read-only (const)")},
      {{"0x1018", "2", "u32", "5"},
       In("0x1018 sub 2 (Identity object: Product code): read-only (const)")},
      {{"0x6041", "0", "5"}, In("0x6041 sub 0 (Statuswords): read-only (ro)")},
      {{"0x200F", "0", "2"}, In("0x200F sub 0 (Motors coupled): 2 is above the high limit 1")},
      {{"0x200F", "0", "u16", "2"},
       In("0x200F sub 0 (Motors coupled): 2 is above the high limit 1")},
      {{"0x200F", "0", "u8", "1"},
       In("0x200F sub 0 (Motors coupled): size 1, but UNSIGNED16 of size 2")},
      {{"0x200F", "0", "65536"}, "VALUE: 65536 is not between 0 and 65535; see --help\n"},
      {{"0x605A", "0", "x"}, "VALUE: \"x\" is not a number; see --help\n"},
      {{"0x5FFF", "0", "5"}, "VALUE is required; see --help\n"},
      {{"0x605A", "0", "u7", "5"}, "TYPE: one of u8 i8 u16 i16 u32 i32 hex str; see --help\n"},
      {{"0x2030", "0", "a\tb"},
       "VALUE: a character that is not printable ASCII; write it as \\xNN; see --help\n"},
  };
  for (const Row& row : rows) {
    Arguments all = {"sdo", "write", "1"};
    all.insert(all.end(), row.arguments.begin(), row.arguments.end());
    const Result result = WithSheet(all);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "motorctl: " + row.refusal);
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(drive_.Received().sdo, 0U) << "nothing was sent";
}

TEST_F(EdsCommandsTest, ForceLeavesItToTheDrive) {
  const Result read_only = WithSheet({"sdo", "write", "1", "0x1018", "2", "5", "--force"});
  EXPECT_EQ(read_only.status, 1);
  EXPECT_TRUE(Contains(read_only.err, "abort code 0x06010002")) << read_only.err;
  const Result too_high = WithSheet({"sdo", "write", "1", "0x200F", "0", "2", "--force"});
  EXPECT_EQ(too_high.status, 1);
  EXPECT_TRUE(Contains(too_high.err, "abort code 0x06090031")) << too_high.err;
  // Not a word that answers the question about wheels.
  const Result moves = WithSheet({"sdo", "write", "1", "0x60FF", "1", "5", "--force"});
  EXPECT_EQ(moves.status, 2);
  EXPECT_TRUE(Contains(moves.err, "refusing without --yes")) << moves.err;
}

TEST_F(EdsCommandsTest, InfoHasItsNamesAndTypes) {
  const Result text = WithSheet({"info", "1"});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_TRUE(Contains(text.out, "0x1018:02  Identity object: Product code    0x00000001\n"))
      << text.out;
  EXPECT_TRUE(Contains(text.out, "0x6041:00  Statuswords                      0x02")) << text.out;
}

TEST_F(EdsCommandsTest, MonitorShowsThePdosThatTheSheetMaps) {
  const Arguments monitor = {"monitor", "--seconds", "2.5", "--eds",
                             std::string(DATA_SHEETS) + "/amps.eds"};
  const auto heard = [&monitor](const Arguments& more) {
    Arguments all = monitor;
    all.insert(all.end(), more.begin(), more.end());
    Process process(all);
    EXPECT_TRUE(Eventually([&process] {
      bus::Command("cansend can1 185#3700000001000000");
      bus::Command("cansend can1 186#3700000002000000");
      return !process.Out().empty();
    }));
    process.Wait();
    return process.Out();
  };
  const std::string text = heard({});
  EXPECT_TRUE(Contains(text,
                       "\nTPDO1 of node 5: Statusword = 0x0037 Operation enabled; voltage "
                       "enabled | Error code = 0x0000 No error | Position actual internal "
                       "value = 1\nTPDO1 of node 6: "))
      << text;
  const std::string one = heard({"6", "--json"});
  EXPECT_TRUE(Contains(one, R"({"command":"monitor","event":"pdo","node":6,"pdo":"TPDO1",)"
                            R"("values":{"Statusword":55,"Error_code":0,)"
                            R"("Position_actual_internal_value":2}})"))
      << one;
  EXPECT_FALSE(Contains(one, R"("node":5)")) << one;
  EXPECT_FALSE(Contains(heard({"--make", "amps"}), "TPDO1 of node 5")) << "told as states";
}

TEST_F(EdsCommandsTest, AWrongSheetIsRefusedBeforeAnythingIsSent) {
  const std::string file = ::testing::TempDir() + "/wrong.eds";
  std::ofstream(file) << "[FileInfo]\na=1\na=2\n";
  for (const Arguments& command : {Arguments{"info", "1"}, Arguments{"monitor", "--once"},
                                   Arguments{"sdo", "read", "1", "0x1000", "0"}}) {
    Arguments all = command;
    all.insert(all.end(), {"--eds", file});
    const Result result = Motorctl(all);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "motorctl: " + file + ":3: [FileInfo] a: stands in line 2, too\n");
  }
  EXPECT_EQ(drive_.Received().sdo, 0U);
}

}  // namespace
