#include "config_eds.h"

namespace motorctl {

void TakeFromEds(Config& config, const Eds& eds) {
  for (ConfigObject& object : config.objects) {
    const EdsObject* const of_eds = eds.Find(object.index, object.sub);
    if (of_eds == nullptr) continue;
    const unsigned size = SizeOf(of_eds->type);
    if (!object.type && (size == 0 || size == object.bytes.size())) object.type = of_eds->type;
    if (object.access.empty()) object.access = of_eds->access;
    if (object.name.empty()) object.name = of_eds->name;
  }
}

void CheckAgainstEds(const Config& config, const Eds& eds) {
  for (const ConfigObject& object : config.objects) {
    const EdsObject* const of_eds = eds.Find(object.index, object.sub);
    if (of_eds == nullptr || !of_eds->writable()) continue;
    const auto fail = [&](const std::string& text) {
      throw FileError(config.source + ":" + std::to_string(object.line) + ": " +
                      Place(object.index, object.sub) + ": " + text);
    };
    const unsigned size = SizeOf(of_eds->type);
    if (size != 0 && size != object.bytes.size()) {
      fail("has " + std::to_string(object.bytes.size()) + " bytes, but " + TypeName(of_eds->type) +
           " of the EDS has " + std::to_string(size));
    }
    const std::string against = AgainstLimits(*of_eds, object.bytes, config.node);
    if (!against.empty()) fail(against + " of the EDS");
  }
}

}  // namespace motorctl
