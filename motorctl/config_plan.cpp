#include "config_plan.h"

#include <algorithm>
#include <map>

#include "config_pdo.h"
#include "identifiers.h"

namespace motorctl {
namespace {

constexpr std::uint32_t kIdentifier = 0x1FFFFFFF;
constexpr std::uint16_t kEmergencyCobId = 0x1014;
constexpr std::size_t kCobIdSize = 4;

using Where = std::pair<std::uint16_t, std::uint8_t>;

std::uint32_t Number(const Bytes& bytes) {
  std::uint32_t number = 0;
  for (std::size_t i = std::min<std::size_t>(bytes.size(), 4); i > 0; --i) {
    number = number << 8 | bytes[i - 1];
  }
  return number;
}

Bytes CobId(std::uint32_t value) {
  Bytes bytes;
  for (unsigned i = 0; i < kCobIdSize; ++i) {
    bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
  return bytes;
}

class Planner {
 public:
  Planner(const Config& drive, const Config& file, const ConfigRules& rules)
      : drive_(drive), file_(file), rules_(rules) {}

  ConfigPlan Plan() {
    std::map<std::uint16_t, std::vector<ConfigDifference>> pdos;
    for (const ConfigDifference& difference : Differences(drive_, file_, true)) {
      if (difference.right == nullptr) continue;  // the file says nothing about it
      std::string why = NeverRestored(*difference.right, file_, rules_);
      if (why.empty() && difference.left != nullptr) {
        why = NeverRestored(*difference.left, drive_, rules_);
      }
      if (!why.empty()) {
        plan_.left.push_back({difference, why});
      } else if (difference.left == nullptr) {
        plan_.missing.push_back(difference);
      } else {
        plan_.changes.push_back(difference);
      }
    }
    for (const ConfigDifference& change : plan_.changes) {
      if (const auto pdo = PdoOf(change.right->index)) {
        pdos[*pdo].push_back(change);
      } else if (change.right->index == kEmergencyCobId && change.right->sub == 0) {
        AddEmergency(change);
      } else {
        Add(*change.right, change.right->bytes);
      }
    }
    for (const auto& [pdo, changes] : pdos) AddPdo(pdo, changes);
    return std::move(plan_);
  }

 private:
  const Bytes& Now(const ConfigObject& object) {
    const Where where = {object.index, object.sub};
    const auto found = now_.find(where);
    if (found != now_.end()) return found->second;
    const ConfigObject* const held = drive_.Find(object.index, object.sub);
    return now_[where] = held == nullptr ? Bytes() : held->bytes;
  }

  void Add(const ConfigObject& object, const Bytes& bytes, bool optional = false) {
    ConfigWrite write;
    write.object = object;
    write.object.bytes = bytes;
    write.before = Now(object);
    write.optional = optional;
    now_[{object.index, object.sub}] = bytes;
    plan_.writes.push_back(write);
  }

  // The identifier must not change while the message is valid.
  void AddEmergency(const ConfigDifference& change) {
    const std::uint32_t now = Number(change.left->bytes);
    const std::uint32_t then = Number(change.right->bytes);
    if (change.left->bytes.size() == kCobIdSize && ((now ^ then) & kIdentifier) != 0 &&
        (now & kNotInUse) == 0) {
      Add(*change.right, CobId(now | kNotInUse));
    }
    if (Now(*change.right) != change.right->bytes) Add(*change.right, change.right->bytes);
  }

  void AddPdo(std::uint16_t communication, const std::vector<ConfigDifference>& changes) {
    const auto mapping = static_cast<std::uint16_t>(communication + kPdoMapping);
    const ConfigObject* const cob_id = drive_.Find(communication, kPdoCobId);
    const bool has_cob_id = cob_id != nullptr && cob_id->bytes.size() == kCobIdSize;
    Bytes last = has_cob_id ? cob_id->bytes : Bytes();
    if (has_cob_id && (Number(last) & kNotInUse) == 0) {
      Add(*cob_id, CobId(Number(last) | kNotInUse));
    }
    const auto maps = [mapping](const ConfigDifference& change) {
      return change.right->index == mapping;
    };
    if (std::any_of(changes.begin(), changes.end(), maps)) AddMapping(mapping, changes);
    for (const ConfigDifference& change : changes) {
      if (maps(change)) continue;
      if (change.right->sub == kPdoCobId && has_cob_id) {
        last = change.right->bytes;
      } else {
        Add(*change.right, change.right->bytes);
      }
    }
    if (has_cob_id && Now(*cob_id) != last) Add(*cob_id, last);
  }

  void AddMapping(std::uint16_t mapping, const std::vector<ConfigDifference>& changes) {
    const ConfigObject* const held = drive_.Find(mapping, 0);
    const ConfigObject* wanted = file_.Find(mapping, 0);
    if (wanted == nullptr) wanted = held;
    const bool has_count = held != nullptr && held->bytes.size() == 1 && wanted->bytes.size() == 1;
    const unsigned count = has_count ? wanted->bytes[0] : 0;
    if (has_count && held->bytes[0] != 0) Add(*held, {0});
    // All that are in use: a drive may forget them with the count.
    for (unsigned sub = 1; sub <= count; ++sub) {
      const ConfigObject* entry = file_.Find(mapping, static_cast<std::uint8_t>(sub));
      if (entry == nullptr) entry = drive_.Find(mapping, static_cast<std::uint8_t>(sub));
      if (entry != nullptr) Add(*entry, entry->bytes);
    }
    for (const ConfigDifference& change : changes) {
      const ConfigObject& entry = *change.right;
      if (entry.index != mapping || entry.sub == 0 || (has_count && entry.sub <= count)) continue;
      Add(entry, entry.bytes, has_count);
    }
    if (has_count && count != 0) Add(*wanted, wanted->bytes);
  }

  const Config& drive_;
  const Config& file_;
  const ConfigRules& rules_;
  ConfigPlan plan_;
  std::map<Where, Bytes> now_;
};

}  // namespace

ConfigPlan PlanRestore(const Config& drive, const Config& file, const ConfigRules& rules) {
  return Planner(drive, file, rules).Plan();
}

std::vector<const ConfigObject*> MoveToNode(Config& config, int node) {
  std::vector<const ConfigObject*> moved;
  const auto from = static_cast<std::uint32_t>(config.node);
  for (ConfigObject& object : config.objects) {
    const bool has_cob_id = (IsPdoCommunication(object.index) && object.sub == kPdoCobId) ||
                            (object.index == kEmergencyCobId && object.sub == 0);
    const std::uint32_t value = Number(object.bytes);
    if (!has_cob_id || object.bytes.size() != kCobIdSize || config.node == node ||
        (value & kIdentifier) > 0x7FF || (value & kNodeMask) != from) {
      continue;
    }
    object.bytes = CobId((value & ~kNodeMask) | static_cast<std::uint32_t>(node));
    moved.push_back(&object);
  }
  config.node = node;
  return moved;
}

}  // namespace motorctl
