// motorctl info [NODE...]
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "context.h"
#include "sdo_client.h"
#include "sdo_words.h"
#include "words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

std::vector<motor_driver::Object> ObjectsToShow(const Context& context) {
  std::vector<motor_driver::Object> objects = {
      {0x1000, 0}, {0x1008, 0}, {0x1009, 0}, {0x100A, 0}, {0x1018, 1}, {0x1018, 2}, {0x1018, 3},
      {0x1018, 4}, {0x1001, 0}, {0x1017, 0}, {0x6041, 0}, {0x603F, 0}, {0x6061, 0}};
  if (context.make != nullptr) {
    for (const auto& more : {context.make->targets, context.make->positions}) {
      objects.insert(objects.end(), more.begin(), more.end());
    }
  }
  return objects;
}

struct Shown {
  Json value;
  std::string text;
};

Shown Show(const SdoAnswer& answer, const motor_driver::Object& object, const Make* make) {
  if (!answer.ok()) return {nullptr, Explanation(answer)};
  const Bytes& bytes = answer.bytes;
  if (IsText(object.index, object.sub_index, make)) {
    const std::string text = Printable(bytes.data(), bytes.size());
    return {text, text};
  }
  const auto size = static_cast<unsigned>(std::min<std::size_t>(bytes.size(), 4));
  if (size == 0) return {nullptr, "empty"};
  const Value value = ObjectValue(object.index, object.sub_index, answer.number(), size, make);
  return {value.number, value.text};
}

void Show(const Context& context, SdoClient& client, int node) {
  bool answers = false;
  for (const motor_driver::Object& object : ObjectsToShow(context)) {
    const SdoAnswer answer = client.Upload(node, object.index, object.sub_index);
    if (!answer.heard() && !answers) {
      throw CommandFailed("node " + std::to_string(node) + ": " + Explanation(answer) +
                          "; \"motorctl scan\" shows who answers, \"motorctl doctor " +
                          std::to_string(node) + "\" what is wrong");
    }
    answers = answers || answer.heard();
    const std::string name = ObjectName(object.index, object.sub_index, context.make);
    const Shown shown = Show(answer, object, context.make);
    if (context.json) {
      context.Line(Json{
          {"command", "info"},
          {"node", node},
          {"index", object.index},
          {"sub", object.sub_index},
          {"object", name},
          {"value", shown.value},
          {"text",
           shown.text}}.dump());
    } else {
      char line[96];
      std::snprintf(line, sizeof(line), "%s:%02X  %-32s ", Hex(object.index, 4).c_str(),
                    object.sub_index, name.c_str());
      context.Line(line +
                   (answer.ok() ? shown.text : context.Coloured(Colour::kYellow, shown.text)));
    }
  }
}

int Run(const Context& context, const std::vector<int>& nodes) {
  SdoClient client(context.vehicle.interface, context.SdoTimeout());
  for (const int node : nodes) {
    if (nodes.size() > 1 && !context.json) {
      context.Line(context.Coloured(Colour::kBold, "node " + std::to_string(node)));
    }
    Show(context, client, node);
  }
  return kSuccess;
}

}  // namespace

void AddInfo(CLI::App& app, Context& context) {
  const auto nodes = std::make_shared<std::vector<int>>();
  CLI::App* const command = app.add_subcommand(
      "info", "identity, state and error of nodes; with --make also targets and positions");
  AddTimeout(*command, context);
  AddNodes(*command, *nodes, "node-IDs; those of the vehicle without");
  command->callback([&context, nodes] {
    context.run = [&context, all = context.Nodes(*nodes)] { return Run(context, all); };
  });
}

}  // namespace motorctl
