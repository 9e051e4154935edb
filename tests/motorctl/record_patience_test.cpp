// Who asks for a record waits as long as the recorder was told to.
#include <gtest/gtest.h>

#include "record_bench.h"

namespace {

constexpr auto kLongerThanAll = std::chrono::minutes(5);

TEST_F(RecordTest, AnswersThoughMuchIsToFollow) {
  Process recorder(Recording({}, "190"));
  AwaitStart(recorder);
  Process now({"record", "--now"});
  ASSERT_TRUE(support::Eventually([&] { return Folders().size() == 1; }, kLongerThanAll, kPause));
  EXPECT_EQ(now.Wait(), 0) << now.Err();
  EXPECT_EQ(now.Out(), Folders()[0] + "\n");
}

}  // namespace
