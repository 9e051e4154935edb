#include "report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace {

std::string Number(double value) {
  if (std::abs(value) >= 100 || value == std::floor(value)) {
    return fmt::format("{:.0f}", value);
  }
  return fmt::format("{:.{}f}", value, std::abs(value) < 1 ? 3 : 2);
}

std::optional<double> Ratio(const Row& row) {
  if (row.bare.empty() || row.bare.Median() == 0) {
    return std::nullopt;
  }
  return row.library.Median() / row.bare.Median();
}

std::string TargetText(const Row& row) {
  switch (row.target) {
    case Target::kRatioAtMost:
      return fmt::format("<= {:.2f} x", row.limit);
    case Target::kValueAtMost:
      return fmt::format("<= {}", Number(row.limit));
    case Target::kNone:
      break;
  }
  return "-";
}

std::string Verdict(const Row& row) {
  if (row.target == Target::kNone) {
    return "-";
  }
  const std::optional<double> judged =
      row.target == Target::kRatioAtMost ? Ratio(row) : std::optional<double>(row.library.Median());
  if (!judged) {
    return "-";
  }
  return *judged <= row.limit ? "ok" : "over";
}

std::string SpreadText(const Row& row) {
  std::string text = fmt::format("{:.0f} %", row.library.SpreadPercent());
  if (!row.bare.empty()) {
    text += fmt::format(", {:.0f} %", row.bare.SpreadPercent());
  }
  return text;
}

std::string JsonNumber(std::optional<double> value) {
  return value && std::isfinite(*value) ? fmt::format("{}", *value) : "null";
}

}  // namespace

double Figure::Quantile(double q) const {
  std::vector<double> sorted = values_;
  std::sort(sorted.begin(), sorted.end());
  const double position = q * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<std::size_t>(position);
  const std::size_t above = std::min(below + 1, sorted.size() - 1);
  const double share = position - static_cast<double>(below);
  return sorted[below] + (sorted[above] - sorted[below]) * share;
}

Figure Figure::At(double q) const {
  Figure figure;
  figure.Add(Quantile(q));
  return figure;
}

double Figure::SpreadPercent() const {
  const double median = Median();
  return median == 0 ? 0 : (Quantile(1) - Quantile(0)) / median * 100;
}

std::string Table(const std::vector<Row>& rows) {
  constexpr const char* kLine = "{:<58} {:>10} {:>10} {:>10} {:>7} {:>10} {:>5} {:>13}\n";
  std::string table = fmt::format(fmt::runtime(kLine), "measure", "unit", "library", "bare",
                                  "ratio", "target", "", "spread");
  for (const Row& row : rows) {
    const std::optional<double> ratio = Ratio(row);
    table += fmt::format(fmt::runtime(kLine), row.name, row.unit, Number(row.library.Median()),
                         row.bare.empty() ? "-" : Number(row.bare.Median()),
                         ratio ? fmt::format("{:.2f}", *ratio) : "-", TargetText(row), Verdict(row),
                         SpreadText(row));
  }
  return table;
}

std::string Json(const std::vector<Row>& rows) {
  std::string json = "[\n";
  for (const Row& row : rows) {
    json +=
        fmt::format(R"(  {{"measure": "{}", "unit": "{}", "library": {}, "bare": {}, "ratio": {}, )"
                    R"("target": "{}", "verdict": "{}", "library_spread_percent": {}}}{})"
                    "\n",
                    row.name, row.unit, JsonNumber(row.library.Median()),
                    row.bare.empty() ? "null" : JsonNumber(row.bare.Median()),
                    JsonNumber(Ratio(row)), TargetText(row), Verdict(row),
                    JsonNumber(row.library.SpreadPercent()), &row == &rows.back() ? "" : ",");
  }
  return json + "]\n";
}
