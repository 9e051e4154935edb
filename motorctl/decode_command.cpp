#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <memory>
#include <string>
#include <system_error>

#include "context.h"
#include "decode.h"

namespace motorctl {
namespace {

std::size_t DecodeFile(const Context& context, const std::string& file) {
  const int log = file == "-" ? ::dup(STDIN_FILENO) : ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (log < 0) throw CommandFailed(file + ": " + std::generic_category().message(errno));
  const std::unique_ptr<const int, void (*)(const int*)> closer(
      &log, [](const int* descriptor) { ::close(*descriptor); });
  try {
    return DecodeLog(log, {context.make, context.json},
                     [&context](const std::string& lines) { context.Write(lines); });
  } catch (const std::system_error& error) {
    throw CommandFailed(file + ": " + error.code().message());
  }
}

int RunDecode(const Context& context, const std::string& file) {
  const std::size_t malformed = DecodeFile(context, file);
  if (malformed == 0) return kSuccess;
  context.Say(std::to_string(malformed) + (malformed == 1 ? " line" : " lines") +
              " without a frame");
  return kFailure;
}

}  // namespace

void AddDecode(CLI::App& app, Context& context) {
  auto file = std::make_shared<std::string>("-");
  CLI::App* command = app.add_subcommand(
      "decode", "annotate the frames of a candump log; PDOs by --make; needs no bus");
  command->add_option("FILE", *file,
                      "what candump wrote, with any of its options, or a Vector .asc file; - is "
                      "standard input (-)");
  command->callback(
      [&context, file] { context.run = [&context, file] { return RunDecode(context, *file); }; });
}

}  // namespace motorctl
