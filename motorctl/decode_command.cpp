#include <CLI/CLI.hpp>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "context.h"
#include "decode.h"

namespace motorctl {
namespace {

std::size_t DecodeFile(const Context& context, const std::string& file) {
  const DecodeOptions options{context.make, context.json};
  const auto write_line = [&context](const std::string& line) { context.Line(line); };
  if (file == "-") return DecodeLog(std::cin, options, write_line);
  std::ifstream log(file, std::ios::binary);
  if (!log) throw CommandFailed(file + ": " + std::generic_category().message(errno));
  try {
    return DecodeLog(log, options, write_line);
  } catch (const std::ios_base::failure& error) {
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
  command->add_option("FILE", *file, "log of candump, with or without -L; - is standard input (-)");
  command->callback(
      [&context, file] { context.run = [&context, file] { return RunDecode(context, *file); }; });
}

}  // namespace motorctl
