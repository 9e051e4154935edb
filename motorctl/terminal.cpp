#include "context.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace motorctl {
namespace {

// Standard output as the caller gave it to us, once LibraryOutput stands in its place.
int data_descriptor = STDOUT_FILENO;

int library_text = -1;
off_t taken = 0;

bool IsTerminal() { return ::isatty(data_descriptor) != 0; }

}  // namespace

void Context::RequireMake() const {
  if (make.empty()) {
    throw CLI::ValidationError("--make", "which make is it? zl, tt, hls, amps, kinco or fake");
  }
}

void Context::Write(const std::string& text) const {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t bytes = ::write(data_descriptor, text.data() + written, text.size() - written);
    if (bytes < 0) {
      if (errno == EINTR) continue;
      throw CommandFailed("standard output: " + std::generic_category().message(errno));
    }
    written += static_cast<std::size_t>(bytes);
  }
}

void Context::Line(const std::string& text) const { Write(text + '\n'); }

void Context::Say(const std::string& text) const {
  std::fprintf(stderr, "motorctl: %s\n", text.c_str());
}

bool Context::live() const { return !json && IsTerminal(); }

bool Context::shows_progress() const { return ::isatty(STDERR_FILENO) != 0; }

std::string Context::Coloured(Colour colour, const std::string& text) const {
  const char* const term = std::getenv("TERM");
  const char* const no_color = std::getenv("NO_COLOR");
  const bool dumb = term != nullptr && std::string(term) == "dumb";
  if (!live() || dumb || (no_color != nullptr && *no_color != '\0')) return text;
  const char* code = "1";
  switch (colour) {
    case Colour::kRed:
      code = "31";
      break;
    case Colour::kGreen:
      code = "32";
      break;
    case Colour::kYellow:
      code = "33";
      break;
    case Colour::kBold:
      break;
  }
  return std::string("\x1b[") + code + "m" + text + "\x1b[0m";
}

LibraryOutput::LibraryOutput() {
  std::fflush(stdout);
  const int original = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
  library_text = ::memfd_create("library output", MFD_CLOEXEC);
  if (original < 0 || library_text < 0 || ::fcntl(library_text, F_SETFL, O_APPEND) < 0 ||
      ::dup2(library_text, STDOUT_FILENO) < 0) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
  data_descriptor = original;
  taken = 0;
}

LibraryOutput::~LibraryOutput() {
  std::fflush(stdout);
  ::dup2(data_descriptor, STDOUT_FILENO);
  ::close(data_descriptor);
  ::close(library_text);
  data_descriptor = STDOUT_FILENO;
}

std::string LibraryOutput::Take() {
  constexpr off_t kKept = 1 << 20;
  std::fflush(stdout);
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t bytes = ::pread(library_text, buffer, sizeof(buffer), taken);
    if (bytes <= 0) break;
    text.append(buffer, static_cast<std::size_t>(bytes));
    taken += bytes;
  }
  // A program that runs for days must not keep every line for ever.
  if (taken > kKept && ::ftruncate(library_text, 0) == 0) taken = 0;
  return text;
}

}  // namespace motorctl
