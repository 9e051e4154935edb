// motorctl config diff
#include <CLI/CLI.hpp>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "config_command.h"
#include "config_diff.h"
#include "config_eds.h"
#include "config_session.h"
#include "dcf.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

// As diff(1) has it.
enum DiffStatus { kSame = 0, kDifferent = 1, kTrouble = 2 };

struct DiffOptions {
  std::string sides[2];
  bool with_volatile = false;
};

// Digits alone are a node; "./1" is a file of such a name.
bool IsNode(const std::string& side) {
  return !side.empty() && side.find_first_not_of("0123456789") == std::string::npos;
}

bool IsNodeId(const std::string& side) {
  constexpr std::size_t kDigits = 3;
  return side.size() <= kDigits && std::stoi(side) >= 1 && std::stoi(side) <= 127;
}

Config LoadSide(const Context& context, const std::string& side) {
  if (!IsNode(side)) {
    Config config = LoadConfigOrDcf(side);
    if (context.data_sheet) TakeFromEds(config, *context.data_sheet);
    return config;
  }
  ConfigSession session(context, std::stoi(side));
  ConfigWalk walk = session.Walk();
  if (!walk.unread.empty()) throw CommandFailed("could not be read: " + walk.unread.front());
  return std::move(walk.config);
}

Json ValueOf(const ConfigObject* object, const std::string& text) {
  return object == nullptr ? Json(nullptr) : Json(text);
}

void Print(const Context& context, const ConfigDifference& difference, const std::string* names) {
  const ConfigObject& object = difference.any();
  if (context.json) {
    const Json line = {{"command", "config diff"},
                       {"index", object.index},
                       {"sub", object.sub},
                       {"object", difference.name()},
                       {"left", ValueOf(difference.left, difference.LeftText())},
                       {"right", ValueOf(difference.right, difference.RightText())}};
    context.Line(line.dump());
    return;
  }
  std::string text = Place(object.index, object.sub);
  if (!difference.name().empty()) text += "  " + difference.name();
  if (difference.left == nullptr) {
    text += "  only in " + names[1] + ": " + difference.RightText();
  } else if (difference.right == nullptr) {
    text += "  only in " + names[0] + ": " + difference.LeftText();
  } else {
    text += "  " + difference.LeftText() + " -> " + difference.RightText();
  }
  context.Line(text);
}

int Diff(const Context& context, const DiffOptions& options) {
  try {
    const Config left = LoadSide(context, options.sides[0]);
    const Config right = LoadSide(context, options.sides[1]);
    const auto differences = Differences(left, right, options.with_volatile);
    const std::string names[] = {left.source, right.source};
    for (const ConfigDifference& difference : differences) Print(context, difference, names);
    return differences.empty() ? kSame : kDifferent;
  } catch (const std::exception& error) {
    context.Say(error.what());
    return kTrouble;
  }
}

}  // namespace

void AddConfigDiff(CLI::App& config, Context& context) {
  const auto options = std::make_shared<DiffOptions>();
  CLI::App* const diff = config.add_subcommand("diff", "compare two files, two drives, or both");
  diff->add_option("A", options->sides[0], "file of config save, or node-ID")->required();
  diff->add_option("B", options->sides[1], "file of config save, or node-ID")->required();
  diff->add_flag("--volatile", options->with_volatile, "show what changes by itself, too");
  diff->footer("Exit status: 0 nothing differs, 1 something does, 2 it could not be told.");
  diff->callback([&context, options] {
    for (const std::string& side : options->sides) {
      if (IsNode(side) && !IsNodeId(side)) {
        throw CLI::ValidationError("NODE", side + " is not between 1 and 127");
      }
    }
    context.run = [&context, options] { return Diff(context, *options); };
  });
}

}  // namespace motorctl
