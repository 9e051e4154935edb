#include "decode.h"

#include <linux/can/error.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <iterator>

#include "words.h"

namespace motorctl {
namespace {

// ---- PDOs of the makes, as their set-ups lay them out

struct PdoField {
  const char* name;
  unsigned offset;
  unsigned bytes;  // 0: no field
  Format format;
};

struct PdoLayout {
  const char* make;
  std::uint32_t base;  // identifier without node
  PdoField fields[3];
};

constexpr std::uint32_t kTpdo1 = 0x180;
constexpr std::uint32_t kRpdo1 = 0x200;
constexpr std::uint32_t kTpdo4 = 0x480;

// What AMPS drives send in the first half of their TPDO1 is their own.
// clang-format off
constexpr PdoLayout kPdoLayouts[] = {
    {"zl",    kRpdo1, {{"target velocity 1", 0, 4, Format::kVelocity},  {"target velocity 2", 4, 4, Format::kVelocity},   {}}},
    {"zl",    kTpdo1, {{"position 1",        0, 4, Format::kSigned},    {"position 2",        4, 4, Format::kSigned},     {}}},
    {"zl",    kTpdo4, {{"error code",        0, 4, Format::kErrorCode}, {"statusword",        4, 4, Format::kStatusword}, {}}},
    {"tt",    kRpdo1, {{"target velocity",   0, 4, Format::kVelocity},  {},                                               {}}},
    {"tt",    kTpdo1, {{"position",          0, 4, Format::kSigned},    {},                                               {}}},
    {"hls",   kRpdo1, {{"target velocity",   0, 4, Format::kVelocity},  {},                                               {}}},
    {"hls",   kTpdo1, {{"position",          0, 4, Format::kSigned},    {},                                               {}}},
    {"hls",   kTpdo4, {{"error code",        0, 2, Format::kErrorCode}, {"statusword",        2, 2, Format::kStatusword}, {}}},
    {"amps",  kTpdo1, {{"first bytes",       0, 4, Format::kHex},       {"position",          4, 4, Format::kSigned},     {}}},
    {"kinco", kRpdo1, {{"target velocity",   0, 4, Format::kVelocity},  {},                                               {}}},
    {"kinco", kTpdo1, {{"position",          0, 4, Format::kSigned},    {},                                               {}}},
    {"kinco", kTpdo4, {{"error code",        0, 2, Format::kErrorCode}, {"statusword",        2, 2, Format::kStatusword}, {"digital inputs", 4, 2, Format::kHex}}},
};
// clang-format on

// Little-endian.
std::uint32_t Number(const std::uint8_t* data, unsigned bytes) {
  std::uint32_t number = 0;
  for (unsigned i = bytes; i > 0; --i) number = number << 8 | data[i - 1];
  return number;
}

// "37 02 00 00".
std::string BytesText(const std::uint8_t* data, unsigned bytes) {
  std::string text;
  for (unsigned i = 0; i < bytes; ++i) text += (i == 0 ? "" : " ") + Hex(data[i], 2).substr(2);
  return text;
}

std::string NodeText(unsigned node) { return "node " + std::to_string(node); }

Meaning Odd(const LoggedFrame& frame, const std::string& what) {
  return {"unknown", what + ": " + BytesText(frame.data.data(), frame.length)};
}

Meaning DecodeNmt(const LoggedFrame& frame) {
  if (frame.length != 2) return Odd(frame, "NMT command of wrong length");
  const std::string command = NmtCommandText(frame.data[0]);
  const unsigned node = frame.data[1];
  return {"nmt",
          "NMT: " + command + ", " + (node == 0 ? "all nodes" : NodeText(node)),
          {{"node", node}, {"command", command}}};
}

Meaning DecodeSync(const LoggedFrame& frame) {
  Meaning meaning{"sync", "SYNC"};
  if (frame.length > 0) {
    meaning.text += " " + std::to_string(frame.data[0]);
    meaning.fields["counter"] = frame.data[0];
  }
  return meaning;
}

// 28 bits of milliseconds after midnight, then the days since 1 January 1984.
Meaning DecodeTime(const LoggedFrame& frame) {
  if (frame.length != 6) return Odd(frame, "time stamp of wrong length");
  const std::uint32_t milliseconds = Number(frame.data.data(), 4) & 0x0FFFFFFF;
  const std::uint32_t days = Number(&frame.data[4], 2);
  return {"time",
          "time stamp: day " + std::to_string(days) + " after 1984-01-01, " +
              std::to_string(milliseconds) + " ms after midnight",
          {{"days", days}, {"milliseconds", milliseconds}}};
}

Meaning DecodeHeartbeat(const LoggedFrame& frame, unsigned node) {
  if (frame.length != 1) return Odd(frame, "heartbeat of wrong length");
  // The uppermost bit toggles in answers to node guarding.
  const auto state = static_cast<std::uint8_t>(frame.data[0] & 0x7F);
  const std::string text = NmtStateText(state);
  const bool boot_up = frame.data[0] == 0;
  return {boot_up ? "boot_up" : "heartbeat",
          boot_up ? "boot-up of " + NodeText(node) : "heartbeat of " + NodeText(node) + ": " + text,
          {{"node", node}, {"state", text}}};
}

std::string FieldKey(std::string name) {
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

Meaning DecodePdo(const LoggedFrame& frame, std::uint32_t base, std::string_view make) {
  // From 0x180 on, transmit and receive PDOs take turns.
  const unsigned number = (base - kTpdo1) / 0x100 + 1;
  const std::string pdo = ((base & 0x80) != 0 ? "TPDO" : "RPDO") + std::to_string(number);
  const unsigned node = frame.id - base;
  Meaning meaning{"pdo", pdo + " of " + NodeText(node) + ": ", {{"node", node}, {"pdo", pdo}}};
  const std::string bytes = BytesText(frame.data.data(), frame.length);
  const auto* const layout =
      std::find_if(std::begin(kPdoLayouts), std::end(kPdoLayouts),
                   [&](const PdoLayout& row) { return row.make == make && row.base == base; });
  if (layout == std::end(kPdoLayouts)) {
    meaning.text += bytes;
    return meaning;
  }
  auto values = nlohmann::ordered_json::object();
  std::string separator;
  for (const PdoField& field : layout->fields) {
    if (field.bytes == 0) break;
    if (field.offset + field.bytes > frame.length) {
      meaning.text.append(separator).append("too short for this make: ").append(bytes);
      break;
    }
    const Value value = FormatValue(field.format, Number(&frame.data[field.offset], field.bytes),
                                    field.bytes, make);
    meaning.text.append(separator).append(field.name).append(" = ").append(value.text);
    values[FieldKey(field.name)] = value.number;
    separator = " | ";
  }
  meaning.fields["values"] = values;
  return meaning;
}

// ---- SDO

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
std::string AddObject(const std::uint8_t* data, std::string_view make, Meaning& meaning) {
  const auto index = static_cast<std::uint16_t>(Number(data + 1, 2));
  const std::uint8_t sub = data[3];
  const std::string name = ObjectName(index, sub, make);
  meaning.fields["index"] = index;
  meaning.fields["sub"] = sub;
  meaning.fields["object"] = name;
  return Hex(index, 4) + ":" + Hex(sub, 2).substr(2) + (name.empty() ? "" : " " + name);
}

// The value of an expedited transfer, or the size of one in segments.
std::string AddValue(const std::uint8_t* data, std::string_view make, Meaning& meaning) {
  const bool expedited = (data[0] & 2) != 0;
  const bool size_given = (data[0] & 1) != 0;
  if (!expedited) {
    if (!size_given) return " in segments";
    const std::uint32_t size = Number(data + 4, 4);
    meaning.fields["size"] = size;
    return " in segments, " + std::to_string(size) + " bytes";
  }
  const unsigned bytes = size_given ? 4 - (data[0] >> 2 & 3U) : 4;
  const auto index = static_cast<std::uint16_t>(Number(data + 1, 2));
  const Value value = ObjectValue(index, data[3], Number(data + 4, bytes), bytes, make);
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

void DescribeAbort(const std::uint8_t* data, std::string_view make, Meaning& meaning) {
  const std::uint32_t code = Number(data + 4, 4);
  meaning.fields["command"] = "abort";
  meaning.text =
      "abort " + AddObject(data, make, meaning) + ": " + Hex(code, 8) + " " + AbortText(code);
  meaning.fields["abort_code"] = code;
  meaning.fields["abort_text"] = AbortText(code);
}

void DescribeRequest(const std::uint8_t* data, std::string_view make, Meaning& meaning) {
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

void DescribeResponse(const std::uint8_t* data, std::string_view make, Meaning& meaning) {
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

// ---- Frames

Meaning WithNode(const char* title, unsigned node, Meaning meaning) {
  nlohmann::ordered_json fields = {{"node", node}};
  fields.update(meaning.fields);
  meaning.fields = std::move(fields);
  meaning.text = std::string(title) + NodeText(node) + ": " + meaning.text;
  return meaning;
}

// Classes of linux/can/error.h.
Meaning DecodeErrorFrame(const LoggedFrame& frame) {
  struct Class {
    std::uint32_t bit;
    const char* text;
  };
  constexpr Class kClasses[] = {
      {CAN_ERR_TX_TIMEOUT, "transmit time-out"},
      {CAN_ERR_LOSTARB, "arbitration lost"},
      {CAN_ERR_CRTL, "controller problem"},
      {CAN_ERR_PROT, "protocol violation"},
      {CAN_ERR_TRX, "transceiver"},
      {CAN_ERR_ACK, "no acknowledge"},
      {CAN_ERR_BUSOFF, "bus off"},
      {CAN_ERR_BUSERROR, "bus error"},
      {CAN_ERR_RESTARTED, "controller restarted"},
  };
  auto classes = nlohmann::ordered_json::array();
  std::string text;
  for (const Class& row : kClasses) {
    if ((frame.id & row.bit) == 0) continue;
    classes.push_back(row.text);
    text += (text.empty() ? "" : ", ") + std::string(row.text);
  }
  return {"error_frame",
          "error reported by the controller: " + (text.empty() ? "unknown" : text),
          {{"errors", classes}}};
}

Meaning DecodeRemote(const LoggedFrame& frame) {
  if (!frame.extended && frame.id > 0x700 && frame.id <= 0x77F) {
    const unsigned node = frame.id - 0x700;
    return {"node_guarding", "node guarding request to " + NodeText(node), {{"node", node}}};
  }
  return {"remote", "remote request"};
}

// An identifier of the predefined connection set is a function and, in its lower seven bits, a
// node. HLS drives use node 0 for SDO and TPDO1.
Meaning DecodeData(const LoggedFrame& frame, std::string_view make) {
  const std::uint32_t base = frame.id & ~0x7FU;
  const unsigned node = frame.id & 0x7F;
  const bool addressed = node != 0 || make == "hls";
  if (frame.id == 0x000) return DecodeNmt(frame);
  if (frame.id == 0x080 && frame.length <= 1) return DecodeSync(frame);
  if (frame.id == 0x100) return DecodeTime(frame);
  if (base == 0x000 && make == "tt" && frame.length == 2 &&
      Number(frame.data.data(), 2) == 0x1010) {
    return {"activation", "activation of " + NodeText(node), {{"node", node}}};
  }
  if (base == 0x080) {
    if (frame.length != 8) return Odd(frame, "emergency message of wrong length");
    return WithNode("emergency of ", node, DecodeEmergency(frame.data.data()));
  }
  if (base >= kTpdo1 && base < 0x580 && addressed) return DecodePdo(frame, base, make);
  if ((base == 0x580 || base == 0x600) && addressed) {
    if (frame.length != 8) return Odd(frame, "SDO of wrong length");
    return WithNode("SDO ", node, DecodeSdo(frame.data.data(), base == 0x580, make));
  }
  if (base == 0x700 && node != 0) return DecodeHeartbeat(frame, node);
  return Odd(frame, "no CANopen function at " + Hex(frame.id, 3));
}

// ---- Logs

// The longest line of a frame that candump writes has some 300 characters.
constexpr std::size_t kLongestLine = 1024;
constexpr std::size_t kTextColumn = 48;

// False at the end. What goes beyond the longest line is dropped, so that a file without line
// breaks does not fill the memory.
bool ReadLine(std::istream& log, std::string& line, bool& cut) {
  line.clear();
  cut = false;
  std::streambuf& buffer = *log.rdbuf();
  for (;;) {
    const int c = buffer.sbumpc();
    if (c == std::char_traits<char>::eof()) return !line.empty();
    if (c == '\n') break;
    cut = cut || line.size() == kLongestLine;
    if (!cut) line += static_cast<char>(c);
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return true;
}

// What a terminal would obey, or JSON refuse, as "\x1B".
std::string Printable(const std::string& line) {
  std::string text;
  for (const char c : line) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte == '\t' || (byte >= 0x20 && byte < 0x7F)) {
      text += c;
    } else {
      text += "\\x" + Hex(byte, 2).substr(2);
    }
  }
  return text;
}

std::string PlainLine(const std::string& line, const std::string& text) {
  const std::size_t width = std::max(kTextColumn, line.size() + 2);
  return line + std::string(width - line.size(), ' ') + text;
}

std::string JsonLine(const LoggedFrame& frame, const Meaning& meaning) {
  nlohmann::ordered_json object;
  object["time"] = Printable(frame.time);
  object["interface"] = Printable(frame.interface);
  object["frame"] = FrameText(frame);
  object["id"] = frame.id;
  object["kind"] = meaning.kind;
  object.update(meaning.fields);
  object["text"] = meaning.text;
  return object.dump();
}

}  // namespace

Meaning DecodeSdo(const std::uint8_t* data, bool response, std::string_view make) {
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

Meaning DecodeEmergency(const std::uint8_t* data) {
  const auto code = static_cast<std::uint16_t>(Number(data, 2));
  Meaning meaning{"emergency",
                  Hex(code, 4) + " " + ErrorCodeText(code) + "; error register " + Hex(data[2], 2) +
                      " " + ErrorRegisterText(data[2]),
                  {{"error_code", code},
                   {"error_text", ErrorCodeText(code)},
                   {"error_register", data[2]},
                   {"manufacturer_bytes", BytesText(data + 3, 5)}}};
  if (std::any_of(data + 3, data + 8, [](std::uint8_t byte) { return byte != 0; })) {
    meaning.text += "; manufacturer bytes " + BytesText(data + 3, 5);
  }
  return meaning;
}

Meaning DecodeFrame(const LoggedFrame& frame, std::string_view make) {
  switch (frame.kind) {
    case LoggedFrame::Kind::kError:
      return DecodeErrorFrame(frame);
    case LoggedFrame::Kind::kFd:
      return {"can_fd", "CAN FD, no CANopen frame"};
    case LoggedFrame::Kind::kRemote:
      return DecodeRemote(frame);
    case LoggedFrame::Kind::kData:
      break;
  }
  if (frame.extended) return {"extended", "29-bit identifier, no CANopen frame"};
  return DecodeData(frame, make);
}

std::size_t DecodeLog(std::istream& log, const DecodeOptions& options,
                      const std::function<void(const std::string&)>& write_line) {
  std::size_t malformed = 0;
  std::string line;
  bool cut = false;
  while (ReadLine(log, line, cut)) {
    if (line.empty()) continue;
    const auto frame = cut ? std::nullopt : ParseLogLine(line);
    const std::string shown = Printable(line);
    if (frame) {
      const Meaning meaning = DecodeFrame(*frame, options.make);
      write_line(options.json ? JsonLine(*frame, meaning) : PlainLine(shown, meaning.text));
      continue;
    }
    ++malformed;
    const char* const reason = cut ? "line too long" : "no frame in this line";
    if (options.json) {
      const nlohmann::ordered_json object = {
          {"kind", "malformed"}, {"line", shown}, {"text", reason}};
      write_line(object.dump());
    } else {
      write_line(PlainLine(shown, std::string("??? ") + reason));
    }
  }
  return malformed;
}

}  // namespace motorctl
