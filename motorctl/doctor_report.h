// What motorctl doctor finds, step by step.
#pragma once

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "context.h"

namespace motorctl {

enum class Verdict { kOk, kWarning, kFailed };

// Prints each step as it is taken, and counts what is wrong.
class DoctorReport {
 public:
  explicit DoctorReport(const Context& context) : context_(context) {}

  void Ok(const char* check, const std::string& finding) { Add(check, Verdict::kOk, finding, ""); }
  void Warn(const char* check, const std::string& finding, const std::string& remedy) {
    Add(check, Verdict::kWarning, finding, remedy);
  }
  void Fail(const char* check, const std::string& finding, const std::string& remedy) {
    Add(check, Verdict::kFailed, finding, remedy);
  }
  int failed() const { return failed_; }

 private:
  void Add(const char* check, Verdict verdict, const std::string& finding,
           const std::string& remedy) {
    failed_ += verdict == Verdict::kFailed ? 1 : 0;
    if (context_.json) {
      const char* const result = verdict == Verdict::kOk        ? "ok"
                                 : verdict == Verdict::kWarning ? "warning"
                                                                : "failed";
      context_.Line(
          nlohmann::ordered_json{{"command", "doctor"},
                                 {"check", check},
                                 {"result", result},
                                 {"finding", finding},
                                 {"remedy", remedy.empty() ? nlohmann::ordered_json(nullptr)
                                                           : nlohmann::ordered_json(remedy)}}
              .dump());
      return;
    }
    char name[32];
    std::snprintf(name, sizeof(name), "%-15s ", check);
    const std::string mark = verdict == Verdict::kOk ? context_.Coloured(Colour::kGreen, "ok     ")
                             : verdict == Verdict::kWarning
                                 ? context_.Coloured(Colour::kYellow, "warning")
                                 : context_.Coloured(Colour::kRed, "FAILED ");
    context_.Line(mark + "  " + name + finding);
    if (!remedy.empty()) context_.Line("                         -> " + remedy);
  }

  const Context& context_;
  int failed_ = 0;
};

// What the node tells about itself, by SDO.
void CheckNode(const Context& context, int node, DoctorReport& report);

}  // namespace motorctl
