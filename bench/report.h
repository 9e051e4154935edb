// The result: one line per measure, the library beside the bare socket.
#pragma once

#include <optional>
#include <string>
#include <vector>

// The same quantity measured several times.
class Figure {
 public:
  void Add(double value) { values_.push_back(value); }
  bool empty() const { return values_.empty(); }
  double Median() const { return Quantile(0.5); }
  double Quantile(double q) const;
  // That alone, as a figure of its own.
  Figure At(double q) const;
  // Distance of the extremes, in hundredths of the median.
  double SpreadPercent() const;

 private:
  std::vector<double> values_;
};

enum class Target { kNone, kRatioAtMost, kValueAtMost };

struct Row {
  std::string name;
  std::string unit;
  Figure library;
  Figure bare;  // empty where there is nothing to compare with
  Target target = Target::kNone;
  double limit = 0;
};

std::string Table(const std::vector<Row>& rows);
std::string Json(const std::vector<Row>& rows);
