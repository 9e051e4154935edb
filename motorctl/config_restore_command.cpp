// motorctl config restore
#include <CLI/CLI.hpp>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "config_command.h"
#include "config_eds.h"
#include "config_pdo.h"
#include "config_plan.h"
#include "config_restore.h"
#include "config_session.h"
#include "dcf.h"
#include "decode.h"
#include "sdo_words.h"

namespace motorctl {
namespace {

using Json = nlohmann::ordered_json;

struct RestoreOptions {
  std::string file;
  int node = 0;
  bool yes = false;
  bool force = false;
  bool store = false;
  ConfigRules rules;
};

constexpr std::chrono::milliseconds kPatience{1000};
constexpr const char* kCommand = "config restore";

std::string Upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

class Restore {
 public:
  Restore(const Context& context, const RestoreOptions& options)
      : context_(context), options_(options), file_(LoadConfigOrDcf(options.file)) {
    if (context.data_sheet) {
      CheckAgainstEds(file_, *context.data_sheet);
      TakeFromEds(file_, *context.data_sheet);
    }
  }

  int Run() {
    ConfigSession session(context_, options_.node);
    const ConfigIdentity identity = RequireTheProduct(session.device());
    if (options_.store) RequireStore(session.device());
    session.device().RefuseOtherHosts();
    if (!session.device().hears_this_machine()) {
      context_.Say(
          "hosts on this machine are not heard without the capability CAP_NET_RAW: see that "
          "none drives " +
          Node());
    }
    const std::string why = WhyNotNow(session.device(), kPatience);
    if (!why.empty()) throw CommandFailed(Node() + ": " + why + "; nothing was written");
    for (const ConfigObject* moved : MoveToNode(file_, options_.node)) {
      context_.Say(Place(moved->index, moved->sub) + " is taken with the node-ID " +
                   std::to_string(options_.node));
    }
    const Config drive = WhatItHolds(session);
    const ConfigPlan plan = PlanRestore(drive, file_, options_.rules);
    Show(plan);
    RequireNothingMissing(plan);
    if (plan.writes.empty() && !options_.store) {
      context_.Say(Node() + " holds what the file holds; nothing was written");
      return kSuccess;
    }
    const ExitStatus answer = context_.Ask(options_.yes, Question(plan));
    if (answer != kSuccess) {
      context_.Say("nothing was written");
      return answer;
    }
    session.HoldSignals();
    // What the file has the drive receive may be on the bus already.
    for (const ConfigWrite& write : plan.writes) WatchPdo(session.device(), write.object);
    // Reading took its time, and somebody thought about it.
    RequireTheSame(session, identity, drive);
    return Write(session, plan, identity);
  }

 private:
  std::string Node() const { return "node " + std::to_string(options_.node); }

  static void WatchPdo(BusDevice& device, const ConfigObject& object) {
    if (object.index < 0x1400 || object.index > 0x15FF || object.sub != 1) return;
    const std::uint32_t cob_id = LittleEndian(
        object.bytes.data(), static_cast<unsigned>(std::min<std::size_t>(object.bytes.size(), 4)));
    if (const auto identifier = IdentifierOf(cob_id)) device.Watch(*identifier);
  }

  // Called before anything is written.
  Config WhatItHolds(ConfigSession& session) const {
    try {
      return session.ReadObjects(file_);
    } catch (const CommandFailed& failed) {
      throw CommandFailed(std::string(failed.what()) + "; nothing was written");
    }
  }

  // Returns what the drive says about itself.
  ConfigIdentity RequireTheProduct(BusDevice& device) const {
    const ReadIdentity found = IdentityOf(device);
    if (!found.answers) throw CommandFailed(Node() + " does not answer");
    if ((!file_.identity.vendor || !file_.identity.product) && !options_.force) {
      throw CommandFailed(file_.source +
                          ": does not say of which product it is; --force restores it");
    }
    const std::string product = DifferentProduct(file_.identity, found.identity);
    if (!product.empty()) throw CommandFailed(Node() + " is another product: " + product);
    const std::string revision = DifferentRevision(file_.identity, found.identity);
    if (!revision.empty() && !options_.force) {
      throw CommandFailed(Node() + " is another revision: " + revision +
                          "; --force restores it all the same");
    }
    return found.identity;
  }

  void RequireStore(BusDevice& device) const {
    const SdoAnswer answer = device.Read(0x1010, 1);
    if (!answer.ok()) {
      throw CommandFailed(Node() + " cannot store by 0x1010 sub 1: " + Explanation(answer) +
                          "; nothing was written");
    }
  }

  void RequireNothingMissing(const ConfigPlan& plan) const {
    if (plan.missing.empty() || options_.force) return;
    throw CommandFailed(Node() + " does not have " + std::to_string(plan.missing.size()) +
                        " of the objects; --force restores the others; nothing was written");
  }

  void RequireTheSame(ConfigSession& session, const ConfigIdentity& identity, const Config& drive) {
    const ReadIdentity found = IdentityOf(session.device());
    std::string why = WhyNotNow(session.device(), kPatience);
    if (why.empty() && !DifferentSerial(identity, found.identity).empty()) {
      why = "it is another drive now";
    }
    const Config now = WhatItHolds(session);
    for (const ConfigDifference& difference : Differences(drive, now)) {
      const ConfigObject& object = difference.any();
      if (why.empty() && NeverRestored(object, file_, options_.rules).empty()) {
        why = Place(object.index, object.sub) + " has changed meanwhile";
      }
    }
    if (!why.empty()) throw CommandFailed(Node() + ": " + why + "; nothing was written");
  }

