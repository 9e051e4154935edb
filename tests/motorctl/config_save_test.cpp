// motorctl config save and diff, against simulated drives.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "config_bench.h"

namespace {

class SaveMakeTest : public ConfigBench, public ::testing::WithParamInterface<tested::Make> {
 protected:
  const std::string make_ = GetParam().name;
  sim::SimulatedDrive drive_{Options(make_)};
};

INSTANTIATE_TEST_SUITE_P(Makes, SaveMakeTest, ::testing::ValuesIn(tested::Makes()), MakeName);

TEST_P(SaveMakeTest, SavesTheSameValuesWithAndWithoutADataSheet) {
  bus::FarEnd record;
  const Result saved = Save(make_);
  ASSERT_EQ(saved.status, 0) << saved.err;
  EXPECT_EQ(saved.out, "");
  EXPECT_TRUE(Contains(saved.err, " objects saved, 0 of them change by themselves")) << saved.err;
  EXPECT_EQ(NotReads(record.Frames()), std::vector<std::string>());
  const std::string text = ReadText(file_);
  EXPECT_TRUE(Contains(text, "  product: 0x0000000")) << text;
  EXPECT_TRUE(Contains(text, "  name: \"Simulated drive " + make_ + "\"\n")) << text;
  EXPECT_TRUE(Contains(text, "tool: \"motorctl " MOTORCTL_VERSION "\"\n"));

  const Result bare = Motorctl({"config", "save", "1", "--make", make_});
  ASSERT_EQ(bare.status, 0) << bare.err;
  const std::string other = file_ + ".bare";
  std::ofstream(other) << bare.out;
  const Result diff = Motorctl({"config", "diff", file_, other});
  EXPECT_EQ(diff.status, 0) << diff.out << diff.err;
  EXPECT_EQ(diff.out, "");
  std::remove(other.c_str());
}

TEST_P(SaveMakeTest, WritesADcfThatHoldsTheSame) {
  ASSERT_EQ(Save(make_).status, 0);
  const std::string dcf = file_ + ".dcf";
  const Result saved =
      Motorctl({"config", "save", "1", "--eds", EdsOf(make_), "--dcf", "--output", dcf});
  ASSERT_EQ(saved.status, 0) << saved.err;
  EXPECT_TRUE(Contains(ReadText(dcf), "\n[DeviceComissioning]\nNodeID=1\n"));
  // An empty text cannot be written there.
  const Result diff = Motorctl({"config", "diff", file_, dcf, "--json"});
  for (const Json& line : diff.Objects()) {
    EXPECT_EQ(line["left"], "") << line;
    EXPECT_EQ(line["right"], nullptr) << line;
  }
  EXPECT_LE(diff.Objects().size(), 1U);
  std::remove(dcf.c_str());
}

class SaveTest : public ConfigBench {};

// Neither the file nor an unfinished one.
bool LeavesNothing(const std::string& file) {
  const std::size_t slash = file.rfind('/');
  const std::string name = file.substr(slash + 1);
  DIR* const directory = ::opendir(file.substr(0, slash).c_str());
  bool nothing = true;
  while (const dirent* entry = ::readdir(directory)) {
    nothing = nothing && std::string(entry->d_name).compare(0, name.size(), name) != 0;
  }
  ::closedir(directory);
  return nothing;
}

TEST_F(SaveTest, MarksWhatChangesByItself) {
  sim::SimulatedDrive drive(Options("zl"));
  ASSERT_EQ(Motorctl({"bring-up", "1", "--make", "zl", "--period", "20"}).status, 0);
  bus::FarEnd("can0").Send("201#3C000000C4FFFFFF");
  ASSERT_TRUE(Eventually([&drive] { return drive.SpeedRpm() > 50; }));
  const Result saved = Save();
  ASSERT_EQ(saved.status, 0) << saved.err;
  EXPECT_FALSE(Contains(saved.err, " 0 of them change")) << saved.err;
  const std::string text = ReadText(file_);
  for (const char* object : {"0x6064, sub: 1", "0x6064, sub: 2"}) {
    const std::size_t at = text.find(object);
    ASSERT_NE(at, std::string::npos);
    EXPECT_TRUE(Contains(text.substr(at, text.find('\n', at) - at), "volatile: true")) << object;
  }
}

TEST_F(SaveTest, WritesNothingForADriveThatFails) {
  struct Row {
    const char* fault;
    const char* message;
  };
  const Row rows[] = {
      {"power-cut-after-ms=0", "node 1 does not answer"},
      {"truncate-replies=4", "node 1 does not answer"},
      {"wrong-index", "node 1 does not answer"},
      {"delay-replies-ms=400", "--timeout waits longer"},
      {"abort-object=0x1017",
       "could not be read: 0x1017:00 (Producer heartbeat time): refused with"},
      {"ignore-object=0x1017", "could not be read: 0x1017:00 (Producer heartbeat time): no answer"},
      {"abort-segment=2", "could not be read: 0x1008:00"},
      {"wrong-toggle=1", "could not be read: 0x1008:00"},
      {"wrong-size=90", "could not be read: 0x1008:00"},
  };
  for (const Row& row : rows) {
    sim::SimulatedDrive drive(Options("zl"));
    drive.Inject(row.fault);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const Result saved = Save();
    EXPECT_EQ(saved.status, 1) << row.fault;
    EXPECT_TRUE(Contains(saved.err, row.message)) << row.fault << "\n" << saved.err;
    EXPECT_TRUE(LeavesNothing(file_)) << row.fault;
  }
}

TEST_F(SaveTest, TakesWhatDoesNotMatterAsItIs) {
  for (const char* fault : {"duplicate-replies", "no-size", "ignore-segment=2",
                            "delay-replies-ms=30", "error-after-ms=1/0x2310"}) {
    sim::SimulatedDrive drive(Options("tt"));
    drive.Inject(fault);
    const Result saved = Motorctl(
        {"config", "save", "1", "--eds", EdsOf("tt"), "--output", file_, "--timeout", "400"});
    EXPECT_EQ(saved.status, 0) << fault << "\n" << saved.err;
  }
}

TEST_F(SaveTest, SavesTheRestWhenItIsTold) {
  sim::SimulatedDrive drive(Options("zl"));
  drive.Inject("abort-object=0x1017");
  const Result saved =
      Motorctl({"config", "save", "1", "--eds", EdsOf("zl"), "--output", file_, "--partial"});
  EXPECT_EQ(saved.status, 0) << saved.err;
  EXPECT_TRUE(Contains(saved.err, "could not be read: 0x1017:00")) << saved.err;
  EXPECT_TRUE(Contains(ReadText(file_), "\npartial: true\n"));
  EXPECT_FALSE(Contains(ReadText(file_), "0x1017"));
}

TEST_F(SaveTest, NamesADriveThatGoesAwayOrBootsUpInTheMiddle) {
  for (const bool returns : {false, true}) {
    sim::SimulatedDrive drive(Options("zl"));
    std::ofstream(file_) << "older";
    Process save({"config", "save", "1", "--output", file_});
    ASSERT_TRUE(Eventually([&drive] { return drive.Received().sdo > 100; }));
    drive.PowerCut();
    if (returns) drive.PowerOn();
    EXPECT_EQ(save.Wait(), 1);
    EXPECT_TRUE(Contains(
        save.Err(), returns ? "node 1 booted up in the middle" : "node 1 answers no longer, at 0x"))
        << save.Err();
    EXPECT_EQ(ReadText(file_), "older");
  }
}

TEST_F(SaveTest, LeavesNothingWhenItIsInterrupted) {
  sim::SimulatedDrive drive(Options("zl"));
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    Process save({"config", "save", "1", "--output", file_});
    const std::size_t before = drive.Received().sdo;
    ASSERT_TRUE(Eventually([&] { return drive.Received().sdo > before + 100; }));
    save.Signal(signal);
    EXPECT_EQ(save.Wait(), 1) << signal;
    EXPECT_EQ(save.Err(), "motorctl: interrupted\n");
    EXPECT_TRUE(LeavesNothing(file_));
  }
}

