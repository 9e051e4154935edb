#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "context.h"
#include "explain.h"

namespace motorctl {
namespace {

constexpr const char* kForms =
    "a number (0x3210, 12816), 8 bytes of payload (1032010000000000) or a candump line "
    "(581#8040600000000206)";

void Print(const Context& context, const std::string& code, const std::vector<Meaning>& readings) {
  if (context.json) {
    nlohmann::ordered_json object = {{"code", code}};
    object["readings"] = nlohmann::ordered_json::array();
    for (const Meaning& reading : readings) {
      nlohmann::ordered_json fields = {{"kind", reading.kind}};
      fields.update(reading.fields.Json());
      fields["text"] = reading.text;
      object["readings"].push_back(fields);
    }
    context.Line(object.dump());
    return;
  }
  for (const Meaning& reading : readings) {
    context.Line(code + ": " + reading.text);
  }
}

int RunExplain(const Context& context, const std::vector<std::string>& codes) {
  int status = kSuccess;
  for (const std::string& code : codes) {
    const auto readings = Explain(code, context.make);
    Print(context, code, *readings);
    if (readings->empty()) {
      context.Say("nothing is known about \"" + code + "\"");
      status = kFailure;
    }
  }
  return status;
}

}  // namespace

void AddExplain(CLI::App& app, Context& context) {
  auto codes = std::make_shared<std::vector<std::string>>();
  CLI::App* command = app.add_subcommand(
      "explain", "an error code, statusword, abort code or frame in words; needs no bus");
  command->add_option("CODE", *codes, kForms)->required();
  command->callback([&context, codes] {
    for (const std::string& code : *codes) {
      if (!Explain(code, context.make)) {
        throw CLI::ValidationError("CODE", "\"" + code + "\" is not a code: expected " + kForms);
      }
    }
    context.run = [&context, codes] { return RunExplain(context, *codes); };
  });
}

}  // namespace motorctl
