// The forms of a report.
#pragma once

#include <functional>
#include <string>

#include "report.h"
#include "report_source.h"

namespace motorctl {

// What all of them tell.
struct ReportOf {
  const ReportSource& source;
  const ReportLog& log;
  const ReportSetup& setup;
  const Report& report;
  std::string make_from;        // "--make"; empty without a make
  int bit_rate = 0;             // 0: unknown
  std::string bit_rate_from;    // "system.txt"
  bool assumes_counts = false;  // nobody told the counts per revolution
};

// For people.
std::string ReportText(const ReportOf& of);

// One JSON object per line.
std::string ReportJson(const ReportOf& of);

// A row for every command and every measured speed. `write` takes it in pieces.
void WriteReportCsv(const ReportOf& of, const std::function<void(const std::string&)>& write);

// One page that needs nothing else. `nonce`: of its scripts and styles; no others run.
std::string ReportPage(const ReportOf& of, const std::string& nonce);

// "2026-11-22 01:35:49.912 UTC", as the log's clock showed it; empty where it has none.
std::string ShownTime(const ReportLog& log, std::int64_t nanoseconds);
// "the trigger".
const char* ZeroText(const Report& report);
// State that a node or a drive was in; empty where it is not known.
std::string NmtStateAt(const NodeReport& node, std::int64_t nanoseconds);
std::string DriveStateAt(const NodeReport& node, int motor, std::int64_t nanoseconds,
                         const Make* make);
// "12.3 % on average, 18.9 % in the busiest 0.1 s of 500 kbit/s (system.txt)".
std::string LoadText(const ReportOf& of);

}  // namespace motorctl
