#include "incident.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>
#include <utility>

#include "context.h"
#include "time_name.h"

namespace motorctl {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr char kPrefix[] = "incident-";
constexpr char kUnfinished[] = ".part";

[[noreturn]] void Fail(const std::string& path, int error) {
  throw CommandFailed("cannot write " + path + ": " + std::generic_category().message(error));
}

// A file that is on the disk once Finish has returned.
class File {
 public:
  explicit File(std::string path)
      : path_(std::move(path)), stream_(std::fopen(path_.c_str(), "we"), &std::fclose) {
    if (stream_ == nullptr) Fail(path_, errno);
  }

  void Write(const std::string& text) {
    if (std::fwrite(text.data(), 1, text.size(), stream_.get()) != text.size()) Fail(path_, errno);
  }

  void Finish() {
    if (std::fflush(stream_.get()) != 0 || ::fsync(::fileno(stream_.get())) != 0) {
      Fail(path_, errno);
    }
  }

 private:
  const std::string path_;
  std::unique_ptr<FILE, int (*)(FILE*)> stream_;
};

void WriteFile(const std::string& path, const std::string& text) {
  File file(path);
  file.Write(text);
  file.Finish();
}

std::string WholeFile(const std::string& path) {
  std::ostringstream text;
  if (!path.empty()) text << std::ifstream(path).rdbuf();
  return text.str();
}

void SyncDirectory(const std::string& path) {
  const int directory = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (directory < 0) Fail(path, errno);
  ::fsync(directory);
  ::close(directory);
}

// What a program prints; it is ended when it takes too long. `command` holds numbers and the name
// of an interface, which a shell leaves alone.
std::string OutputOf(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> program(
      ::popen(("timeout 20 " + command).c_str(), "re"), &::pclose);
  std::string output;
  if (program == nullptr) return output;
  char buffer[4096];
  for (std::size_t bytes = 0; (bytes = std::fread(buffer, 1, sizeof(buffer), program.get())) > 0;) {
    output.append(buffer, bytes);
  }
  return output;
}

std::string EventLine(const BusEvent& event, bool trigger) {
  const std::int64_t microseconds = event.nanoseconds / 1000;
  const double time = static_cast<double>(microseconds) / 1e6;
  using Json = nlohmann::ordered_json;
  return Json{{"time", time},
              {"event", event.kind},
              {"trigger", trigger},
              {"node", event.node > 0 ? Json(event.node) : Json(nullptr)},
              {"text", event.text},
              {"frame", event.frame.empty() ? Json(nullptr) : Json(event.frame)}}
             .dump() +
         "\n";
}

std::uintmax_t SizeOf(const fs::path& folder) {
  std::uintmax_t bytes = 0;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, ignored)) {
    const std::uintmax_t size = entry.file_size(ignored);
    if (!ignored) bytes += size;
  }
  return bytes;
}

}  // namespace

IncidentStore::IncidentStore(std::string directory, std::string interface,
                             const RecordLimits& limits, const std::string& vehicle_file)
    : directory_(std::move(directory)),
      interface_(std::move(interface)),
      limits_(limits),
      vehicle_text_(WholeFile(vehicle_file)) {
  std::error_code error;
  fs::create_directories(directory_, error);
  if (!error) {
    const std::string probe = directory_ + "/.record-" + interface_;
    const int file = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0) error = std::error_code(errno, std::generic_category());
    if (file >= 0) ::close(file);
    ::unlink(probe.c_str());
  }
  if (error) {
    throw CommandFailed("cannot write to " + directory_ + ": " + error.message() +
                        "; name another place with --directory");
  }
}

void IncidentStore::RemoveUnfinished() const {
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory_, ignored)) {
    if (!entry.is_symlink(ignored) &&
        IsTimeNamed(entry.path().filename(), std::string(".") + kPrefix,
                    "-" + interface_ + kUnfinished)) {
      fs::remove_all(entry.path(), ignored);
    }
  }
}

