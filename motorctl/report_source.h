// Where a report comes from: a folder of motorctl record, or a log alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "report.h"

namespace motorctl {

struct ReportSource {
  std::string path;      // as it was named
  std::string log_path;  // in the folder, or the same
  // Of the folder's other files, where they tell.
  std::optional<motor_driver::Vehicle> vehicle;
  int bit_rate = 0;  // 0: not told
  std::string trigger;
  std::optional<std::int64_t> trigger_at;  // not where somebody asked for the record
  std::vector<Finding> more;
  std::vector<std::string> notes;
};

// Throws LogUnreadable where there is no log.
ReportSource FindReportSource(const std::string& path);

}  // namespace motorctl
