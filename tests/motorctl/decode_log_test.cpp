// Logs in words, line by line.
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <string>
#include <vector>

#include "decoded_log.h"

namespace motorctl {
namespace {

// ---- Input and output

// Lines wait for each other while there is more to read, and for nothing else.
TEST(DecodeLogTest, WritesInBlocksButNeverWaitsWithALine) {
  int log[2];
  ASSERT_EQ(::pipe(log), 0);
  int out[2];
  ASSERT_EQ(::pipe(out), 0);
  int writes = 0;
  auto decoded = std::async(std::launch::async, [&] {
    return DecodeLog(log[0], {}, [&](const std::string& lines) {
      ++writes;
      EXPECT_EQ(::write(out[1], lines.data(), lines.size()), static_cast<ssize_t>(lines.size()));
    });
  });
  const auto comes = [&](std::size_t lines) {
    while (lines > 0) {
      ::pollfd waiting = {out[0], POLLIN, 0};
      if (::poll(&waiting, 1, 30000) != 1) return false;
      char text[4096];
      const ssize_t bytes = ::read(out[0], text, sizeof text);
      lines -= static_cast<std::size_t>(std::count(text, text + bytes, '\n'));
    }
    return true;
  };
  std::string many;
  for (int i = 0; i < 100; ++i) many += "701#05\n";
  EXPECT_EQ(::write(log[1], "701#05\n701#", 11), 11);
  EXPECT_TRUE(comes(1));  // half a line is none
  EXPECT_EQ(::write(log[1], "05\n", 3), 3);
  EXPECT_TRUE(comes(1));
  EXPECT_EQ(::write(log[1], many.data(), many.size()), static_cast<ssize_t>(many.size()));
  EXPECT_TRUE(comes(100));
  ::close(log[1]);
  EXPECT_EQ(decoded.get(), 0U);
  EXPECT_EQ(writes, 3);
  for (const int descriptor : {log[0], out[0], out[1]}) ::close(descriptor);
}

TEST(DecodeLogTest, ReadsLinesAcrossItsBlocks) {
  std::string log;
  while (log.size() < 1000000) log += "(1690000000.123456) can0 601#2B4060000F000000\n";
  const Result result = DecodeText(log);
  EXPECT_EQ(result.malformed, 0U);
  EXPECT_EQ(result.lines.size(), log.size() / 46);
  EXPECT_EQ(DecodeText("701#05").lines.size(), 1U);  // without line break
}

// ---- Recorded logs

class RecordedLogTest : public testing::TestWithParam<const char*> {};

// Recorded from the simulated drives; the plain one with `candump -t a`, of a ZL drive.
TEST_P(RecordedLogTest, IsAnnotatedWordForWord) {
  const std::string name = GetParam();
  const Result result = DecodeText(ReadFile(name + ".log"), name == "plain" ? "zl" : name);
  EXPECT_EQ(result.malformed, 0U);
  std::string text;
  for (const std::string& line : result.lines) text += line + "\n";
  EXPECT_EQ(text, ReadFile(name + ".txt"));
}

TEST_P(RecordedLogTest, GivesOneJsonObjectForEachLine) {
  const std::string name = GetParam();
  const std::string log = ReadFile(name + ".log");
  const Result plain = DecodeText(log, name);
  const Result result = DecodeText(log, name, true);
  ASSERT_EQ(result.lines.size(), plain.lines.size());
  for (std::size_t i = 0; i < result.lines.size(); ++i) {
    const auto object = nlohmann::json::parse(result.lines[i]);
    EXPECT_EQ(object.at("interface"), "can1");
    EXPECT_FALSE(object.at("time").get<std::string>().empty());
    const auto frame_text = object.at("frame").get<std::string>();
    const auto frame = ParseLogLine(frame_text);
    ASSERT_TRUE(frame.has_value()) << result.lines[i];
    const auto text = object.at("text").get<std::string>();
    EXPECT_EQ(plain.lines[i].substr(plain.lines[i].size() - text.size()), text);
    EXPECT_EQ(DecodeFrame(*frame, FindMake(name)).text, text);
  }
}

INSTANTIATE_TEST_SUITE_P(Makes, RecordedLogTest,
                         testing::Values("zl", "tt", "hls", "amps", "kinco", "plain"),
                         [](const auto& make) { return std::string(make.param); });

TEST(DecodeLogTest, PassesMalformedLinesThroughMarkedAndCounted) {
  const Result result = DecodeText(
      "(1.0) can0 080#\n"
      "\n"
      "no frame\n"
      "(1.0) can0 601#2B406000\x1b[31m\xff\n"
      "(2.0) can0 701#05");
  EXPECT_EQ(result.malformed, 2U);
  EXPECT_EQ(result.lines,
            (std::vector<std::string>{
                "(1.0) can0 080#                                 SYNC",
                "no frame                                        ??? no frame in this line",
                "(1.0) can0 601#2B406000\\x1B[31m\\xFF             ??? no frame in this line",
                "(2.0) can0 701#05                               heartbeat of node 1: operational",
            }));
}

TEST(DecodeLogTest, GivesMalformedLinesToProgramsToo) {
  const Result result = DecodeText("(1.5) can0 701#05\n\"\xff\\\n", "", true);
  EXPECT_EQ(result.malformed, 1U);
  EXPECT_EQ(result.lines,
            (std::vector<std::string>{
                R"({"time":"1.5","interface":"can0","frame":"701#05","id":1793,"kind":"heartbeat",)"
                R"("node":1,"state":"operational","text":"heartbeat of node 1: operational"})",
                R"({"kind":"malformed","line":"\"\\xFF\\","text":"no frame in this line"})",
            }));
  EXPECT_EQ(nlohmann::json::parse(result.lines[1]).at("line"), "\"\\xFF\\");
}

TEST(DecodeLogTest, CutsLinesThatAreTooLong) {
  const std::string longest(1024, 'x');
  const Result result = DecodeText(longest + "\n" + longest + "x\n" + std::string(5000000, '\0'));
  EXPECT_EQ(result.malformed, 3U);
  ASSERT_EQ(result.lines.size(), 3U);
  EXPECT_EQ(result.lines[0], longest + "  ??? no frame in this line");
  EXPECT_EQ(result.lines[1], longest + "  ??? line too long");
  EXPECT_EQ(result.lines[2].size(), 1024 * 4 + std::string("  ??? line too long").size());
}

// Odd bytes at every place of a good line, and every place cut off: no crash, and always one line.
TEST(DecodeLogTest, SurvivesAnyChangeOfAByte) {
  for (const std::string good : {"(1690000000.123456) can0 601#2B4060000F000000",
                                 " (1.0)  can0  601   [8]  2B 40 60 00 0F 00 00 00"}) {
    for (std::size_t at = 0; at < good.size(); ++at) {
      for (const char byte : std::string("\0\t\r \"#()-9FGR[]_\\\x7f\x80\xc3\xff", 22)) {
        std::string line = good;
        line[at] = byte;
        const Result result = DecodeText(line, "zl", true);
        ASSERT_EQ(result.lines.size(), 1U);
        ASSERT_TRUE(nlohmann::json::accept(result.lines[0])) << result.lines[0];
      }
      EXPECT_LE(DecodeText(good.substr(0, at), "zl").lines.size(), 1U);
    }
  }
}

}  // namespace
}  // namespace motorctl
