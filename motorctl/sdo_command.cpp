// motorctl sdo read|write
#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "context.h"
#include "data_sheet.h"
#include "moving_objects.h"
#include "sdo_client.h"
#include "sdo_value.h"
#include "sdo_words.h"
#include "sheet_values.h"
#include "signals.h"
#include "words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

struct Options {
  int node = 0;
  std::string index;
  std::string sub;
  std::string type;
  std::optional<std::string> value;
  bool yes = false;
  bool force = false;
};

std::uint16_t Index(const Options& options) {
  return static_cast<std::uint16_t>(ParseNumber(options.index, "INDEX", 0, 0xFFFF));
}

std::uint8_t Sub(const Options& options) {
  return static_cast<std::uint8_t>(ParseNumber(options.sub, "SUB", 0, 0xFF));
}

const EdsObject* Described(const Options& options) {
  return FindInDataSheet(Index(options), Sub(options));
}

// A value as the word TYPE says, or else the data sheet.
struct Coding {
  std::string name;
  std::optional<DataType> described;

  unsigned size() const { return described ? SizeOf(*described) : SizeOfType(name); }

  Bytes Encode(const std::string& text) const {
    if (!described) return EncodeValue(name, text);
    try {
      return ParseValue(*described, text);
    } catch (const ValueError& error) {
      throw CLI::ValidationError("VALUE", error.what());
    }
  }

  DecodedValue Decode(const Bytes& bytes) const {
    if (!described) return DecodeValue(name, bytes);
    return {ValueJson(*described, bytes), ValueText(*described, bytes)};
  }
};

// `otherwise`: the word where nothing else tells.
Coding CodingOf(const Options& options, const char* otherwise) {
  const EdsObject* const object = Described(options);
  if (!options.type.empty() || object == nullptr) {
    return {options.type.empty() ? otherwise : options.type, std::nullopt};
  }
  return {TypeName(object->type), object->type};
}

void CheckType(const std::string& name) {
  if (!IsValueType(name)) {
    throw CLI::ValidationError("TYPE", std::string("one of ") + kValueTypes);
  }
}

[[noreturn]] void Fail(const Options& options, const std::string& reason) {
  throw CommandFailed("node " + std::to_string(options.node) + ", " +
                      NameObject(Index(options), Sub(options)) + ": " + reason);
}

// The result of a transfer as JSON, of a failed one too: programs that read it need not parse
// status lines.
Json Describe(const char* command, const Options& options, const SdoAnswer& answer,
              const std::string& failure) {
  return {{"command", command},
          {"node", options.node},
          {"index", Index(options)},
          {"sub", Sub(options)},
          {"object", ObjectName(Index(options), Sub(options))},
          {"ok", failure.empty()},
          {"abort_code", answer.abort_code != 0 ? Json(answer.abort_code) : Json(nullptr)},
          {"late_ms",
           answer.kind == SdoAnswer::Kind::kLate ? Json(answer.late.count()) : Json(nullptr)},
          {"failure", failure.empty() ? Json(nullptr) : Json(failure)}};
}

// What ends the process ends the transfer first: a node may keep one that stays open.
template <typename Operation>
SdoAnswer Transfer(const Context& context, Operation operation) {
  EndSignals signals;
  SdoClient client(context.vehicle.interface, context.SdoTimeout());
  client.set_interrupted([&signals] { return signals.Arrived(); });
  return operation(client);
}

int Read(const Context& context, const Options& options) {
  const SdoAnswer answer = Transfer(context, [&options](SdoClient& client) {
    return client.Upload(options.node, Index(options), Sub(options));
  });
  const bool is_text = IsText(Index(options), Sub(options), context.make);
  const Coding coding = CodingOf(options, is_text ? "str" : "hex");
  const unsigned size = coding.size();
  std::string failure = Explanation(answer);
  DecodedValue value;
  try {
    Bytes bytes = answer.bytes;
    if (!answer.size_told && size != 0 && size < bytes.size()) bytes.resize(size);
    if (answer.ok()) value = coding.Decode(bytes);
  } catch (const CommandFailed& error) {
    failure = error.what();
  }
  if (context.json) {
    Json line = Describe("sdo read", options, answer, failure);
    line["type"] = coding.name;
    line["size"] = answer.ok() && answer.size_told ? Json(answer.bytes.size()) : Json(nullptr);
    line["value"] = value.json;
    context.Line(line.dump());
    if (failure.empty()) return kSuccess;
  }
  if (!failure.empty()) Fail(options, failure);
  if (size != 0 && answer.size_told && size != answer.bytes.size()) {
    context.Say("the node answers with " + std::to_string(answer.bytes.size()) + " bytes, " +
                coding.name + " has " + std::to_string(size));
  }
  context.Line(value.text);
  return kSuccess;
}

