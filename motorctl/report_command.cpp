// motorctl report DIR|LOG [--html FILE] [--csv FILE] [--bit-rate RATE]
#include <sys/random.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <system_error>

#include "context.h"
#include "report_output.h"
#include "words.h"

namespace motorctl {
namespace {

struct Options {
  std::string path;
  std::string html;
  std::string csv;
  int bit_rate = 0;
};

class OutputFile {
 public:
  explicit OutputFile(std::string path)
      : path_(std::move(path)), stream_(std::fopen(path_.c_str(), "we"), &std::fclose) {
    if (stream_ == nullptr) Fail();
  }
  void Write(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stream_.get()) != text.size()) Fail();
  }
  void Finish() {
    if (std::fflush(stream_.get()) != 0) Fail();
  }

 private:
  [[noreturn]] void Fail() const {
    throw CommandFailed("cannot write " + path_ + ": " + std::generic_category().message(errno));
  }

  const std::string path_;
  std::unique_ptr<FILE, int (*)(FILE*)> stream_;
};

// Of this page alone: what a log brings along has none.
std::string Nonce() {
  std::uint64_t numbers[2] = {};
  if (::getentropy(numbers, sizeof(numbers)) != 0) throw CommandFailed("no random number");
  return Hex(numbers[0], 16).substr(2) + Hex(numbers[1], 16).substr(2);
}

int RunReport(const Context& context, const Options& options) {
  const ReportSource source = FindReportSource(options.path);
  ReportLog log = ReadReportLog(source.log_path, context.named_interface);
  ReportSetup setup;
  setup.vehicle = context.vehicle;
  std::string make_from = "--make";
  if (!context.vehicle_file.empty()) {
    make_from = "--vehicle";
  } else if (source.vehicle) {
    if (context.make == nullptr) make_from = "system.txt";
    const unsigned long counts = context.vehicle.counts_per_revolution;
    setup.vehicle = *source.vehicle;
    if (context.named_counts) setup.vehicle.counts_per_revolution = counts;
  }
  setup.make = context.make != nullptr ? context.make : motor_driver::FindMake(setup.vehicle.make);
  if (setup.make != nullptr && setup.make->simulated) setup.make = nullptr;
  if (setup.make == nullptr) make_from.clear();
  setup.more = source.more;
  setup.trigger = source.trigger_at;
  const Report report = MakeReport(log, setup);

  ReportOf of = {source, log, setup, report, make_from, options.bit_rate, "--bit-rate"};
  of.assumes_counts = make_from == "--make" && !source.vehicle && !context.named_counts;
  if (options.bit_rate == 0) {
    of.bit_rate = source.bit_rate;
    of.bit_rate_from = "system.txt";
  }
  if (!options.html.empty()) {
    OutputFile file(options.html);
    file.Write(ReportPage(of, Nonce()));
    file.Finish();
  }
  if (!options.csv.empty()) {
    OutputFile file(options.csv);
    WriteReportCsv(of, [&file](const std::string& rows) { file.Write(rows); });
    file.Finish();
    if (report.wheels.empty()) {
      context.Say(options.csv + ": no speeds: --make or --vehicle tells how PDOs are laid out");
    }
  }
  context.Write(context.json ? ReportJson(of) : ReportText(of));
  return kSuccess;
}

}  // namespace

void AddReport(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "report", "what happened, of a folder of record or a log of candump; needs no bus");
  command
      ->add_option("PATH", options->path,
                   "a folder of motorctl record, what candump wrote, or a Vector .asc file")
      ->required();
  command->add_option("--html", options->html, "a page with pictures, for any browser")
      ->type_name("FILE");
  command->add_option("--csv", options->csv, "speeds and states as a table")->type_name("FILE");
  command
      ->add_option("--bit-rate", options->bit_rate,
                   "of the bus, for its load in percent (as system.txt has it)")
      ->check(CLI::Range(1'000, 1'000'000))
      ->type_name("BIT/S");
  command->callback([&context, options] {
    context.run = [&context, options] { return RunReport(context, *options); };
  });
}

}  // namespace motorctl
