#include "config_walk.h"

#include <algorithm>
#include <map>

#include "abort_codes.h"
#include "config_pdo.h"
#include "context.h"
#include "printable.h"
#include "sdo_words.h"
#include "string_values.h"
#include "words.h"

namespace motorctl {
namespace {

constexpr std::uint16_t kLastIndex = 0x6FFF;
constexpr unsigned kHighestSub = 254;
constexpr unsigned kHighestMapped = 64;

bool IsAbort(const SdoAnswer& answer, std::uint32_t code) {
  return answer.kind == SdoAnswer::Kind::kAborted && answer.abort_code == code;
}

bool IsAbsent(const SdoAnswer& answer) {
  return answer.kind == SdoAnswer::Kind::kAborted && SaysAbsent(answer.abort_code);
}

// There is nothing to keep of it.
bool HasNoValue(const SdoAnswer& answer) {
  return IsAbort(answer, kWriteOnly) || IsAbort(answer, kNoData);
}

ConfigObject NameOf(std::uint16_t index, std::uint8_t sub,
                    const motor_driver::Make* make = nullptr) {
  ConfigObject object;
  object.index = index;
  object.sub = sub;
  object.name = ObjectName(index, sub, make);
  if (IsText(index, sub, make)) object.type = DataType::kVisibleString;
  return object;
}

double Share(std::size_t done, std::size_t all) {
  return static_cast<double>(done) / static_cast<double>(all);
}

class Walker {
 public:
  Walker(ConfigDevice& device, int node, const motor_driver::Make* make,
         const WalkProgress& progress)
      : device_(device), node_(node), make_(make), progress_(progress) {}

  ConfigWalk Walk(const Eds* eds) {
    // The second pass reads what is there only.
    first_pass_ = eds != nullptr ? 0.5 : 0.99;
    if (eds != nullptr) {
      ReadObjectsOfEds(*eds);
    } else {
      ReadEverything();
    }
    if (result_.config.objects.empty()) {
      throw CommandFailed(Node() + " has no object that can be read" +
                          (result_.unread.empty() ? "" : ": " + result_.unread.front()));
    }
    FindVolatile();
    return std::move(result_);
  }

  // What the drive does not have is left out, as is what could not be read.
  void ReadOne(ConfigObject object) {
    const SdoAnswer answer = Read(object.index, object.sub);
    if (IsAbsent(answer)) {
      result_.absent.push_back(Shown(object));
    } else {
      Keep(std::move(object), answer);
    }
  }
  ConfigWalk Take() { return std::move(result_); }

 private:
  std::string Node() const { return "node " + std::to_string(node_); }

  SdoAnswer Read(std::uint16_t index, std::uint8_t sub) {
    const std::string disturbance = device_.Disturbance();
    if (!disturbance.empty()) throw CommandFailed(disturbance);
    SdoAnswer answer = device_.Read(index, sub);
    if (!answer.heard()) {
      // It may be this object only.
      const bool is_there = heard_ && device_.Read(0x1000, 0).heard();
      if (!is_there) {
        throw CommandFailed(Node() +
                            (heard_ ? " answers no longer, at " : " does not answer, at ") +
                            Place(index, sub) + ": " + Explanation(answer));
      }
    }
    // Every other one will be late, too.
    if (answer.kind == SdoAnswer::Kind::kLate) {
      throw CommandFailed(Node() + ", " + Place(index, sub) + ": " + Explanation(answer));
    }
    heard_ = heard_ || answer.heard();
    return answer;
  }

  void Keep(ConfigObject object, const SdoAnswer& answer) {
    if (HasNoValue(answer)) return;
    if (!answer.ok()) {
      result_.unread.push_back(Shown(object) + ": " + Explanation(answer));
      return;
    }
    object.bytes = answer.bytes;
    result_.config.objects.push_back(std::move(object));
  }

  void ReadObjectsOfEds(const Eds& eds) {
    std::size_t done = 0;
    for (const EdsObject& of_eds : eds.objects) {
      progress_(first_pass_ * Share(done++, eds.objects.size()), of_eds.index);
      if (!of_eds.readable()) continue;
      ConfigObject object;
      object.index = of_eds.index;
      object.sub = of_eds.sub;
      object.type = of_eds.type;
      object.access = of_eds.access;
      object.name = of_eds.name;
      ReadOne(std::move(object));
    }
  }

