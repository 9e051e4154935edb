#include "sheet_pdos.h"

#include <algorithm>

#include "data_sheet.h"

namespace motorctl {

void SheetPdos::Hear(const HeardFrame& heard) {
  if (!heard.is_data()) return;
  const unsigned node = heard.frame.can_id & 0x7F;
  const bool wanted =
      only_.empty() || std::find(only_.begin(), only_.end(), static_cast<int>(node)) != only_.end();
  const MappedPdo* const pdo = wanted ? FindMappedPdo(heard.frame.can_id, node) : nullptr;
  if (pdo == nullptr) return;
  LoggedFrame frame;
  frame.id = heard.frame.can_id;
  frame.length = heard.frame.can_dlc;
  std::copy_n(heard.frame.data, sizeof heard.frame.data, frame.data.begin());
  heard_[{node, pdo->name}] = DecodeFrame(frame, nullptr);
}

}  // namespace motorctl
