// What is said to outputs that take nothing.
#include "lasting_output.h"

#include <gtest/gtest.h>

#include <optional>
#include <regex>

#include "context.h"
#include "eventually.h"
#include "held_output.h"
#include "processes.h"

namespace {

using motorctl::Context;
using motorctl::LastingOutput;
using Clock = std::chrono::steady_clock;

constexpr auto kLong = std::chrono::seconds(5);

TEST(LastingOutputTest, DropsWhatAHeldOutputDoesNotTakeAndSaysSoLater) {
  const Context context;
  HeldOutput out(STDOUT_FILENO);
  HeldOutput err(STDERR_FILENO);
  {
    LastingOutput output(context);
    for (int i = 0; i < 3000; ++i) output.Line("line " + std::to_string(i));
    for (int i = 0; i < 3000; ++i) output.Say("status " + std::to_string(i));
    EXPECT_TRUE(std::regex_search(out.Read("line 1023\n"), std::regex("line 0\nline 1\n")));
    EXPECT_TRUE(std::regex_search(err.Read("status 1023\n"), std::regex("motorctl: status 0\n")));
    std::string told;
    ASSERT_TRUE(support::Eventually([&] {
      output.Say("again");
      told += err.Read("again\n");
      const std::string lost = "motorctl: 19\\d\\d lines of standard ";
      return std::regex_search(told, std::regex(lost + "error are lost: it took nothing\n")) &&
             std::regex_search(told, std::regex(lost + "output are lost: it took nothing\n"));
    }));
  }
}

TEST(LastingOutputTest, EndsThoughItIsHeld) {
  const Context context;
  const HeldOutput out(STDOUT_FILENO);
  const HeldOutput err(STDERR_FILENO);
  const std::size_t threads = support::Threads();
  const auto begin = Clock::now();
  {
    LastingOutput output(context);
    output.Line("line");
    output.Say("status");
  }
  EXPECT_LT(Clock::now() - begin, kLong);
  EXPECT_TRUE(support::WaitThreads(threads));
}

TEST(LastingOutputTest, WritesWhatWaitsAtItsEnd) {
  const support::ProcessResult result = support::RunForked([] {
    const Context context;
    LastingOutput output(context);
    for (int i = 0; i < 100; ++i) output.Line("line " + std::to_string(i));
    output.Say("status");
  });
  EXPECT_EQ(result.exit_status, 0);
  EXPECT_TRUE(std::regex_search(result.out, std::regex("^line 0\n(line \\d+\n){98}line 99\n$")))
      << result.out;
  EXPECT_EQ(result.err, "motorctl: status\n");
}

TEST(LastingOutputTest, TellsThatTheReaderIsGone) {
  const Context context;
  ::signal(SIGPIPE, SIG_IGN);
  HeldOutput out(STDOUT_FILENO);
  LastingOutput output(context);
  output.Line("line");
  EXPECT_FALSE(output.NobodyReads());
  out.CloseReader();
  EXPECT_TRUE(support::Eventually([&] { return output.NobodyReads(); }));
}

}  // namespace
