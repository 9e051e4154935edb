// A plan is written, or the drive is as it was, or what is not is named: on a drive of memory.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "context.h"
#include "restore_plan.h"

namespace motorctl {
namespace {

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

TEST(ConfigRestore, WritesAndReadsEveryObject) {
  MemoryDrive drive;
  bool finished = false;
  const ConfigOutcome outcome =
      WritePlan(Plan(), kIdentity, drive, [&finished](const ConfigOutcome&) { finished = true; });
  EXPECT_EQ(outcome.failure, "");
  EXPECT_TRUE(finished);
  EXPECT_EQ(drive.writes, kSteps);
  EXPECT_GE(drive.reads, kSteps);
  EXPECT_EQ(Held(drive), kAfter);
}

TEST(ConfigRestore, WritesOldValuesBackInReverseAfterARefusal) {
  for (int step = 1; step <= kSteps; ++step) {
    MemoryDrive drive;
    drive.abort_at = step;
    const ConfigOutcome outcome = Restore(drive);
    EXPECT_TRUE(Contains(outcome.failure, "0x06090030")) << outcome.failure;
    EXPECT_EQ(outcome.not_as_they_were.size(), 0U);
    EXPECT_EQ(Held(drive), kBefore) << step;
    ASSERT_EQ(drive.log.size(), static_cast<std::size_t>(2 * step));
    for (int i = 0; i < step; ++i) {
      EXPECT_EQ(drive.log[static_cast<std::size_t>(i)].first,
                drive.log[static_cast<std::size_t>(2 * step - 1 - i)].first);
    }
    EXPECT_EQ(drive.log.back().second, Bytes{1});
  }
}

TEST(ConfigRestore, RepeatsAWriteThatWasLost) {
  for (int step = 1; step <= kSteps; ++step) {
    MemoryDrive lost;
    lost.lose_at = step;
    EXPECT_EQ(Restore(lost).failure, "") << step;
    EXPECT_EQ(Held(lost), kAfter);
    MemoryDrive unconfirmed;
    unconfirmed.lose_answer_at = step;
    EXPECT_EQ(Restore(unconfirmed).failure, "") << step;
    EXPECT_EQ(Held(unconfirmed), kAfter);
  }
}

TEST(ConfigRestore, UndoesWhatIsReadBackDifferently) {
  MemoryDrive drive;
  drive.lies_at = {0x2000, 4};
  const ConfigOutcome outcome = Restore(drive);
  EXPECT_TRUE(Contains(outcome.failure, "0x2000:04: was written as 0x14 and is read back as 0x94"))
      << outcome.failure;
  EXPECT_EQ(Held(drive), kBefore);
  // It still lies: nobody can tell what it holds.
  ASSERT_EQ(outcome.not_as_they_were.size(), 1U);
  EXPECT_EQ(outcome.not_as_they_were[0], "0x2000:04 was 0x04 and is 0x84");
}

TEST(ConfigRestore, UndoesEverythingWhenItIsInterrupted) {
  for (int step = 0; step <= kSteps; ++step) {
    MemoryDrive drive;
    drive.disturb_after = step;
    const ConfigOutcome outcome = Restore(drive);
    EXPECT_EQ(outcome.failure, "interrupted") << step;
    EXPECT_EQ(outcome.not_as_they_were.size(), 0U);
    EXPECT_EQ(Held(drive), kBefore) << step;
    EXPECT_EQ(drive.writes, 2 * step);
  }
}

TEST(ConfigRestore, UndoesEverythingWhenItCannotBeFinished) {
  MemoryDrive drive;
  const ConfigOutcome outcome = WritePlan(Plan(), kIdentity, drive, [](const ConfigOutcome&) {
    throw CommandFailed("standard output");
  });
  EXPECT_EQ(outcome.failure, "standard output");
  EXPECT_EQ(Held(drive), kBefore);
}

TEST(ConfigRestore, NamesWhatCouldNotBeWrittenBack) {
  for (int step = 1; step <= kSteps; ++step) {
    MemoryDrive drive;
    drive.refuse_after = step;
    const ConfigOutcome outcome = Restore(drive);
    if (step == kSteps) {
      EXPECT_EQ(outcome.failure, "");
      continue;
    }
    EXPECT_TRUE(Contains(outcome.failure, "0x08000022")) << outcome.failure;
    // Those that were written, and not the one that was refused.
    ASSERT_EQ(outcome.not_as_they_were.size(), static_cast<std::size_t>(std::min(step, 5)));
    EXPECT_EQ(outcome.not_as_they_were[0], "0x2000:01 was 0x01 and is 0x80");
  }
}

TEST(ConfigRestore, NamesAllThatWasTouchedInADriveThatVanished) {
  MemoryDrive drive;
  drive.die_after = 3;
  const ConfigOutcome outcome = Restore(drive);
  EXPECT_TRUE(Contains(outcome.failure, "0x2000:04")) << outcome.failure;
  EXPECT_TRUE(
      Contains(outcome.failure, "nothing is written back, for the drive answers no longer"));
  EXPECT_EQ(outcome.not_as_they_were,
            (std::vector<std::string>{"0x2000:01 was 0x01", "0x2000:02 was 0x02",
                                      "0x2000:03 was 0x03", "0x2000:04 was 0x04"}));
}

TEST(ConfigRestore, WritesNothingIntoAnotherDrive) {
  MemoryDrive swapped;
  swapped.swap_after = 3;
  swapped.serial_after = {5, 0, 0, 0};
  const ConfigOutcome outcome = Restore(swapped);
  EXPECT_EQ(outcome.failure,
            "node 1 booted up in the middle; nothing is written back, for this is another drive: "
            "its serial number is 0x00000005, not 0x00000004");
  EXPECT_EQ(swapped.writes, 3);
  EXPECT_EQ(outcome.not_as_they_were.size(), 3U);

  // One that boots up without a serial number may be another one.
  MemoryDrive nameless;
  nameless.swap_after = 3;
  const ConfigOutcome unknown = Restore(nameless, {1, 2, 3, std::nullopt});
  EXPECT_TRUE(Contains(unknown.failure, "it may be another one")) << unknown.failure;
  EXPECT_EQ(nameless.writes, 3);
}

TEST(ConfigRestore, SeesASwapThatNoBootUpTold) {
  MemoryDrive drive;
  drive.values[{0x1018, 4}] = {9, 0, 0, 0};
  const ConfigOutcome outcome = Restore(drive);
  EXPECT_TRUE(Contains(outcome.failure, "this is another drive")) << outcome.failure;
  EXPECT_EQ(drive.writes, kSteps);
}

// What was not answered is sent once more, and not to the drive that was put in meanwhile.
TEST(ConfigRestore, WritesNothingIntoADriveThatTookItsPlaceDuringAWrite) {
  for (int step = 1; step <= kSteps; ++step) {
    for (const bool tells_boot_up : {true, false}) {
      MemoryDrive drive;
      drive.vanish_at = step;
      drive.requests_until_back = 1;
      drive.tells_boot_up = tells_boot_up;
      drive.serial_after = {5, 0, 0, 0};
      const ConfigOutcome outcome = Restore(drive);
      EXPECT_TRUE(Contains(outcome.failure, "nothing is written back, for this is another drive"))
          << outcome.failure;
      EXPECT_EQ(drive.writes, step);
      EXPECT_EQ(outcome.not_as_they_were.size(), static_cast<std::size_t>(std::min(step, 5)));
    }
  }
}

TEST(ConfigRestore, WritesBackIntoTheSameDriveThatBootedUp) {
  MemoryDrive drive;
  drive.swap_after = 3;
  const ConfigOutcome outcome = Restore(drive);
  EXPECT_EQ(outcome.failure, "node 1 booted up in the middle");
  EXPECT_EQ(outcome.not_as_they_were.size(), 0U);
  EXPECT_EQ(Held(drive), kBefore);
}

// The fourth write is refused; of the four write backs one is lost, and then the drive is silent.
MemoryDrive VanishesDuringTheUndo(int write_back) {
  MemoryDrive drive;
  drive.abort_at = 4;
  drive.vanish_at = 4 + write_back;
  drive.requests_until_back = 3;
  return drive;
}

TEST(ConfigRestore, WritesNothingIntoADriveThatTookItsPlaceDuringTheUndo) {
  for (int lost = 1; lost <= 4; ++lost) {
    MemoryDrive drive = VanishesDuringTheUndo(lost);
    drive.serial_after = {5, 0, 0, 0};
    const ConfigOutcome outcome = Restore(drive);
    EXPECT_TRUE(Contains(outcome.failure,
                         "; not all is written back, for this is another drive: its serial number "
                         "is 0x00000005, not 0x00000004"))
        << outcome.failure;
    EXPECT_EQ(drive.writes, drive.vanish_at);
    EXPECT_EQ(outcome.not_as_they_were.size(), 4U);

    // Only its boot-up tells that it may be another one.
    MemoryDrive nameless = VanishesDuringTheUndo(lost);
    const ConfigOutcome unknown = Restore(nameless, {1, 2, 3, std::nullopt});
    EXPECT_TRUE(Contains(unknown.failure, "it may be another one")) << unknown.failure;
    EXPECT_EQ(nameless.writes, nameless.vanish_at);
    EXPECT_EQ(unknown.not_as_they_were.size(), 4U);
  }
}

TEST(ConfigRestore, GoesOnWithTheUndoWhenTheSameDriveIsBack) {
  for (int lost = 1; lost <= 4; ++lost) {
    MemoryDrive drive = VanishesDuringTheUndo(lost);
    const ConfigOutcome outcome = Restore(drive);
    EXPECT_TRUE(Contains(outcome.failure, "0x06090030")) << outcome.failure;
    EXPECT_FALSE(Contains(outcome.failure, "written back")) << outcome.failure;
    EXPECT_EQ(drive.writes, 4 + 4 + 1);
    EXPECT_EQ(Held(drive), kBefore) << lost;
    EXPECT_EQ(outcome.not_as_they_were.size(), 0U);
  }
}

TEST(ConfigRestore, NamesAllWhenTheDriveStaysAwayDuringTheUndo) {
  MemoryDrive drive = VanishesDuringTheUndo(2);
  drive.requests_until_back = MemoryDrive::kNever;
  const ConfigOutcome outcome = Restore(drive);
  EXPECT_TRUE(Contains(outcome.failure,
                       "; not all is written back, for the drive answers no "
                       "longer"))
      << outcome.failure;
  EXPECT_EQ(outcome.not_as_they_were.size(), 4U);
}

TEST(ConfigRestore, SeesAnObjectThatAnotherOneSetsBack) {
  MemoryDrive drive;
  drive.sets_back_by = {0x2000, 5};
  std::vector<ConfigWrite> plan = Plan();
  plan.pop_back();  // 0x2000:01 is not written after 0x2000:05
  const ConfigOutcome outcome = WritePlan(plan, kIdentity, drive, [](const ConfigOutcome&) {});
  EXPECT_TRUE(Contains(outcome.failure, "0x2000:01: was written as 0x80, and in the end is 0x01"))
      << outcome.failure;
  EXPECT_EQ(Held(drive), kBefore);
  EXPECT_EQ(outcome.not_as_they_were.size(), 0U);
}

TEST(ConfigRestore, DoesNotMindARefusalOfWhatNothingUses) {
  MemoryDrive drive;
  std::vector<ConfigWrite> plan = Plan();
  plan[2].optional = true;
  drive.abort_at = 3;
  const ConfigOutcome outcome = WritePlan(plan, kIdentity, drive, [](const ConfigOutcome&) {});
  EXPECT_EQ(outcome.failure, "");
  EXPECT_EQ(outcome.refused, std::vector<std::string>{"0x2000:03"});
  EXPECT_EQ(Held(drive), (std::vector<int>{0x11, 0x12, 3, 0x14, 0x15}));
}

TEST(ConfigRestore, LeavesOutWhatTheDriveCallsReadOnly) {
  for (const std::uint32_t code : {0x06010002U, 0x06010000U}) {
    MemoryDrive drive;
    drive.abort_at = 3;
    drive.abort_code = code;
    std::vector<std::string> told;
    const ConfigOutcome outcome = WritePlan(
        Plan(), kIdentity, drive, [&told](const ConfigOutcome& done) { told = done.read_only; });
    EXPECT_EQ(outcome.failure, "");
    EXPECT_EQ(outcome.read_only, std::vector<std::string>{"0x2000:03"});
    EXPECT_EQ(told, outcome.read_only);
    EXPECT_EQ(Held(drive), (std::vector<int>{0x11, 0x12, 3, 0x14, 0x15}));
  }
}

// It may be the drive's own report, and have changed by itself.
TEST(ConfigRestore, WritesNothingBackThatItDidNotWrite) {
  MemoryDrive drive;
  drive.abort_at = 3;
  drive.abort_code = 0x06010002;
  drive.lies_at = {0x2000, 4};
  drive.values[{0x2000, 3}] = {77};
  const ConfigOutcome outcome = Restore(drive);
  EXPECT_TRUE(Contains(outcome.failure, "0x2000:04")) << outcome.failure;
  EXPECT_EQ(outcome.not_as_they_were, std::vector<std::string>{"0x2000:04 was 0x04 and is 0x84"});
  EXPECT_EQ(Held(drive), (std::vector<int>{1, 2, 77, 4, 5}));
}

TEST(ConfigRestore, UndoesWhereARefusalMattersThoughItIsCalledReadOnly) {
  // The access is known; the object is of a PDO; another refusal.
  for (int way = 0; way < 3; ++way) {
    MemoryDrive drive;
    drive.abort_at = 3;
    drive.abort_code = way == 2 ? 0x06090030 : 0x06010002;
    std::vector<ConfigWrite> plan = Plan();
    if (way == 0) plan[2].object.access = "rw";
    if (way == 1) plan[2].object.index = 0x1A00;
    const ConfigOutcome outcome = WritePlan(plan, kIdentity, drive, [](const ConfigOutcome&) {});
    EXPECT_TRUE(Contains(outcome.failure, "refused with abort code")) << way;
    EXPECT_EQ(outcome.read_only.size(), 0U);
    EXPECT_EQ(Held(drive), kBefore) << way;
  }
}

}  // namespace
}  // namespace motorctl
