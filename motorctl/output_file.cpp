#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "context.h"

namespace motorctl {
namespace {

[[noreturn]] void Fail(const std::string& file, int error) {
  throw CommandFailed(file + ": " + std::generic_category().message(error));
}

int WriteAll(int descriptor, const std::string& text) {
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t bytes = ::write(descriptor, text.data() + written, text.size() - written);
    if (bytes < 0 && errno == EINTR) continue;
    if (bytes < 0) return errno;
    written += static_cast<std::size_t>(bytes);
  }
  return 0;
}

}  // namespace

void WriteWholeFile(const std::string& file, const std::string& text) {
  struct stat there = {};
  if (::stat(file.c_str(), &there) == 0 && !S_ISREG(there.st_mode)) {
    throw CommandFailed(file + ": is not a regular file");
  }
  // The file that a link points to, not the link.
  std::error_code ignored;
  const std::filesystem::path resolved = std::filesystem::weakly_canonical(file, ignored);
  const std::string target = resolved.empty() ? file : resolved.string();
  std::string unfinished = target + ".XXXXXX";
  const int descriptor = ::mkostemp(unfinished.data(), O_CLOEXEC);
  if (descriptor < 0) Fail(file, errno);
  const mode_t mask = ::umask(0);
  ::umask(mask);
  int error = WriteAll(descriptor, text);
  if (error == 0 && ::fchmod(descriptor, 0666 & ~mask) != 0) error = errno;
  if (error == 0 && ::fsync(descriptor) != 0) error = errno;
  if (::close(descriptor) != 0 && error == 0) error = errno;
  if (error == 0 && ::rename(unfinished.c_str(), target.c_str()) != 0) error = errno;
  if (error == 0) return;
  ::unlink(unfinished.c_str());
  Fail(file, error);
}

}  // namespace motorctl
