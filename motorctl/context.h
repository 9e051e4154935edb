// What every command of motorctl shares: global options, its outputs, its exit statuses.
#pragma once

#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {  // NOLINT(readability-identifier-naming): the name of the package
class App;
}

namespace motorctl {

enum ExitStatus { kSuccess = 0, kFailure = 1, kUsage = 2 };

// The command cannot go on: main() prints the text as status and ends with kFailure.
class CommandFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Colour { kRed, kGreen, kYellow, kBold };

// A command registers itself with `void AddName(CLI::App& app, Context& context)`: it makes its
// sub-command and, from the sub-command's callback, sets `run`. What is wrong with the arguments is
// thrown as CLI::ValidationError before that (exit status 2).
struct Context {
  std::string interface = "can0";
  std::string make;  // empty when not given
  bool json = false;
  bool verbose = false;
  unsigned long counts_per_revolution = 10000;  // of a Kinco drive

  // Of a drive object that a command sets up: without --make there is nothing to set up. Throws
  // CLI::ValidationError.
  void RequireMake() const;

  // The command to run; its result is the exit status.
  std::function<int()> run;

  // One line of data on standard output; the line break is added. Throws CommandFailed when nobody
  // reads it any more.
  void Line(const std::string& text) const;

  // Text as it is on standard output, for drawing in place.
  void Write(const std::string& text) const;

  // One line of status on standard error: "motorctl: TEXT".
  void Say(const std::string& text) const;

  // Whether standard output may be redrawn in place: a terminal, and no --json.
  bool live() const;

  // Whether standard error is a terminal: a progress bar may be drawn there.
  bool shows_progress() const;

  // The text in colour on a terminal (not with NO_COLOR set or TERM=dumb), as it is elsewhere.
  std::string Coloured(Colour colour, const std::string& text) const;
};

// While it exists, what anything but Context writes to standard output is kept in memory: the
// library's log and the fixed texts of its set-ups must not mix with data. One at a time; made
// before any thread.
class LibraryOutput {
 public:
  LibraryOutput();
  ~LibraryOutput();
  LibraryOutput(const LibraryOutput&) = delete;
  LibraryOutput& operator=(const LibraryOutput&) = delete;

  // What the library wrote since the last call.
  static std::string Take();
};

void AddDoctor(CLI::App& app, Context& context);
void AddScan(CLI::App& app, Context& context);
void AddInfo(CLI::App& app, Context& context);
void AddSdo(CLI::App& app, Context& context);
void AddBringUp(CLI::App& app, Context& context);
void AddJog(CLI::App& app, Context& context);
void AddMonitor(CLI::App& app, Context& context);
void AddExplain(CLI::App& app, Context& context);
void AddDecode(CLI::App& app, Context& context);

}  // namespace motorctl
