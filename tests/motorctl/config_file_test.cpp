// The file of a configuration: written and read again, and every file that is none.
#include "config_file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "config_diff.h"
#include "ini_file.h"

namespace motorctl {
namespace {

ConfigObject Object(std::uint16_t index, std::uint8_t sub, std::optional<DataType> type,
                    Bytes bytes) {
  ConfigObject object;
  object.index = index;
  object.sub = sub;
  object.type = type;
  object.bytes = std::move(bytes);
  return object;
}

Config Sample() {
  Config config;
  config.tool = "motorctl 1.2.3";
  config.time = "2026-01-02T03:04:05Z";
  config.node = 5;
  config.identity = {0x00FFFF01, 7, std::nullopt, 9};
  config.device = "a \"drive\" \\ of one";
  config.objects = {
      Object(0x1017, 0, DataType::kUnsigned16, {0xF4, 0x01}),
      Object(0x1800, 1, DataType::kUnsigned32, {0x81, 0x01, 0x00, 0x80}),
      Object(0x2000, 0, std::nullopt, {0x34, 0x12}),
      Object(0x2000, 1, std::nullopt, {1, 2, 3, 4, 5, 6, 7, 8, 9}),
      Object(0x2000, 2, std::nullopt, {}),
      Object(0x2001, 0, DataType::kInteger32, {0xE2, 0xFF, 0xFF, 0xFF}),
      Object(0x2002, 0, DataType::kReal32, {0xCD, 0xCC, 0xCC, 0xBD}),
      Object(0x2003, 0, DataType::kVisibleString, {' ', '"', 'a', '\\', 0x1B, '}', ' '}),
      Object(0x2003, 1, DataType::kVisibleString, {}),
      Object(0x2004, 0, DataType::kOctetString, {0xFF, 0x00}),
      Object(0x2005, 0, DataType::kUnicodeString, {0x41, 0x00, 0x34, 0x12}),
      // Of the wrong size for its type: written without it.
      Object(0x2006, 0, DataType::kUnsigned16, {1, 2, 3, 4}),
      Object(0x2007, 0, DataType::kInteger64, {0, 0, 0, 0, 0, 0, 0, 0x80}),
  };
  config.objects[0].access = "rw";
  config.objects[0].name = "Heartbeat: 100 % \x1b[2J";
  config.objects[2].is_volatile = true;
  return config;
}

TEST(ConfigFile, ReadsBackTheBytesThatWereWritten) {
  const Config written = Sample();
  const std::string text = WriteConfig(written);
  const Config read = ReadConfig(text, "a.yaml");
  ASSERT_EQ(read.objects.size(), written.objects.size());
  for (std::size_t i = 0; i < read.objects.size(); ++i) {
    EXPECT_EQ(read.objects[i].bytes, written.objects[i].bytes) << text;
    EXPECT_EQ(read.objects[i].index, written.objects[i].index);
    EXPECT_EQ(read.objects[i].sub, written.objects[i].sub);
    EXPECT_EQ(read.objects[i].is_volatile, written.objects[i].is_volatile);
  }
  EXPECT_EQ(WriteConfig(read), text);
  EXPECT_EQ(read.node, 5);
  EXPECT_EQ(read.identity.vendor, 0x00FFFF01U);
  EXPECT_EQ(read.identity.revision, std::nullopt);
  EXPECT_EQ(read.device, written.device);
  EXPECT_EQ(read.objects[0].access, "rw");
  EXPECT_EQ(read.objects[0].name, "Heartbeat: 100 % \\x1B[2J");
  EXPECT_EQ(read.objects[11].type, std::nullopt);
}

TEST(ConfigFile, HasALineForEachObject) {
  const std::string text = WriteConfig(Sample());
  EXPECT_NE(text.find("\n  - {index: 0x1017, sub: 0, type: UNSIGNED16, size: 2, access: rw, "
                      "value: 500, name: \"Heartbeat"),
            std::string::npos)
      << text;
  EXPECT_NE(
      text.find("\n  - {index: 0x1800, sub: 1, type: UNSIGNED32, size: 4, value: 0x80000181}"),
      std::string::npos)
      << text;
  EXPECT_NE(text.find("\n  - {index: 0x2000, sub: 0, size: 2, volatile: true, value: 0x1234}"),
            std::string::npos)
      << text;
}

struct Row {
  std::string text;
  std::string message;
};

const std::string kHead = "format: motorctl config 1\nnode: 1\n";

std::string With(const std::string& object) { return kHead + "objects:\n  - {" + object + "}\n"; }

std::string WithValue(const std::string& values) {
  return With("index: 0x2000, sub: 0, " + values);
}

TEST(ConfigFile, RefusesWhatIsNoneWithLineAndKey) {
  const std::string too_deep = std::string(5000, '[');
  const std::vector<Row> rows = {
      {"", "f: is empty"},
      {"# nothing\n", "f: is empty"},
      {"just text\n", "f:1: file: is not a list of keys with values"},
      {"- 1\n- 2\n", "f:1: file: is not a list of keys with values"},
      {"a: [1, 2\nb: 3\n", "f:2: is not YAML"},
      {too_deep, "is nested too deep"},
      {kHead + "---\nmore: 1\n", "f: holds several documents, not one"},
      {"make: zl\nwheels: []\n", "f:1: format: missing: no file of motorctl config save"},
      {"format: motorctl config 2\n", "f:1: format: \"motorctl config 2\" is not"},
      {"format: [1]\n", "f:1: format: is not a single value"},
      {"format: motorctl config 1\n", "f:1: node: missing"},
      {"format: motorctl config 1\nnode: 128\n", "f:2: node: 128 is above 127"},
      {"format: motorctl config 1\nnode: 0\n", "f:2: node: is not a node-ID"},
      {"format: motorctl config 1\nnode: one\n", "f:2: node: \"one\" is not a whole number"},
      {"format: motorctl config 1\nnode: -1\n", "f:2: node: \"-1\" is not a whole number"},
      {kHead, "f:1: objects: missing"},
      {kHead + "objects: []\n", "f:3: objects: is not a list of objects"},
      {kHead + "objects: 5\n", "f:3: objects: is not a list of objects"},
      {kHead + "objects:\n  - 5\n", "f:4: objects[0]: is not a list of keys with values"},
      {kHead + "node: 2\n", "f:3: node: stands twice"},
      {kHead + "colour: red\n" + "objects:\n  - {index: 0x2000, sub: 0, size: 1, value: 1}\n",
       "not a row of hexadecimal bytes"},
      {kHead + "colour: red\n" + "objects:\n  - {index: 0x2000, sub: 0, size: 1, value: 0x01}\n",
       "f:3: colour: unknown key"},
      {kHead + "partial: yes\n", "f:3: partial: \"yes\" is neither true nor false"},
      {kHead + "identity: {vendor: 0x100000000}\n", "f:3: identity.vendor: 0x100000000 is above"},
      {kHead + "identity: {colour: 1}\n", "f:3: identity.colour: unknown key"},
      {kHead + "identity: 5\n", "f:3: identity: is not a list of keys with values"},
      {kHead + "device: {name: [1]}\n", "f:3: device.name: is not a single value"},
      {With("sub: 0, size: 1, value: 0x01"), "f:4: objects[0].index: missing"},
      {With("index: 0x2000, size: 1, value: 0x01"), "f:4: objects[0].sub: missing"},
      {With("index: 0x10000, sub: 0"), "f:4: objects[0].index: 0x10000 is above 65535"},
      {With("index: 0x0FFF, sub: 0"), "f:4: objects[0].index: is below 0x1000"},
      {With("index: 0x2000, sub: 256"), "f:4: objects[0].sub: 256 is above 255"},
      {With("index: , sub: 0"), "f:4: objects[0].index: is not a single value"},
      {WithValue("size: 1"), "f:4: objects[0].value: missing"},
      {WithValue("value: 0x01"), "f:4: objects[0].size: missing"},
      {WithValue("size: 1, value: 0x01, colour: 3"), "f:4: objects[0].colour: unknown key"},
      {WithValue("size: 1, size: 1, value: 0x01"), "f:4: objects[0].size: stands twice"},
      {WithValue("type: WORD, size: 1, value: 1"),
       "f:4: objects[0].type: \"WORD\" is not a type of CiA 301"},
      {WithValue("type: UNSIGNED8, size: 1, value: 256"),
       "f:4: objects[0].value: 256 is not between 0 and 255"},
      {WithValue("type: INTEGER8, size: 1, value: -129"), "f:4: objects[0].value: -129"},
      {WithValue("type: UNSIGNED8, size: 1, value: x"), "f:4: objects[0].value: \"x\""},
      {WithValue("type: UNSIGNED8, size: 2, value: 1"),
       "f:4: objects[0].value: has 1 bytes, but size is 2"},
      {WithValue("size: 2, value: 0x01"), "f:4: objects[0].value: has 1 bytes, but size is 2"},
      {WithValue("size: 2, value: 0x012"), "f:4: objects[0].value: "},
      {WithValue("size: 2000000, value: 0x01"), "f:4: objects[0].size: 2000000 is above"},
      {WithValue("size: 1, access: rx, value: 0x01"),
       "f:4: objects[0].access: \"rx\" is not one of"},
      {WithValue("size: 1, volatile: 1, value: 0x01"), "f:4: objects[0].volatile: \"1\""},
      {WithValue("size: 1, value: [1]"), "f:4: objects[0].value: is not a single value"},
      {WithValue("size: 1, value: 0x01}\n  - {index: 0x2000, sub: 0, size: 1, value: 0x01"),
       "f:5: objects[1]: 0x2000:00 stands twice"},
      {WithValue("size: 1, value: 0x01}\n  - {index: 0x1FFF, sub: 0, size: 1, value: 0x01"),
       "f:5: objects[1]: 0x1FFF:00 stands after 0x2000:00"},
      {std::string("a\0b: \x1b[2J", 9), "f:1: "},
  };
  for (const Row& row : rows) {
    try {
      ReadConfig(row.text, "f");
      ADD_FAILURE() << row.text;
    } catch (const FileError& error) {
      const std::string what = error.what();
      EXPECT_NE(what.find(row.message), std::string::npos) << what << "\nnot " << row.message;
      EXPECT_EQ(what.find_first_of("\n\x1b"), std::string::npos) << what;
    }
  }
}

TEST(ConfigFile, NamesFilesThatCannotBeRead) {
  const std::string file = ::testing::TempDir() + "/huge.yaml";
  {
    std::ofstream stream(file);
    const std::string line(1024, '#');
    for (int i = 0; i < 4 * 1024; ++i) stream << line << '\n';
  }
  const std::vector<Row> rows = {{file, "huge.yaml: longer than 4 MiB"},
                                 {"/absent", "/absent: No such file or directory"},
                                 {::testing::TempDir(), ": cannot be read"}};
  for (const Row& row : rows) {
    try {
      LoadConfig(row.text);
      ADD_FAILURE() << row.text;
    } catch (const FileError& error) {
      EXPECT_NE(std::string(error.what()).find(row.message), std::string::npos) << error.what();
    }
  }
}

TEST(ConfigFile, FindsObjects) {
  const Config config = Sample();
  EXPECT_EQ(config.Find(0x2003, 1), &config.objects[8]);
  EXPECT_EQ(config.Find(0x2003, 2), nullptr);
  EXPECT_EQ(config.Find(0x9000, 0), nullptr);
}

TEST(ConfigDiff, NamesWhatDiffersAndWhatIsInOneOnly) {
  const Config left = Sample();
  Config right = Sample();
  EXPECT_EQ(Differences(left, right).size(), 0U);
  right.objects[1].bytes[0] = 0x82;
  right.objects[2].bytes[0] = 0;                    // changes by itself
  right.objects.erase(right.objects.begin() + 12);  // 0x2007
  right.objects.erase(right.objects.begin() + 5);   // 0x2001
  right.objects.push_back(Object(0x3000, 1, {}, {1}));
  const auto differences = Differences(left, right);
  ASSERT_EQ(differences.size(), 4U);
  EXPECT_EQ(differences[0].LeftText(), "0x80000181");
  EXPECT_EQ(differences[0].RightText(), "0x80000182");
  EXPECT_EQ(differences[1].any().index, 0x2001);
  EXPECT_EQ(differences[1].right, nullptr);
  EXPECT_EQ(differences[2].any().index, 0x2007);
  EXPECT_EQ(differences[3].left, nullptr);
  EXPECT_EQ(differences[3].RightText(), "0x01");
  EXPECT_EQ(Differences(left, right, true).size(), 5U);
  EXPECT_EQ(Differences(left, Config()).size(), 12U);
}

TEST(ConfigDiff, ShowsBothValuesByTheTypeThatOneKnows) {
  Config typed;
  Config bare;
  typed.objects = {Object(0x2001, 0, DataType::kInteger16, {0xFE, 0xFF})};
  bare.objects = {Object(0x2001, 0, {}, {0xFD, 0xFF})};
  bare.objects[0].name = "Offset";
  const auto differences = Differences(typed, bare);
  ASSERT_EQ(differences.size(), 1U);
  EXPECT_EQ(differences[0].LeftText(), "-2");
  EXPECT_EQ(differences[0].RightText(), "-3");
  EXPECT_EQ(differences[0].name(), "Offset");
}

}  // namespace
}  // namespace motorctl