  void Show(const ConfigPlan& plan) const {
    for (const ConfigDifference& change : plan.changes) Print("change", change, "");
    for (const ConfigPlan::Left& left : plan.left) Print("left", left.difference, left.why);
    for (const ConfigDifference& missing : plan.missing) {
      Print("missing", missing, "the drive does not have it");
    }
  }

  void Print(const char* event, const ConfigDifference& difference, const std::string& why) const {
    const ConfigObject& object = difference.any();
    const bool has_old = difference.left != nullptr;
    if (context_.json) {
      context_.Line(Json{{"command", kCommand},
                         {"event", event},
                         {"index", object.index},
                         {"sub", object.sub},
                         {"object", difference.name()},
                         {"drive", has_old ? Json(difference.LeftText()) : Json(nullptr)},
                         {"file", difference.RightText()},
                         {"why", why.empty() ? Json(nullptr) : Json(why)}}
                        .dump());
      return;
    }
    std::string text = Place(object.index, object.sub);
    if (!difference.name().empty()) text += "  " + difference.name();
    text += "  ";
    if (why.empty()) {
      text += difference.LeftText() + " -> " + difference.RightText();
    } else {
      if (has_old) text += "stays " + difference.LeftText() + ", ";
      text += "not " + difference.RightText() + ": " + why;
    }
    context_.Line(text);
  }

  std::string Question(const ConfigPlan& plan) const {
    std::string text;
    if (!plan.writes.empty()) {
      text = "Write " + std::to_string(plan.changes.size()) + " objects of " + Node();
    }
    if (options_.store) text += text.empty() ? "Store them in " + Node() : ", and store them";
    return text + '?';
  }

  int Write(ConfigSession& session, const ConfigPlan& plan, const ConfigIdentity& identity) const {
    const auto finish = [&](const ConfigOutcome& done) {
      const std::size_t count = plan.changes.size() - done.refused.size() - done.read_only.size();
      if (context_.json) {
        context_.Line(Json{{"command", kCommand},
                           {"event", "restored"},
                           {"objects", count},
                           {"unused", done.refused},
                           {"read_only", done.read_only}}
                          .dump());
      } else {
        context_.Line(Node() + ": " + std::to_string(count) + " objects restored");
      }
    };
    const ConfigOutcome outcome = WritePlan(plan.writes, identity, session.device(), finish);
    if (!outcome.failure.empty()) return Failed(outcome, !plan.writes.empty());
    for (const std::string& object : outcome.refused) {
      context_.Say(object + " stays as it was: the drive refuses it, and nothing uses it");
    }
    for (const std::string& object : outcome.read_only) {
      context_.Say(object + " stays as it is: the drive says that it is read-only");
    }
    if (!options_.store) return kSuccess;
    // Whoever held our output held us, too.
    const std::string why = WhyNotNow(session.device(), kPatience);
    if (!why.empty()) {
      context_.Say("*** " + Upper(Node()) +
                   " HOLDS THEM UNTIL IT IS SWITCHED OFF; IT WAS NOT TOLD " +
                   "TO STORE THEM: " + why + " ***");
      return kFailure;
    }
    const SdoAnswer stored = session.device().Store();
    if (!stored.ok()) {
      context_.Say("*** " + Upper(Node()) +
                   " HOLDS THEM UNTIL IT IS SWITCHED OFF; IT DID NOT STORE " +
                   "THEM: " + WriteExplanation(stored) + " ***");
      return kFailure;
    }
    if (context_.json) {
      context_.Line(Json{{"command", kCommand}, {"event", "stored"}}.dump());
    } else {
      context_.Line(Node() + ": stored");
    }
    return kSuccess;
  }

  int Failed(const ConfigOutcome& outcome, bool written) const {
    context_.Say(Node() + ": " + outcome.failure);
    for (const std::string& object : outcome.not_as_they_were) {
      context_.Say("*** NOT AS IT WAS: " + Upper(object) + " ***");
    }
    if (outcome.not_as_they_were.empty()) {
      context_.Say(written ? Node() + " is as it was before" : "nothing was written");
    }
    if (context_.json) {
      context_.Line(Json{{"command", kCommand},
                         {"event", "failed"},
                         {"failure", outcome.failure},
                         {"not_as_they_were", outcome.not_as_they_were}}
                        .dump());
    }
    return kFailure;
  }

  const Context& context_;
  const RestoreOptions& options_;
  Config file_;
};

}  // namespace

void AddConfigRestore(CLI::App& config, Context& context) {
  const auto options = std::make_shared<RestoreOptions>();
  CLI::App* const restore =
      config.add_subcommand("restore", "write into a drive what a file holds, or nothing");
  restore->add_option("FILE", options->file, "of config save, YAML or DCF")->required();
  restore->add_option("NODE", options->node, "node-ID")->required()->check(CLI::Range(1, 127));
  restore->add_flag("--yes", options->yes,
                    "do not ask; needed where standard input is not a terminal");
  restore->add_flag("--force", options->force,
                    "also into another revision, or where objects are missing");
  restore->add_flag("--save", options->store, "let the drive store all of it in the end (0x1010)");
  restore->add_flag("--bus-settings", options->rules.bus_settings,
                    "write the makers' objects of node-ID and bit rate, too");
  restore->callback([&context, options] {
    context.run = [&context, options] { return Restore(context, *options).Run(); };
  });
}

}  // namespace motorctl
