#include "log_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

#include "time_name.h"

namespace motorctl {
namespace {

namespace fs = std::filesystem;

constexpr char kPrefix[] = "bus-";
constexpr char kSuffix[] = ".log";
// Left to incidents, and to whatever else needs it: a tenth of the disk, and no more than this.
constexpr std::uintmax_t kReserve = 100'000'000;
constexpr std::uintmax_t kReservePart = 10;
constexpr std::uintmax_t kMegabyte = 1'000'000;

std::uintmax_t Reserve(const struct statvfs& disk) {
  return std::min(kReserve, std::uintmax_t{disk.f_blocks} * disk.f_frsize / kReservePart);
}

// Not one that a writer still has, which ends by itself when its recorder is gone.
void CutToWholeLines(const fs::path& path) {
  const int file = ::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
  if (file < 0) return;
  off_t end = ::flock(file, LOCK_EX | LOCK_NB) == 0 ? ::lseek(file, 0, SEEK_END) : 0;
  const off_t whole = end;
  for (char last = 0; end > 0; --end) {
    if (::pread(file, &last, 1, end - 1) != 1 || last == '\n') break;
  }
  // Where that fails, decode says that the line is cut off.
  const bool is_whole = end == whole || ::ftruncate(file, end) == 0;
  static_cast<void>(is_whole);
  ::close(file);
}

}  // namespace

LogFiles::LogFiles(std::string directory, std::string interface, const LogLimits& limits,
                   std::function<void(const std::string&)> say)
    : directory_(std::move(directory)),
      interface_(std::move(interface)),
      limits_({std::min(limits.file_bytes, limits.all_bytes / 2), limits.all_bytes}),
      say_(std::move(say)) {
  Repair();
  struct statvfs disk = {};
  if (::statvfs(directory_.c_str(), &disk) != 0) return;
  const std::uintmax_t free = std::uintmax_t{disk.f_bavail} * disk.f_frsize;
  const std::uintmax_t room = SizeOfOthers() + free - std::min(free, Reserve(disk));
  if (room < limits_.all_bytes) {
    say_("the disk has room for " + std::to_string(room / kMegabyte) + " MB of the " +
         std::to_string(limits_.all_bytes / kMegabyte) + " MB of logs: the oldest will go earlier");
    short_of_room_ = true;
  }
}

LogFiles::~LogFiles() { End(); }

std::vector<fs::path> LogFiles::Logs() const {
  return OldestFirst(directory_, kPrefix, "-" + interface_ + kSuffix, begun_);
}

void LogFiles::Repair() const {
  for (const fs::path& log : Logs()) CutToWholeLines(log);
}

void LogFiles::End() {
  if (file_ < 0) return;
  Sync();
  ::close(std::exchange(file_, -1));
}

void LogFiles::Sync() const {
  if (file_ >= 0) ::fdatasync(file_);
}

std::uintmax_t LogFiles::SizeOfOthers() const {
  std::uintmax_t bytes = 0;
  std::error_code ignored;
  for (const fs::path& log : Logs()) {
    const std::uintmax_t size = fs::file_size(log, ignored);
    if (!ignored && log != path_) bytes += size;
  }
  return bytes;
}

bool LogFiles::RemoveOldest() {
  for (const fs::path& log : Logs()) {
    std::error_code error;
    if (log == path_ || !fs::remove(log, error)) continue;
    begun_.erase(std::remove(begun_.begin(), begun_.end(), log), begun_.end());
    return true;
  }
  return false;
}

bool LogFiles::Begin(std::int64_t nanoseconds) {
  End();
  path_.clear();
  while (SizeOfOthers() + limits_.file_bytes > limits_.all_bytes && RemoveOldest()) {
  }
  do {
    path_ = directory_ + "/" + kPrefix + TimeName(nanoseconds) + "-" + interface_ + kSuffix;
    file_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
    nanoseconds += kNanosecondsPerMillisecond;
  } while (file_ < 0 && errno == EEXIST);
  if (file_ < 0) return false;
  begun_.emplace_back(path_);
  ::flock(file_, LOCK_EX | LOCK_NB);
  written_ = 0;
  return true;
}

bool LogFiles::HasRoom(std::size_t bytes) const {
  struct statvfs disk = {};
  if (::statvfs(directory_.c_str(), &disk) != 0) return true;  // writing will tell
  return std::uintmax_t{disk.f_bavail} * disk.f_frsize >= Reserve(disk) + bytes;
}

bool LogFiles::Append(const std::string& lines, std::int64_t nanoseconds) {
  error_ = 0;
  if ((file_ < 0 || written_ + lines.size() > limits_.file_bytes) && !Begin(nanoseconds)) {
    error_ = errno;
    return false;
  }
  ssize_t bytes = -1;
  if (HasRoom(lines.size())) {
    bytes = ::write(file_, lines.data(), lines.size());
    if (bytes == static_cast<ssize_t>(lines.size())) {
      written_ += lines.size();
      return true;
    }
    error_ = bytes < 0 ? errno : ENOSPC;
  } else {
    error_ = ENOSPC;
  }
  // Whole lines only.
  if (bytes > 0 && ::ftruncate(file_, static_cast<off_t>(written_)) != 0) End();
  return false;
}

void LogFiles::Write(const std::string& lines, std::uint64_t frames, std::int64_t nanoseconds) {
  bool good = Append(lines, nanoseconds);
  while (!good && (error_ == ENOSPC || error_ == EDQUOT) && RemoveOldest()) {
    if (!std::exchange(short_of_room_, true)) {
      say_("the disk is full before the logs have what they may: the oldest go earlier");
    }
    good = Append(lines, nanoseconds);
  }
  if (!good) {
    missing_ += frames;
    if (!std::exchange(failing_, true)) {
      say_("THE LOG IS NOT WRITTEN: " + (path_.empty() ? directory_ : path_) + ": " +
           std::generic_category().message(error_) + "; make room. Still listening");
    }
  } else if (std::exchange(failing_, false)) {
    say_("the log goes on; " + std::to_string(std::exchange(missing_, 0)) + " frames are missing");
  }
}

}  // namespace motorctl
