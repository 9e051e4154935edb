// motorctl sdo read|write
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "sdo_client.h"
#include "words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

struct Type {
  unsigned size;  // bytes
  bool is_signed;
};

const std::map<std::string, Type>& Types() {
  static const std::map<std::string, Type> types = {
      {"u8", {1, false}},  {"i8", {1, true}},  {"u16", {2, false}}, {"i16", {2, true}},
      {"u32", {4, false}}, {"i32", {4, true}}, {"hex", {0, false}},  // the size of the answer; of a
                                                                     // value, that of its digits
  };
  return types;
}

struct Options {
  int node = 0;
  std::string index;
  std::string sub;
  std::string type = "hex";
  std::string value;
  bool yes = false;
};

// Objects that turn a wheel, or let it turn: target velocities, torque and position, controlword
// and mode.
bool Moves(std::uint16_t index) {
  for (const int moving : {0x60FF, 0x2FF0, 0x6071, 0x607A, 0x6040, 0x6060}) {
    if (index == moving) return true;
  }
  for (const motor_driver::Make& make : motor_driver::Makes()) {
    for (const motor_driver::Object& target : make.targets) {
      if (index == target.index) return true;
    }
  }
  return false;
}

// Decimal, or hexadecimal with 0x. `what` names the argument.
long long ParseNumber(const std::string& text, const char* what, long long lowest,
                      long long highest) {
  const std::size_t digits = text.find_first_not_of("+-");
  const bool hexadecimal = digits != std::string::npos && (text.compare(digits, 2, "0x") == 0 ||
                                                           text.compare(digits, 2, "0X") == 0);
  char* end = nullptr;
  errno = 0;
  const long long number = std::strtoll(text.c_str(), &end, hexadecimal ? 16 : 10);
  if (text.empty() || *end != '\0' || digits > 1 || std::isspace(text[0]) != 0) {
    throw CLI::ValidationError(what, "\"" + text + "\" is no number");
  }
  if (errno == ERANGE || number < lowest || number > highest) {
    throw CLI::ValidationError(what, text + " is not between " + std::to_string(lowest) + " and " +
                                         std::to_string(highest));
  }
  return number;
}

std::uint16_t Index(const Options& options) {
  return static_cast<std::uint16_t>(ParseNumber(options.index, "INDEX", 0, 0xFFFF));
}

std::uint8_t Sub(const Options& options) {
  return static_cast<std::uint8_t>(ParseNumber(options.sub, "SUB", 0, 0xFF));
}

struct Encoded {
  std::uint32_t value;
  unsigned size;
};

Encoded Encode(const Options& options) {
  const Type type = Types().at(options.type);
  if (options.type == "hex") {
    // The digits tell the size, as they do in a drive's manual: 0x0F is one byte, 0x000F two.
    std::string digits = options.value;
    if (digits.compare(0, 2, "0x") == 0 || digits.compare(0, 2, "0X") == 0) digits.erase(0, 2);
    if (digits.size() != 2 && digits.size() != 4 && digits.size() != 8) {
      throw CLI::ValidationError("VALUE", "hex takes 2, 4 or 8 digits: they tell the size");
    }
    return {static_cast<std::uint32_t>(ParseNumber("0x" + digits, "VALUE", 0, 0xFFFFFFFFLL)),
            static_cast<unsigned>(digits.size() / 2)};
  }
  const unsigned bits = 8 * type.size;
  const long long lowest = type.is_signed ? -(1LL << (bits - 1)) : 0;
  const long long highest = type.is_signed ? (1LL << (bits - 1)) - 1 : (1LL << bits) - 1;
  const long long number = ParseNumber(options.value, "VALUE", lowest, highest);
  return {static_cast<std::uint32_t>(static_cast<unsigned long long>(number) &
                                     (0xFFFFFFFFULL >> (32 - bits))),
          type.size};
}

long long Decode(std::uint32_t value, const Type& type) {
  if (type.size == 0) return value;
  const unsigned bits = 8 * type.size;
  const std::uint32_t cut = value & (0xFFFFFFFFU >> (32 - bits));
  const bool negative = type.is_signed && (cut >> (bits - 1)) != 0;
  return negative ? static_cast<long long>(cut) - (1LL << bits) : static_cast<long long>(cut);
}

[[noreturn]] void Fail(const Options& options, const SdoAnswer& answer) {
  throw CommandFailed("node " + std::to_string(options.node) + ", " +
                      NameObject(Index(options), Sub(options)) + ": " + Explanation(answer));
}