TEST_F(SaveTest, NamesAFileThatCannotBeWritten) {
  sim::SimulatedDrive drive(Options("tt"));
  const auto save = [](const std::string& file) {
    return Motorctl({"config", "save", "1", "--eds", EdsOf("tt"), "--output", file});
  };
  EXPECT_EQ(save("/absent/file").status, 1);
  EXPECT_TRUE(Contains(save("/absent/file").err, "/absent/file: No such file"));
  EXPECT_TRUE(Contains(save("/dev/null").err, "/dev/null: is not a regular file"));
  Process full({"config", "save", "1", "--eds", EdsOf("tt")}, Output::kFile);
  EXPECT_EQ(full.Wait(), 0);
}

TEST_F(SaveTest, ShowsWhereItIsOnATerminal) {
  sim::SimulatedDrive drive(Options("zl"));
  Process save({"config", "save", "1", "--output", file_}, Output::kTerminal);
  EXPECT_EQ(save.Wait(), 0);
  EXPECT_TRUE(Contains(save.Out(), "] node 1, 0x")) << save.Out();
  EXPECT_TRUE(Contains(save.Out(), " s left")) << save.Out();
}

TEST_F(SaveTest, DiffTellsByItsStatus) {
  sim::SimulatedDrive drive(Options("zl"));
  ASSERT_EQ(Save().status, 0);
  const Arguments diff = {"config", "diff", file_, "1", "--eds", EdsOf("zl")};
  Result result = Motorctl(diff);
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  drive.WriteObject(0x1017, 0, 333);
  drive.WriteObject(0x1800, 1, 0x80000181);
  result = Motorctl(diff);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out,
            "0x1017:00  Producer heartbeat time  0 -> 333\n"
            "0x1800:01  TPDO1 communication: COB-ID  0x00000181 -> 0x80000181\n");
  result = Motorctl({"config", "diff", file_, "1", "--eds", EdsOf("zl"), "--json"});
  ASSERT_EQ(result.Objects().size(), 2U);
  EXPECT_EQ(result.Objects()[0]["index"], 0x1017);
  EXPECT_EQ(result.Objects()[0]["left"], "0");
  EXPECT_EQ(result.Objects()[0]["right"], "333");

  for (const Arguments& trouble :
       {Arguments{"config", "diff", file_, "/absent"}, Arguments{"config", "diff", file_, "128"},
        Arguments{"config", "diff", file_, "9", "--eds", EdsOf("zl")},
        Arguments{"config", "diff", file_}, Arguments{"config", "diff", file_, EdsOf("zl")}}) {
    const Result failed = Motorctl(trouble);
    EXPECT_EQ(failed.status, 2) << failed.err;
    EXPECT_NE(failed.err, "");
    EXPECT_EQ(failed.out, "");
  }
}

TEST_F(SaveTest, WrongUsageEndsWithTwo) {
  for (const Arguments& wrong :
       {Arguments{"config"}, Arguments{"config", "save"}, Arguments{"config", "save", "0"},
        Arguments{"config", "save", "1", "--dcf"}, Arguments{"config", "restore", "a"},
        Arguments{"config", "restore", "a", "128"}}) {
    EXPECT_EQ(Motorctl(wrong).status, 2);
  }
}

}  // namespace
