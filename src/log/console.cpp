#include "console.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "relay.h"

namespace corvel {
namespace {

bool Relay(int descriptor, const std::string& text) {
  return IsRelayed() && PutAside([descriptor, text] { WriteTo(descriptor, text); });
}

}  // namespace

void Print(std::FILE* stream, const std::string& text) {
  if (!Relay(stream == stderr ? STDERR_FILENO : STDOUT_FILENO, text)) {
    std::fputs(text.c_str(), stream);
  }
}

void PrintLine(const char* text) {
  if (!Relay(STDOUT_FILENO, text + std::string("\n"))) {
    std::puts(text);
  }
}

void PrintReason(const char* text) {
  const int error = errno;
  if (!Relay(STDERR_FILENO, text + (": " + std::generic_category().message(error)) + "\n")) {
    errno = error;
    std::perror(text);
  }
}

}  // namespace corvel
