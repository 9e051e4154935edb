// What a walk through the objects of a drive finds: on a drive of memory.
#include "config_walk.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "context.h"
#include "memory_drive.h"

namespace motorctl {
namespace {

bool Contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

ConfigWalk Walk(MemoryDrive& drive) {
  return WalkDevice(drive, 1, nullptr, nullptr, [](double, std::uint16_t) {});
}

TEST(ConfigWalk, FindsObjectsAndMarksThoseThatChange) {
  MemoryDrive drive;
  drive.values[{0x2000, 0}] = {5};
  drive.values[{0x3000, 0}] = {7};  // a number, and no sub-indices
  drive.values[{0x3001, 0}] = {9};  // one sub-index of nine
  drive.values[{0x3001, 9}] = {1, 2};
  drive.values[{0x4000, 0}] = {0, 0};
  drive.values[{0x1018, 0}] = {4};
  drive.changes = 0x4000;
  const ConfigWalk walk = Walk(drive);
  EXPECT_EQ(walk.unread.size(), 0U);
  std::vector<std::string> places;
  for (const ConfigObject& object : walk.config.objects) {
    places.push_back(Place(object.index, object.sub));
    EXPECT_EQ(object.is_volatile, object.index == 0x4000);
  }
  EXPECT_EQ(places, (std::vector<std::string>{"0x1000:00", "0x1018:00", "0x1018:01", "0x1018:02",
                                              "0x1018:03", "0x1018:04", "0x2000:00", "0x2000:01",
                                              "0x2000:02", "0x2000:03", "0x2000:04", "0x2000:05",
                                              "0x3000:00", "0x3001:00", "0x3001:09", "0x4000:00"}));
  EXPECT_EQ(walk.config.identity.serial, 4U);
}

TEST(ConfigWalk, NamesWhatCannotBeRead) {
  MemoryDrive drive;
  drive.values[{0x2000, 0}] = {5};
  drive.fail_read[{0x2000, 3}] = true;
  const ConfigWalk walk = Walk(drive);
  ASSERT_EQ(walk.unread.size(), 1U);
  EXPECT_TRUE(Contains(walk.unread[0], "0x2000:03: refused with abort code 0x08000000"));
  EXPECT_TRUE(walk.config.partial);
}

TEST(ConfigWalk, FailsWithoutAnAnswerAndWhenItIsDisturbed) {
  MemoryDrive silent;
  silent.silent = true;
  try {
    Walk(silent);
    ADD_FAILURE();
  } catch (const CommandFailed& failure) {
    EXPECT_TRUE(Contains(failure.what(), "node 1 does not answer, at 0x1000:00")) << failure.what();
  }
  MemoryDrive booted;
  booted.booted = true;
  EXPECT_THROW(Walk(booted), CommandFailed);
  MemoryDrive interrupted;
  interrupted.disturb_after = 0;
  EXPECT_THROW(Walk(interrupted), CommandFailed);
}

}  // namespace
}  // namespace motorctl