void IncidentStore::Remember(const std::string& folder) {
  if (written_.size() >= limits_.count) written_.erase(written_.begin());
  written_.emplace_back(folder);
}

// Of this interface only: others have limits of their own. The newest stays, whatever its size.
void IncidentStore::KeepLimits(const std::string& newest) const {
  std::vector<std::pair<fs::path, std::uintmax_t>> folders;
  std::uintmax_t total = 0;
  for (fs::path& folder : OldestFirst(directory_, kPrefix, "-" + interface_, written_)) {
    const std::uintmax_t size = SizeOf(folder);
    total += size;
    if (folder != newest) folders.emplace_back(std::move(folder), size);
  }
  for (std::size_t i = 0; i < folders.size(); ++i) {
    if (folders.size() - i < limits_.count && total <= limits_.bytes) return;
    std::error_code ignored;
    fs::remove_all(folders[i].first, ignored);
    total -= folders[i].second;
  }
}

void IncidentStore::WriteSystem(const std::string& path, const Incident& incident) const {
  utsname kernel = {};
  ::uname(&kernel);
  std::string text = std::string("motorctl ") + MOTORCTL_VERSION + "\n" + kernel.sysname + " " +
                     kernel.release + " " + kernel.version + " " + kernel.machine + "\n";
  if (!incident.hears_sent) {
    text += "recorded without CAP_NET_RAW: what this machine sent is missing\n";
  }
  text += "frames lost by the recorder since its start: " + std::to_string(incident.lost_frames) +
          "\nevents not listed: " + std::to_string(incident.unlisted_events) + "\n\n" +
          OutputOf("ip -details -statistics link show dev " + interface_ + " 2>&1");
  if (!vehicle_text_.empty()) text += "\nvehicle:\n" + vehicle_text_;
  WriteFile(path, text);
}

std::string IncidentStore::Write(const Incident& incident, const FrameRing& frames) const {
  std::string name;
  // A clock that was set back may tell a time again.
  std::int64_t named = incident.trigger.nanoseconds;
  do {
    name = kPrefix + TimeName(named) + "-" + interface_;
    named += kNanosecondsPerMillisecond;
  } while (fs::exists(fs::symlink_status(directory_ + "/" + name)));
  const std::string unfinished = directory_ + "/." + name + kUnfinished;
  std::string finished = directory_ + "/" + name;
  try {
    std::error_code error;
    fs::create_directory(unfinished, error);
    if (error) Fail(unfinished, error.value());

    File log(unfinished + "/bus.log");
    std::string line;
    for (std::size_t i = incident.first_frame; i < frames.size(); ++i) {
      line.clear();
      AppendLogLine(frames.at(i), interface_, line);
      log.Write(line);
    }
    log.Finish();
    File events(unfinished + "/events.jsonl");
    bool found = false;
    for (const BusEvent& event : incident.events) {
      const bool trigger = !found && event.nanoseconds == incident.trigger.nanoseconds &&
                           event.kind == incident.trigger.kind;
      found = found || trigger;
      events.Write(EventLine(event, trigger));
    }
    events.Finish();
    WriteSystem(unfinished + "/system.txt", incident);
    const std::string journal =
        OutputOf("journalctl --quiet --no-pager --output=short-iso-precise --since=@" +
                 std::to_string(incident.begin / kNanosecondsPerSecond) + " --until=@" +
                 std::to_string(incident.end / kNanosecondsPerSecond + 1) + " 2>/dev/null");
    if (!journal.empty()) WriteFile(unfinished + "/journal.txt", journal);

    SyncDirectory(unfinished);
    if (::rename(unfinished.c_str(), finished.c_str()) != 0) Fail(finished, errno);
    SyncDirectory(directory_);
  } catch (...) {
    std::error_code ignored;
    fs::remove_all(unfinished, ignored);
    throw;
  }
  KeepLimits(finished);
  return finished;
}

}  // namespace motorctl