  void ReadEverything() {
    constexpr std::size_t kAll = kLastIndex - kFirstConfigIndex + 1;
    for (unsigned index = kFirstConfigIndex; index <= kLastIndex; ++index) {
      progress_(first_pass_ * Share(index - kFirstConfigIndex, kAll),
                static_cast<std::uint16_t>(index));
      ReadIndex(static_cast<std::uint16_t>(index));
    }
  }

  void ReadIndex(std::uint16_t index) {
    const SdoAnswer first = Read(index, 0);
    if (IsAbort(first, kNoObject)) return;
    // Whether it has no sub-index 0, or counts its sub-indices there.
    const bool begins_at_one = IsAbort(first, kNoSubIndex);
    if (!begins_at_one) Keep(NameOf(index, 0, make_), first);
    // It may be a number of one byte and no more: the sub-indices are not there then.
    const bool counts = first.ok() && first.bytes.size() == 1;
    // A mapping counts what is in use only.
    const bool to_the_end = begins_at_one || IsPdoMapping(index);
    const unsigned last = to_the_end ? kHighestMapped : counts ? first.bytes[0] : 0;
    for (unsigned sub = 1; sub <= std::min(last, kHighestSub); ++sub) {
      const auto sub_index = static_cast<std::uint8_t>(sub);
      const SdoAnswer answer = Read(index, sub_index);
      if (IsAbsent(answer) && to_the_end) break;
      if (!IsAbsent(answer)) Keep(NameOf(index, sub_index, make_), answer);
    }
  }

  void FindVolatile() {
    std::vector<ConfigObject>& objects = result_.config.objects;
    std::size_t done = 0;
    for (ConfigObject& object : objects) {
      progress_(first_pass_ + (1 - first_pass_) * Share(done++, objects.size()), object.index);
      const SdoAnswer again = Read(object.index, object.sub);
      if (!again.ok() && !HasNoValue(again)) {
        result_.unread.push_back(Shown(object) + ": " + Explanation(again));
      }
      object.is_volatile = !again.ok() || again.bytes != object.bytes;
    }
  }

  ConfigDevice& device_;
  const int node_;
  const motor_driver::Make* const make_;
  const WalkProgress& progress_;
  ConfigWalk result_;
  bool heard_ = false;
  double first_pass_ = 1;  // its share of the time
};

std::string TextAt(const Config& config, std::uint16_t index) {
  const ConfigObject* const object = config.Find(index, 0);
  return object == nullptr ? "" : ShowText(object->bytes, kByteUnits);
}

void Describe(ConfigDevice& device, int node, Config& config) {
  const ReadIdentity identity = IdentityOf(device);
  if (!identity.answers || device.booted_up()) {
    throw CommandFailed("node " + std::to_string(node) + " went away while it was read");
  }
  config.source = "node " + std::to_string(node);
  config.node = node;
  config.identity = identity.identity;
  config.device = TextAt(config, 0x1008);
  config.hardware = TextAt(config, 0x1009);
  config.software = TextAt(config, 0x100A);
}

}  // namespace

ConfigWalk WalkDevice(ConfigDevice& device, int node, const Eds* eds,
                      const motor_driver::Make* make, const WalkProgress& progress) {
  ConfigWalk walk = Walker(device, node, make, progress).Walk(eds);
  Describe(device, node, walk.config);
  if (eds != nullptr) walk.config.eds = eds->file;
  walk.config.partial = !walk.unread.empty();
  return walk;
}

Config ReadObjectsOf(ConfigDevice& device, int node, const Config& wanted,
                     const WalkProgress& progress) {
  std::map<std::pair<std::uint16_t, std::uint8_t>, ConfigObject> objects;
  for (const ConfigObject& object : wanted.objects) {
    objects[{object.index, object.sub}] = object;
    if (const auto pdo = PdoOf(object.index)) {
      objects.insert({{*pdo, kPdoCobId}, NameOf(*pdo, kPdoCobId)});
      const auto mapping = static_cast<std::uint16_t>(*pdo + kPdoMapping);
      objects.insert({{mapping, 0}, NameOf(mapping, 0)});
    }
  }
  Walker walker(device, node, nullptr, progress);
  std::size_t done = 0;
  for (auto& [place, object] : objects) {
    progress(Share(done++, objects.size()), place.first);
    object.is_volatile = false;
    walker.ReadOne(object);
  }
  ConfigWalk walk = walker.Take();
  if (!walk.unread.empty()) throw CommandFailed("cannot be read: " + walk.unread.front());
  Describe(device, node, walk.config);
  return std::move(walk.config);
}

}  // namespace motorctl
