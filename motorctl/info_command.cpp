// motorctl info [NODE...]
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "sdo_client.h"
#include "words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

std::vector<motor_driver::Object> ObjectsToShow(const Context& context) {
  std::vector<motor_driver::Object> objects = {{0x1000, 0}, {0x1018, 1}, {0x1018, 2}, {0x1018, 3},
                                               {0x1018, 4}, {0x1001, 0}, {0x1017, 0}, {0x6041, 0},
                                               {0x603F, 0}, {0x6061, 0}};
  if (context.make != nullptr) {
    for (const auto& more : {context.make->targets, context.make->positions}) {
      objects.insert(objects.end(), more.begin(), more.end());
    }
  }
  return objects;
}

void Show(const Context& context, DriverCommon& drive, int node) {
  bool answers = false;
  for (const motor_driver::Object& object : ObjectsToShow(context)) {
    const SdoAnswer answer = ReadObject(drive, node, object.index, object.sub_index);
    const bool heard =
        answer.kind != SdoAnswer::Kind::kNoAnswer && answer.kind != SdoAnswer::Kind::kNotSent;
    if (!heard && !answers) {
      throw CommandFailed("node " + std::to_string(node) + ": " + Explanation(answer) +
                          "; \"motorctl scan\" shows who answers, \"motorctl doctor " +
                          std::to_string(node) + "\" what is wrong");
    }
    answers = answers || heard;
    const std::string name = ObjectName(object.index, object.sub_index, context.make);
    const unsigned size = answer.size == 0 ? 4 : answer.size;
    const Value value =
        answer.ok() ? ObjectValue(object.index, object.sub_index, answer.value, size, context.make)
                    : Value{};
    if (context.json) {
      context.Line(Json{{"command", "info"},
                        {"node", node},
                        {"index", object.index},
                        {"sub", object.sub_index},
                        {"object", name},
                        {"value", answer.ok() ? Json(value.number) : Json(nullptr)},
                        {"text", answer.ok() ? value.text : Explanation(answer)}}
                       .dump());
    } else {
      char line[96];
      std::snprintf(line, sizeof(line), "%s:%02X  %-32s ", Hex(object.index, 4).c_str(),
                    object.sub_index, name.c_str());
      context.Line(line + (answer.ok() ? value.text
                                       : context.Coloured(Colour::kYellow, Explanation(answer))));
    }
  }
}

int Run(const Context& context, const std::vector<int>& nodes) {
  const std::unique_ptr<DriverCommon> drive = OpenBus(context);
  for (const int node : nodes) {
    if (nodes.size() > 1 && !context.json) {
      context.Line(context.Coloured(Colour::kBold, "node " + std::to_string(node)));
    }
    Show(context, *drive, node);
  }
  return kSuccess;
}

}  // namespace

void AddInfo(CLI::App& app, Context& context) {
  const auto nodes = std::make_shared<std::vector<int>>();
  CLI::App* const command = app.add_subcommand(
      "info", "identity, state and error of nodes; with --make also targets and positions");
  AddNodes(*command, *nodes, "node-IDs; those of the vehicle without");
  command->callback([&context, nodes] {
    context.run = [&context, all = context.Nodes(*nodes)] { return Run(context, all); };
  });
}

}  // namespace motorctl
