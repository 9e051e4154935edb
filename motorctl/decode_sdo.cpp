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
  kRequestBlockUpload = 5,
  kRequestBlockDownload = 6,
  kResponseSegmentUpload = 0,
  kResponseSegmentDownload = 1,
  kResponseUpload = 2,
  kResponseDownload = 3,
  kResponseBlockDownload = 5,
  kResponseBlockUpload = 6,
};

// Of block transfers, the lowest two bits.
enum BlockPart : unsigned { kBlockBegin = 0, kBlockEnd = 1, kBlockTaken = 2 };

// The object of an initiating transfer, in text and fields.
std::string AddObject(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  const auto index = static_cast<std::uint16_t>(LittleEndian(data + 1, 2));
  const std::uint8_t sub = data[3];
  const std::string name = ObjectName(index, sub, make);
  meaning.fields.Add("index", index);
  meaning.fields.Add("sub", sub);
  meaning.fields.Add("object", name);
  return Hex(index, 4) + ":" + Hex(sub, 2).substr(2) + (name.empty() ? "" : " " + name);
}

// The value of an expedited transfer, or the size of one in segments.
std::string AddValue(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  const bool expedited = (data[0] & 2) != 0;
  const bool size_given = (data[0] & 1) != 0;
  if (!expedited) {
    if (!size_given) return " in segments";
    const std::uint32_t size = LittleEndian(data + 4, 4);
    meaning.fields.Add("size", size);
    return " in segments, " + std::to_string(size) + " bytes";
  }
  const unsigned bytes = size_given ? 4 - (data[0] >> 2 & 3U) : 4;
  const auto index = static_cast<std::uint16_t>(LittleEndian(data + 1, 2));
  const Value value = ObjectValue(index, data[3], LittleEndian(data + 4, bytes), bytes, make);
  meaning.fields.Add("size", bytes);
  meaning.fields.Add("value", value.number);
  meaning.fields.Add("value_text", value.text);
  return " = " + value.text;
}

void DescribeSegment(const std::uint8_t* data, Meaning& meaning) {
  const unsigned bytes = 7 - (data[0] >> 1 & 7U);
  const bool last = (data[0] & 1) != 0;
  meaning.text = (last ? "last segment: " : "segment: ") + BytesText(data + 1, bytes);
  meaning.fields.Add("command", "segment").Add("last", last);
}

void DescribeAbort(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  const std::uint32_t code = LittleEndian(data + 4, 4);
  meaning.fields.Add("command", "abort");
  meaning.text =
      "abort " + AddObject(data, make, meaning) + ": " + Hex(code, 8) + " " + AbortText(code);
  meaning.fields.Add("abort_code", code);
  meaning.fields.Add("abort_text", AbortText(code));
}

void DescribeUnknown(const std::uint8_t* data, Meaning& meaning) {
  meaning.fields.Add("command", "unknown");
  meaning.text = "unknown command: " + BytesText(data, 8);
}

// --- Block transfers -----------------------------------------------------------------------------

// Of those who send the segments: the beginning and the end.
void DescribeBlocksSent(const std::uint8_t* data, const char* command, const char* verb,
                        const Make* make, Meaning& meaning) {
  if ((data[0] & 1) != 0) {
    const unsigned bytes = 7 - (data[0] >> 2 & 7U);
    const std::uint32_t crc = LittleEndian(data + 1, 2);
    meaning.fields.Add("command", "block_end").Add("size", bytes).Add("crc", crc);
    meaning.text = "end of the blocks, " + std::to_string(bytes) +
                   " bytes in the last segment, CRC " + Hex(crc, 4);
    return;
  }
  meaning.fields.Add("command", command);
  meaning.text = verb + AddObject(data, make, meaning) + " in blocks";
  if ((data[0] & 2) == 0) return;
  const std::uint32_t size = LittleEndian(data + 4, 4);
  meaning.fields.Add("size", size);
  meaning.text += ", " + std::to_string(size) + " bytes";
}

// Of those who receive them.
void DescribeBlocksWanted(const std::uint8_t* data, const char* command, const char* verb,
                          const Make* make, Meaning& meaning) {
  meaning.fields.Add("command", command);
  meaning.text = verb + AddObject(data, make, meaning) + " in blocks of " +
                 std::to_string(data[4]) + " segments";
  meaning.fields.Add("segments", data[4]);
}

void DescribeBlockTaken(const std::uint8_t* data, Meaning& meaning) {
  meaning.fields.Add("command", "block_taken").Add("segment", data[1]).Add("segments", data[2]);
  meaning.text = "taken up to segment " + std::to_string(data[1]) + ", next block of " +
                 std::to_string(data[2]) + " segments";
}

void DescribeBlockRead(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  switch (data[0] & 3) {
    case kBlockBegin:
      DescribeBlocksWanted(data, "block_read", "read ", make, meaning);
      break;
    case kBlockEnd:
      meaning.fields.Add("command", "block_done");
      meaning.text = "blocks taken";
      break;
    case kBlockTaken:
      DescribeBlockTaken(data, meaning);
      break;
    default:
      meaning.fields.Add("command", "block_start");
      meaning.text = "start of the blocks";
  }
}

void DescribeBlockWritten(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  switch (data[0] & 3) {
    case kBlockBegin:
      DescribeBlocksWanted(data, "block_ready", "ready for ", make, meaning);
      break;
    case kBlockEnd:
      meaning.fields.Add("command", "block_done");
      meaning.text = "blocks written";
      break;
    case kBlockTaken:
      DescribeBlockTaken(data, meaning);
      break;
    default:
      DescribeUnknown(data, meaning);
  }
}

void DescribeRequest(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  switch (data[0] >> 5) {
    case kRequestSegmentDownload:
      DescribeSegment(data, meaning);
      break;
    case kRequestDownload:
      meaning.fields.Add("command", "write");
      meaning.text = "write " + AddObject(data, make, meaning);
      meaning.text += AddValue(data, make, meaning);
      break;
    case kRequestUpload:
      meaning.fields.Add("command", "read");
      meaning.text = "read " + AddObject(data, make, meaning);
      break;
    case kRequestSegmentUpload:
      meaning.fields.Add("command", "read_segment");
      meaning.text = "read next segment";
      break;
    case kRequestBlockDownload:
      DescribeBlocksSent(data, "block_write", "write ", make, meaning);
      break;
    case kRequestBlockUpload:
      DescribeBlockRead(data, make, meaning);
      break;
    default:
      DescribeUnknown(data, meaning);
  }
}

void DescribeResponse(const std::uint8_t* data, const Make* make, Meaning& meaning) {
  switch (data[0] >> 5) {
    case kResponseSegmentUpload:
      DescribeSegment(data, meaning);
      break;
    case kResponseSegmentDownload:
      meaning.fields.Add("command", "segment_written");
      meaning.text = "segment written";
      break;
    case kResponseUpload:
      meaning.fields.Add("command", "value");
      meaning.text = "value " + AddObject(data, make, meaning);
      meaning.text += AddValue(data, make, meaning);
      break;
    case kResponseDownload:
      meaning.fields.Add("command", "written");
      meaning.text = "written " + AddObject(data, make, meaning);
      break;
    case kResponseBlockDownload:
      DescribeBlockWritten(data, make, meaning);
      break;
    case kResponseBlockUpload:
      DescribeBlocksSent(data, "block_value", "value ", make, meaning);
      break;
    default:
      DescribeUnknown(data, meaning);
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
