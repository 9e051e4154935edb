// What a restore writes, in which order, and what it leaves alone.
#include "config_plan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config_pdo.h"

namespace motorctl {
namespace {

Bytes Number(std::uint32_t value, unsigned size) {
  Bytes bytes;
  for (unsigned i = 0; i < size; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  return bytes;
}

ConfigObject Object(std::uint16_t index, std::uint8_t sub, std::uint32_t value, unsigned size) {
  ConfigObject object;
  object.index = index;
  object.sub = sub;
  object.bytes = Number(value, size);
  return object;
}

Config With(std::vector<ConfigObject> objects) {
  Config config;
  config.node = 1;
  config.objects = std::move(objects);
  return config;
}

// "1800:01=80000181", in order.
std::vector<std::string> Writes(const ConfigPlan& plan) {
  std::vector<std::string> texts;
  for (const ConfigWrite& write : plan.writes) {
    std::string text = Place(write.object.index, write.object.sub).substr(2) + "=" +
                       ConfigValueText(write.object).substr(2);
    if (write.optional) text += "?";
    texts.push_back(text);
  }
  return texts;
}

using Texts = std::vector<std::string>;

std::vector<ConfigObject> Pdo(std::uint32_t cob_id, std::uint32_t type, std::uint32_t timer,
                              std::vector<std::uint32_t> mapped, unsigned count) {
  std::vector<ConfigObject> objects = {Object(0x1800, 1, cob_id, 4), Object(0x1800, 2, type, 1),
                                       Object(0x1800, 5, timer, 2), Object(0x1A00, 0, count, 1)};
  std::uint8_t sub = 1;
  for (const std::uint32_t entry : mapped) objects.push_back(Object(0x1A00, sub++, entry, 4));
  return objects;
}

TEST(ConfigPlan, DisablesAPdoMapsItAndEnablesItLast) {
  const Config drive = With(Pdo(0x181, 0xFF, 0, {0x60410010, 0x60640020, 0}, 2));
  const Config file = With(Pdo(0x182, 0xFE, 20, {0x606C0020, 0x60640020, 0x60410010}, 2));
  const ConfigPlan plan = PlanRestore(drive, file, {});
  EXPECT_EQ(Writes(plan), (Texts{"1800:01=80000181", "1A00:00=00", "1A00:01=606C0020",
                                 "1A00:02=60640020", "1A00:03=60410010?", "1A00:00=02",
                                 "1800:02=FE", "1800:05=0014", "1800:01=00000182"}));
  EXPECT_EQ(plan.writes[0].before, Number(0x181, 4));
  EXPECT_EQ(plan.writes[5].before, Number(0, 1));
  EXPECT_EQ(plan.writes[8].before, Number(0x80000181, 4));
  EXPECT_EQ(plan.changes.size(), 5U);
}

TEST(ConfigPlan, LeavesTheMappingWhereOnlyTheCommunicationDiffers) {
  const Config drive = With(Pdo(0x181, 0xFF, 0, {0x60410010}, 1));
  EXPECT_EQ(Writes(PlanRestore(drive, With(Pdo(0x181, 0xFF, 20, {0x60410010}, 1)), {})),
            (Texts{"1800:01=80000181", "1800:05=0014", "1800:01=00000181"}));
  EXPECT_EQ(Writes(PlanRestore(drive, With(Pdo(0x80000181, 0xFF, 0, {0x60410010}, 1)), {})),
            (Texts{"1800:01=80000181"}));
  EXPECT_EQ(Writes(PlanRestore(drive, drive, {})), Texts());
}

TEST(ConfigPlan, LeavesADisabledPdoDisabled) {
  const Config drive = With(Pdo(0x80000181, 0xFF, 0, {0x60410010}, 0));
  EXPECT_EQ(Writes(PlanRestore(drive, With(Pdo(0x80000181, 0xFE, 0, {0x60410010}, 1)), {})),
            (Texts{"1A00:01=60410010", "1A00:00=01", "1800:02=FE"}));
}

TEST(ConfigPlan, ChangesTheEmergencyIdentifierWhileItIsInvalid) {
  const Config drive = With({Object(0x1014, 0, 0x81, 4)});
  EXPECT_EQ(Writes(PlanRestore(drive, With({Object(0x1014, 0, 0x91, 4)}), {})),
            (Texts{"1014:00=80000081", "1014:00=00000091"}));
  EXPECT_EQ(Writes(PlanRestore(drive, With({Object(0x1014, 0, 0x80000081, 4)}), {})),
            (Texts{"1014:00=80000081"}));
}

TEST(ConfigPlan, WritesOtherObjectsFirstByTheirIndex) {
  std::vector<ConfigObject> held = {Object(0x1017, 0, 0, 2)};
  std::vector<ConfigObject> wanted = {Object(0x1017, 0, 500, 2)};
  for (const ConfigObject& object : Pdo(0x181, 0xFF, 0, {}, 0)) held.push_back(object);
  for (const ConfigObject& object : Pdo(0x181, 0xFE, 0, {}, 0)) wanted.push_back(object);
  held.push_back(Object(0x2012, 1, 1, 2));
  wanted.push_back(Object(0x2012, 1, 2, 2));
  EXPECT_EQ(Writes(PlanRestore(With(held), With(wanted), {})),
            (Texts{"1017:00=01F4", "2012:01=0002", "1800:01=80000181", "1800:02=FE",
                   "1800:01=00000181"}));
}

TEST(ConfigPlan, NamesWhatTheDriveDoesNotHave) {
  const ConfigPlan plan =
      PlanRestore(With({}), With({Object(0x1018, 1, 1, 4), Object(0x2012, 1, 2, 2)}), {});
  EXPECT_EQ(Writes(plan), Texts());
  ASSERT_EQ(plan.missing.size(), 1U);
  EXPECT_EQ(plan.missing[0].any().index, 0x2012);
}

TEST(ConfigPlan, NeverWritesWhatMovesTellsOrCommands) {
  struct Row {
    std::uint16_t index;
    std::uint8_t sub;
    const char* why;
  };
  const Row rows[] = {
      {0x6040, 0, "it moves"},  {0x60FF, 0, "it moves"},  {0x60FF, 2, "it moves"},
      {0x607A, 0, "it moves"},  {0x6071, 0, "it moves"},  {0x6060, 0, "it moves"},
      {0x2FF0, 9, "it moves"},  {0x6840, 0, "it moves"},  {0x68FF, 0, "it moves"},
      {0x7060, 0, "it moves"},  {0x1000, 0, "identity"},  {0x1018, 2, "identity"},
      {0x1008, 0, "identity"},  {0x1001, 0, "report"},    {0x1003, 1, "error history"},
      {0x1010, 1, "command"},   {0x1011, 1, "command"},   {0x1F51, 1, "program"},
      {0x1200, 1, "channel"},   {0x6041, 0, "report"},    {0x6864, 0, "report"},
      {0x60FE, 1, "outputs"},   {0x2010, 0, "a command"},  // zl: saves all parameters
      {0x4603, 0, "a command"},                            // hls: clears a fault
  };
  for (const Row& row : rows) {
    const Config drive = With({Object(row.index, row.sub, 1, 2)});
    const ConfigPlan plan = PlanRestore(drive, With({Object(row.index, row.sub, 2, 2)}), {true});
    EXPECT_EQ(Writes(plan), Texts()) << std::hex << row.index;
    ASSERT_EQ(plan.left.size(), 1U) << std::hex << row.index;
    EXPECT_NE(plan.left[0].why.find(row.why), std::string::npos)
        << std::hex << row.index << plan.left[0].why;
  }
}

TEST(ConfigPlan, NeverWritesWhatIsReadOnlyOrChangesByItself) {
  const Config drive = With({Object(0x2012, 1, 1, 2)});
  for (const char* access : {"ro", "const"}) {
    Config file = With({Object(0x2012, 1, 2, 2)});
    file.objects[0].access = access;
    EXPECT_EQ(Writes(PlanRestore(drive, file, {})), Texts()) << access;
  }
  Config file = With({Object(0x2012, 1, 2, 2)});
  file.objects[0].is_volatile = true;
  EXPECT_EQ(Writes(PlanRestore(drive, file, {})), Texts());
  file.objects[0].is_volatile = false;
  EXPECT_EQ(Writes(PlanRestore(drive, file, {})), Texts{"2012:01=0002"});
  // The number of entries, which a mapping only has free.
  const Config held = With({Object(0x2012, 0, 1, 1), Object(0x2012, 1, 1, 2)});
  EXPECT_EQ(Writes(PlanRestore(held, With({Object(0x2012, 0, 2, 1), Object(0x2012, 1, 1, 2)}), {})),
            Texts());
}

TEST(ConfigPlan, WritesNodeIdAndBitRateOnlyWhenTold) {
  for (const char* name : {"Node-ID", "CAN bit rate", "Baudrate"}) {
    const Config drive = With({Object(0x2F00, 0, 1, 1)});
    Config file = With({Object(0x2F00, 0, 2, 1)});
    file.objects[0].name = name;
    EXPECT_EQ(Writes(PlanRestore(drive, file, {})), Texts()) << name;
    EXPECT_EQ(Writes(PlanRestore(drive, file, {true})), Texts{"2F00:00=02"}) << name;
  }
}

TEST(ConfigPdo, IsHeardAtTheIdentifierOfItsCobId) {
  EXPECT_EQ(IdentifierOf(0x201), 0x201U);
  EXPECT_EQ(IdentifierOf(0x7FF), 0x7FFU);
  EXPECT_EQ(IdentifierOf(0x40000201), 0x201U);  // without remote requests
  EXPECT_EQ(IdentifierOf(0x80000201), std::nullopt);
  EXPECT_EQ(IdentifierOf(0x20000201), std::nullopt);
  EXPECT_EQ(IdentifierOf(0x800), std::nullopt);
  EXPECT_EQ(IdentifierOf(0), std::nullopt);
}

TEST(ConfigPlan, MovesIdentifiersToAnotherNode) {
  Config config = With({Object(0x1014, 0, 0x81, 4), Object(0x1400, 1, 0x80000201, 4),
                        Object(0x1401, 1, 0x333, 4), Object(0x1800, 1, 0x40000181, 4),
                        Object(0x1800, 2, 1, 1), Object(0x2000, 1, 0x181, 4)});
  EXPECT_EQ(MoveToNode(config, 3).size(), 3U);
  EXPECT_EQ(config.objects[0].bytes, Number(0x83, 4));
  EXPECT_EQ(config.objects[1].bytes, Number(0x80000203, 4));
  EXPECT_EQ(config.objects[2].bytes, Number(0x333, 4));
  EXPECT_EQ(config.objects[3].bytes, Number(0x40000183, 4));
  EXPECT_EQ(config.objects[5].bytes, Number(0x181, 4));
  EXPECT_EQ(MoveToNode(config, 3).size(), 0U);
}

}  // namespace
}  // namespace motorctl