// The result of a transfer as JSON, of a failed one too: programs that read it need not parse
// status lines.
Json Describe(const char* command, const Options& options, const SdoAnswer& answer) {
  return {
      {"command", command},
      {"node", options.node},
      {"index", Index(options)},
      {"sub", Sub(options)},
      {"object", ObjectName(Index(options), Sub(options))},
      {"ok", answer.ok()},
      {"abort_code", answer.kind == SdoAnswer::Kind::kAborted ? Json(answer.value) : Json(nullptr)},
      {"failure", answer.ok() ? Json(nullptr) : Json(Explanation(answer))}};
}

int Read(const Context& context, const Options& options) {
  const std::unique_ptr<DriverCommon> drive = OpenBus(context);
  const SdoAnswer answer = ReadObject(*drive, options.node, Index(options), Sub(options));
  const Type type = Types().at(options.type);
  if (context.json) {
    Json line = Describe("sdo read", options, answer);
    line["type"] = options.type;
    line["size"] = answer.ok() && answer.size != 0 ? Json(answer.size) : Json(nullptr);
    line["value"] = answer.ok() ? Json(Decode(answer.value, type)) : Json(nullptr);
    context.Line(line.dump());
    if (answer.ok()) return kSuccess;
  }
  if (!answer.ok()) Fail(options, answer);
  if (type.size != 0 && answer.size != 0 && type.size != answer.size) {
    context.Say("the node answers with " + std::to_string(answer.size) + " bytes, " + options.type +
                " has " + std::to_string(type.size));
  }
  const unsigned size = answer.size == 0 ? 4 : answer.size;
  context.Line(options.type == "hex" ? Hex(answer.value, static_cast<int>(2 * size))
                                     : std::to_string(Decode(answer.value, type)));
  return kSuccess;
}

int Write(const Context& context, const Options& options) {
  const Encoded encoded = Encode(options);
  if (Moves(Index(options))) {
    const ExitStatus answer = context.Ask(
        options.yes, NameObject(Index(options), Sub(options)) + " can turn the wheels of node " +
                         std::to_string(options.node) + ". Are they off the ground?");
    if (answer != kSuccess) {
      context.Say("nothing was written");
      return answer;
    }
  }
  const std::unique_ptr<DriverCommon> drive = OpenBus(context);
  const SdoAnswer answer =
      WriteObject(*drive, options.node, Index(options), Sub(options), encoded.value, encoded.size);
  if (context.json) {
    Json line = Describe("sdo write", options, answer);
    line["type"] = options.type;
    line["size"] = encoded.size;
    line["value"] = Decode(encoded.value, Types().at(options.type));
    context.Line(line.dump());
    if (answer.ok()) return kSuccess;
  }
  if (!answer.ok()) Fail(options, answer);
  context.Say("written");
  return kSuccess;
}

void AddObjectOptions(CLI::App& command, Options& options) {
  command.add_option("NODE", options.node, "node-ID")->required()->check(CLI::Range(1, 127));
  command.add_option("INDEX", options.index, "0 to 0xFFFF")->required();
  command.add_option("SUB", options.sub, "0 to 0xFF")->required();
}

CLI::Option* AddType(CLI::App& command, Options& options) {
  return command.add_option("TYPE", options.type, "u8 i8 u16 i16 u32 i32 hex")
      ->check([](const std::string& name) {
        return Types().count(name) != 0 ? std::string() : "u8, i8, u16, i16, u32, i32 or hex";
      });
}

}  // namespace

void AddSdo(CLI::App& app, Context& context) {
  CLI::App* const sdo = app.add_subcommand("sdo", "read or write one object of a node");
  sdo->require_subcommand(1);

  const auto read_options = std::make_shared<Options>();
  CLI::App* const read = sdo->add_subcommand("read", "print the value of an object");
  AddObjectOptions(*read, *read_options);
  AddType(*read, *read_options);
  read->callback([&context, options = read_options] {
    Index(*options);
    Sub(*options);
    context.run = [&context, options] { return Read(context, *options); };
  });

  const auto write_options = std::make_shared<Options>();
  CLI::App* const write = sdo->add_subcommand("write", "write a value, and wait until it is taken");
  AddObjectOptions(*write, *write_options);
  AddType(*write, *write_options)->required();
  write->add_option("VALUE", write_options->value, "decimal, or hexadecimal with 0x")->required();
  write->add_flag("--yes", write_options->yes,
                  "do not ask before objects that turn wheels; needed where standard input is no "
                  "terminal");
  write->callback([&context, options = write_options] {
    Index(*options);
    Sub(*options);
    Encode(*options);
    context.run = [&context, options] { return Write(context, *options); };
  });
}

}  // namespace motorctl
