// The reader of data sheets: any bytes for a file.
#include <cstdio>
#include <memory>
#include <string>

#include "data_sheet.h"
#include "decode.h"
#include "input.h"
#include "words.h"

namespace {

using motorctl::Bytes;
using motorctl::EdsObject;

bool IsPrintable(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == '\t' || (c >= 0x20 && c < 0x7F); });
}

// One line, with the file in front, and where one is to blame with its number.
void CheckRefusal(const std::string& text) {
  fuzz::Require(text.compare(0, 5, "x.eds") == 0 && text.size() > 7, "the name of the file");
  fuzz::Require(IsPrintable(text), "one line that a terminal can show");
}

void CheckValue(const EdsObject& object, const Bytes& bytes) {
  const unsigned size = motorctl::SizeOf(object.type);
  fuzz::Require(size == 0 || bytes.size() == size, "a value of its size");
  const std::string text = motorctl::ValueText(object.type, bytes);
  fuzz::Require(IsPrintable(text), "a value that can be shown");
  fuzz::Require(motorctl::ParseValue(object.type, text) == bytes,
                "what is shown is the same value");
}

void CheckObject(const EdsObject& object) {
  fuzz::Require(object.index >= 0x1000, "no data type");
  fuzz::Require(!object.name.empty() && IsPrintable(object.name), "a name that can be shown");
  for (const auto& value :
       {object.default_value, object.parameter_value, object.low_limit, object.high_limit}) {
    if (!value) continue;
    fuzz::Require(!value->adds_node_id || motorctl::IsInteger(object.type), "$NODEID in a number");
    CheckValue(object, value->bytes);
    if (object.type != motorctl::DataType::kBoolean) CheckValue(object, value->Of(127));
    motorctl::AgainstLimits(object, value->bytes, 1);
  }
  if (object.low_limit && object.high_limit) {
    fuzz::Require(motorctl::AgainstLimits(object, object.low_limit->Of(1), 1).empty(),
                  "the lowest value is within the limits");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) return 0;
  std::string text(bytes, bytes + size);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
      ::fmemopen(text.data(), text.size(), "r"), std::fclose);
  motorctl::Eds eds;
  try {
    eds = motorctl::ReadEds(file.get(), "x.eds");
  } catch (const motorctl::FileError& error) {
    CheckRefusal(error.what());
    return 0;
  }
  std::uint32_t previous = 0;
  motorctl::UseDataSheet(&eds);
  for (const EdsObject& object : eds.objects) {
    const std::uint32_t place = std::uint32_t{object.index} << 8 | object.sub;
    fuzz::Require(place > previous, "each object once, in order");
    previous = place;
    fuzz::Require(eds.Find(object.index, object.sub) == &object, "an object that can be found");
    fuzz::Require(motorctl::ObjectName(object.index, object.sub) == object.name, "its name");
    CheckObject(object);
  }
  // PDOs, if it maps some.
  for (std::uint32_t id = motorctl::kFirstPdo + 1; id < 0x580; id += 0x80) {
    motorctl::LoggedFrame frame;
    frame.id = id;
    frame.length = 8;
    fuzz::Require(IsPrintable(motorctl::DecodeFrame(frame, nullptr).text), "a PDO in words");
  }
  motorctl::UseDataSheet(nullptr);
  return 0;
}
