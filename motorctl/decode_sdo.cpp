// SDO transfers in words.
#include <cstdint>

#include "decode.h"

namespace motorctl {
namespace {

// Abort codes written by hand, and some drives' own, have their bytes in the wrong order.
std::string AbortText(std::uint32_t code) {
  const std::uint32_t reversed =
      code >> 24 | (code >> 8 & 0xFF00) | (code << 8 & 0xFF0000) | code << 24;
  const char* const meant = FindAbortCode(code) == nullptr ? FindAbortCode(reversed) : nullptr;
  const std::string text = AbortCodeText(code);
  return meant == nullptr ? text
                          : text + "; its bytes reversed are " + Hex(reversed, 8) + " " + meant;
}

// Command specifiers of CiA 301, the upper three bits of the first byte.
enum Specifier : unsigned {
  kRequestSegmentDownload = 0,
  kRequestDownload = 1,
  kRequestUpload = 2,
  kRequestSegmentUpload = 3,
  kAbort = 4,
  kResponseSegmentUpload = 0,
  kResponseSegmentDownload = 1,
  kResponseUpload = 2,
  kResponseDownload = 3,
};

// The object of an initiating transfer, in text and fields.
std::string AddObject(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  const auto index = static_cast<std::uint16_t>(LittleEndian(data + 1, 2));
  const std::uint8_t sub = data[3];
  const std::string name = ObjectName(index, sub, make);
  meaning.fields["index"] = index;
  meaning.fields["sub"] = sub;
  meaning.fields["object"] = name;
  return Hex(index, 4) + ":" + Hex(sub, 2).substr(2) + (name.empty() ? "" : " " + name);
}

// The value of an expedited transfer, or the size of one in segments.
std::string AddValue(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  const bool expedited = (data[0] & 2) != 0;
  const bool size_given = (data[0] & 1) != 0;
  if (!expedited) {
    if (!size_given) return " in segments";
    const std::uint32_t size = LittleEndian(data + 4, 4);
    meaning.fields["size"] = size;
    return " in segments, " + std::to_string(size) + " bytes";
  }
  const unsigned bytes = size_given ? 4 - (data[0] >> 2 & 3U) : 4;
  const auto index = static_cast<std::uint16_t>(LittleEndian(data + 1, 2));
  const Value value = ObjectValue(index, data[3], LittleEndian(data + 4, bytes), bytes, make);
  meaning.fields["size"] = bytes;
  meaning.fields["value"] = value.number;
  meaning.fields["value_text"] = value.text;
  return " = " + value.text;
}

void DescribeSegment(const std::uint8_t* data, Meaning& meaning) {
  const unsigned bytes = 7 - (data[0] >> 1 & 7U);
  const bool last = (data[0] & 1) != 0;
  meaning.text = (last ? "last segment: " : "segment: ") + BytesText(data + 1, bytes);
  meaning.fields = {{"command", "segment"}, {"last", last}};
}

void DescribeAbort(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  const std::uint32_t code = LittleEndian(data + 4, 4);
  meaning.fields["command"] = "abort";
  meaning.text =
      "abort " + AddObject(data, make, meaning) + ": " + Hex(code, 8) + " " + AbortText(code);
  meaning.fields["abort_code"] = code;
  meaning.fields["abort_text"] = AbortText(code);
}

void DescribeRequest(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  switch (data[0] >> 5) {
    case kRequestSegmentDownload:
      DescribeSegment(data, meaning);
      break;
    case kRequestDownload:
      meaning.fields["command"] = "write";
      meaning.text = "write " + AddObject(data, make, meaning);
      meaning.text += AddValue(data, make, meaning);
      break;
    case kRequestUpload:
      meaning.fields["command"] = "read";
      meaning.text = "read " + AddObject(data, make, meaning);
      break;
    case kRequestSegmentUpload:
      meaning.fields["command"] = "read_segment";
      meaning.text = "read next segment";
      break;
    default:
      meaning.fields["command"] = "block";
      meaning.text = "block transfer: " + BytesText(data, 8);
  }
}

void DescribeResponse(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  switch (data[0] >> 5) {
    case kResponseSegmentUpload:
      DescribeSegment(data, meaning);
      break;
    case kResponseSegmentDownload:
      meaning.fields["command"] = "segment_written";
      meaning.text = "segment written";
      break;
    case kResponseUpload:
      meaning.fields["command"] = "value";
      meaning.text = "value " + AddObject(data, make, meaning);
      meaning.text += AddValue(data, make, meaning);
      break;
    case kResponseDownload:
      meaning.fields["command"] = "written";
      meaning.text = "written " + AddObject(data, make, meaning);
      break;
    default:
      meaning.fields["command"] = "block";
      meaning.text = "block transfer: " + BytesText(data, 8);
  }
}

}  // namespace

Meaning DecodeSdo(const std::uint8_t* data, bool response, const Make* make) {
  Meaning meaning{response ? "sdo_response" : "sdo_request", ""};
  if (data[0] >> 5 == kAbort) {
    DescribeAbort(data, make, meaning);
  } else if (response) {
    DescribeResponse(data, make, meaning);
  } else {
    DescribeRequest(data, make, meaning);
  }
  return meaning;
}

}  // namespace motorctl
