// The files of a log that never ends: as many bytes of it as may stay.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace motorctl {

struct LogLimits {
  std::uintmax_t file_bytes = 10'000'000;
  std::uintmax_t all_bytes = 1'000'000'000;
};

// One interface's files in a directory: bus-TIME-INTERFACE.log. Whatever ends the writer, only
// whole lines stay: what was cut off is removed at the next start.
class LogFiles {
 public:
  // `say`: takes what its user has to know.
  LogFiles(std::string directory, std::string interface, const LogLimits& limits,
           std::function<void(const std::string&)> say);
  ~LogFiles();
  LogFiles(const LogFiles&) = delete;
  LogFiles& operator=(const LogFiles&) = delete;

  // Whole lines, of so many frames; the first is of this time. What cannot be written is dropped
  // and said, and tried again with the next ones.
  void Write(const std::string& lines, std::uint64_t frames, std::int64_t nanoseconds);

  // On the disk, as far as it is written.
  void Sync() const;

 private:
  bool Append(const std::string& lines, std::int64_t nanoseconds);
  bool Begin(std::int64_t nanoseconds);
  bool HasRoom(std::size_t bytes) const;
  std::vector<std::filesystem::path> Logs() const;  // the oldest first
  bool RemoveOldest();
  void End();
  std::uintmax_t SizeOfOthers() const;
  void Repair() const;

  const std::string directory_;
  const std::string interface_;
  const LogLimits limits_;
  const std::function<void(const std::string&)> say_;
  std::vector<std::filesystem::path> begun_;  // by this writer, the oldest first
  std::string path_;
  int file_ = -1;
  std::uintmax_t written_ = 0;  // to this file
  int error_ = 0;               // of the latest attempt
  bool failing_ = false;
  bool short_of_room_ = false;  // was said
  std::uint64_t missing_ = 0;   // frames, while it fails
};

}  // namespace motorctl
