// What every command of motorctl shares: global options, its outputs, its exit statuses.
#pragma once

#include <vehicle.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "eds.h"
#include "wheels/makes.h"

namespace CLI {  // NOLINT(readability-identifier-naming): the name of the package
class App;
class Option;
class Validator;
}  // namespace CLI

namespace motorctl {

using motor_driver::Make;
using motor_driver::Vehicle;

enum ExitStatus { kSuccess = 0, kFailure = 1, kUsage = 2 };

// The command cannot go on: main() prints the text as status and ends with kFailure.
class CommandFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The reader of standard output has gone away.
class NobodyReads : public CommandFailed {
 public:
  using CommandFailed::CommandFailed;
};

enum class Colour { kRed, kGreen, kYellow, kBold };

// A command registers itself with `void AddName(CLI::App& app, Context& context)`: it makes its
// sub-command and, from the sub-command's callback, sets `run`. What is wrong with the arguments is
// thrown as CLI::ValidationError before that (exit status 2).
struct Context {
  // Of --vehicle, with what the command line says besides in its place. Without --vehicle it has no
  // wheels.
  Vehicle vehicle;
  std::string vehicle_file;       // of --vehicle; empty without it
  const Make* make = nullptr;     // of the vehicle; nullptr when it was not told
  std::optional<Eds> data_sheet;  // of --eds; in use where objects are named
  // As the command line has them; empty or false where it has none.
  std::string named_interface;
  bool named_counts = false;
  bool json = false;
  bool verbose = false;
  std::optional<int> timeout_ms;             // of --timeout
  std::vector<std::string> guarded_command;  // what stands behind "--" on the line of `guard`

  // Of a drive object that a command sets up: without a make there is nothing to set up. Throws
  // CLI::ValidationError.
  void RequireMake() const;

  // The nodes that were named, those of the vehicle when there are none. Throws
  // CLI::ValidationError when there are none either.
  std::vector<int> Nodes(const std::vector<int>& named) const;

  // The vehicle, or one with a wheel for each motor of the nodes that were named.
  Vehicle VehicleOf(const std::vector<int>& named) const;

  // For each SDO answer: of --timeout, or else what is usual.
  std::chrono::milliseconds SdoTimeout(int usual_ms = 250) const {
    return std::chrono::milliseconds(timeout_ms.value_or(usual_ms));
  }

  // The command to run; its result is the exit status.
  std::function<int()> run;

  // One line of data on standard output; the line break is added. Throws CommandFailed when it cannot
  // be written, NobodyReads when nobody reads it any more.
  void Line(const std::string& text) const;

  // Text as it is on standard output, for drawing in place.
  void Write(const std::string& text) const;

  // One line of status on standard error: "motorctl: TEXT".
  void Say(const std::string& text) const;

  // A person at the keyboard is asked, before anything was sent. kSuccess when `yes` was said
  // already or is typed, kFailure when it is not, kUsage where nobody can be asked.
  ExitStatus Ask(bool yes, const std::string& question) const;

  // Whether standard output may be redrawn in place: a terminal, and no --json.
  bool live() const;

  // Whether standard error is a terminal: a progress bar may be drawn there.
  bool shows_progress() const;

  // The text in colour on a terminal (not with NO_COLOR set or TERM=dumb), as it is elsewhere.
  std::string Coloured(Colour colour, const std::string& text) const;
};

// Between reports and commands, where it was given; what waits for several periods waits longer
// then.
void SetPeriod(Vehicle& vehicle, std::optional<int> period_ms);

// Node-IDs, on the command line or of the vehicle.
CLI::Option* AddNodes(CLI::App& command, std::vector<int>& nodes, const std::string& description);

// --timeout of what motorctl itself reads and writes by SDO.
void AddTimeout(CLI::App& command, Context& context, int usual_ms = 250);

// Numbers above one limit and at most another; unlike the package's own range it refuses "nan".
CLI::Validator Between(double above, double most);

void AddDoctor(CLI::App& app, Context& context);
void AddScan(CLI::App& app, Context& context);
void AddInfo(CLI::App& app, Context& context);
void AddSdo(CLI::App& app, Context& context);
void AddBringUp(CLI::App& app, Context& context);
void AddJog(CLI::App& app, Context& context);
void AddStop(CLI::App& app, Context& context);
void AddGuard(CLI::App& app, Context& context);
void AddMonitor(CLI::App& app, Context& context);
void AddRecord(CLI::App& app, Context& context);
void AddReport(CLI::App& app, Context& context);
void AddExplain(CLI::App& app, Context& context);
void AddDecode(CLI::App& app, Context& context);
void AddConfig(CLI::App& app, Context& context);
void AddVehicle(CLI::App& app, Context& context);

}  // namespace motorctl