// The one word behind the object is its value where the data sheet tells its type.
void SortWords(Options& options) {
  if (options.value) {
    CheckType(options.type);
  } else if (Described(options) != nullptr) {
    options.value = std::exchange(options.type, "");
  } else {
    throw CLI::RequiredError("VALUE");
  }
}

// The bytes to write. Throws CLI::ValidationError where the data sheet is against it.
Bytes EncodeChecked(const Context& context, const Options& options) {
  Bytes bytes = CodingOf(options, "").Encode(*options.value);
  const EdsObject* const object = Described(options);
  if (object == nullptr || options.force) return bytes;
  const std::string against =
      AgainstWriting(*object, bytes, options.node, context.data_sheet->file);
  if (against.empty()) return bytes;
  throw CLI::ValidationError(NameObject(Index(options), Sub(options)),
                             against + "; --force writes it all the same");
}

int Write(const Context& context, const Options& options) {
  const Bytes bytes = EncodeChecked(context, options);
  if (Moves(Index(options))) {
    const ExitStatus answer = context.Ask(
        options.yes, NameObject(Index(options), Sub(options)) + " can turn the wheels of node " +
                         std::to_string(options.node) + ". Are they off the ground?");
    if (answer != kSuccess) {
      context.Say("nothing was written");
      return answer;
    }
  }
  const SdoAnswer answer = Transfer(context, [&](SdoClient& client) {
    return client.Download(options.node, Index(options), Sub(options), bytes);
  });
  const std::string failure = WriteExplanation(answer);
  if (context.json) {
    Json line = Describe("sdo write", options, answer, failure);
    const Coding coding = CodingOf(options, "");
    line["type"] = coding.name;
    line["size"] = bytes.size();
    line["value"] = coding.Decode(bytes).json;
    context.Line(line.dump());
    if (answer.ok()) return kSuccess;
  }
  if (!answer.ok()) Fail(options, failure);
  context.Say("written");
  return kSuccess;
}

void AddObjectOptions(CLI::App& command, Options& options) {
  command.add_option("NODE", options.node, "node-ID")->required()->check(CLI::Range(1, 127));
  command.add_option("INDEX", options.index, "0 to 0xFFFF")->required();
  command.add_option("SUB", options.sub, "0 to 0xFF")->required();
}

}  // namespace

void AddSdo(CLI::App& app, Context& context) {
  CLI::App* const sdo = app.add_subcommand("sdo", "read or write one object of a node");
  sdo->require_subcommand(1);
  AddTimeout(*sdo, context);

  const auto read_options = std::make_shared<Options>();
  CLI::App* const read = sdo->add_subcommand("read", "print the value of an object");
  AddObjectOptions(*read, *read_options);
  read->add_option("TYPE", read_options->type,
                   std::string(kValueTypes) +
                       " (that of --eds; or else str of a text that is "
                       "known, and hex)");
  read->callback([&context, options = read_options] {
    Index(*options);
    Sub(*options);
    if (!options->type.empty()) CheckType(options->type);
    context.run = [&context, options] { return Read(context, *options); };
  });

  const auto write_options = std::make_shared<Options>();
  CLI::App* const write = sdo->add_subcommand("write", "write a value, and wait until it is taken");
  AddObjectOptions(*write, *write_options);
  write
      ->add_option("TYPE", write_options->type,
                   std::string(kValueTypes) + "; to be left out where --eds tells it")
      ->required();
  write->add_option(
      "VALUE", write_options->value,
      "decimal, or hexadecimal with 0x; hex: two digits for each byte; str: as it is");
  write->add_flag("--yes", write_options->yes,
                  "do not ask before objects that turn wheels; needed where standard input is "
                  "not a terminal");
  write->add_flag("--force", write_options->force,
                  "also what the data sheet calls read-only or out of limits");
  write->callback([&context, options = write_options] {
    Index(*options);
    Sub(*options);
    SortWords(*options);
    EncodeChecked(context, *options);
    context.run = [&context, options] { return Write(context, *options); };
  });
}

}  // namespace motorctl
