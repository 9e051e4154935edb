// What was found, kept within limits.
#include <algorithm>

#include "report_watch.h"

namespace motorctl {
namespace {

constexpr std::size_t kMostFindings = 2000;  // of anomalies, and of what is in order
constexpr std::int64_t kRepeats = 1'000'000'000;

}  // namespace

Finding FindingOf(const KeptFrame& frame, std::string_view kind, bool anomaly, int node,
                  std::string text) {
  Finding finding;
  finding.nanoseconds = frame.nanoseconds;
  finding.line = frame.line;
  finding.kind = kind;
  finding.anomaly = anomaly;
  finding.node = node;
  finding.text = std::move(text);
  return finding;
}

Finding& Findings::Add(Finding finding) {
  finding.last = finding.nanoseconds;
  const auto key = std::make_tuple(finding.kind, finding.node, finding.motor, finding.text);
  const auto last = last_.find(key);
  if (last != last_.end() && finding.nanoseconds - last->second->last <= kRepeats) {
    ++last->second->count;
    last->second->last = finding.nanoseconds;
    return *last->second;
  }
  if (kept_[finding.anomaly ? 1 : 0] == kMostFindings) {
    ++report_.unlisted;
    unlisted_ = std::move(finding);
    return unlisted_;
  }
  ++kept_[finding.anomaly ? 1 : 0];
  report_.findings.push_back(std::move(finding));
  Finding& kept = report_.findings.back();
  last_.insert_or_assign(key, &kept);
  return kept;
}

void Findings::Finish() {
  last_.clear();
  std::stable_sort(report_.findings.begin(), report_.findings.end(),
                   [](const Finding& left, const Finding& right) {
                     return left.nanoseconds < right.nanoseconds;
                   });
}

}  // namespace motorctl
