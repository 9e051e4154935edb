// Recordings for the simulator: any bytes for a log, and the host that was recorded, when it can be
// replayed. That host has to get through its own recording, whatever it did.
#include "sim/replay.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "input.h"

namespace {

constexpr auto kLongest = std::chrono::seconds(20);
constexpr std::size_t kMostLines = 500;

sim::Recording Read(const std::uint8_t* bytes, std::size_t size) {
  static const int log = ::memfd_create("log", MFD_CLOEXEC);
  fuzz::Require(::ftruncate(log, 0) == 0 &&
                    ::pwrite(log, bytes, size, 0) == static_cast<ssize_t>(size) &&
                    ::lseek(log, 0, SEEK_SET) == 0,
                "a file to read");
  return sim::ReadRecording(log, "log", "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  sim::Recording recording;
  try {
    recording = Read(bytes, size);
  } catch (const std::runtime_error& error) {
    fuzz::Require(std::strncmp(error.what(), "log:", 4) == 0, "the line is named");
    fuzz::Require(std::strchr(error.what(), '\n') == nullptr, "one line");
    return 0;
  }
  if (recording.lines.back().time > kLongest || recording.lines.size() > kMostLines) return 0;

  sim::Replay replay(recording, std::chrono::seconds(30));
  std::size_t sent = 0;
  std::size_t of_drives = 0;
  const auto count = [&sent](const sim::Frame&) { ++sent; };
  sim::Time now{0};
  for (const sim::Recording::Line& line : recording.lines) {
    if (!line.from_host) ++of_drives;
    for (; now < line.time; now = std::min(line.time, replay.NextEvent(now) + sim::Time(1))) {
      replay.Advance(now, count);
    }
    now = line.time;
    replay.Advance(now, count);
    if (line.from_host) replay.Hear(line.frame, now);
  }
  for (int step = 0; step < 10'000 && !replay.Over(now); ++step) {
    replay.Advance(now, count);
    now = replay.NextEvent(now) + sim::Time(1);
  }
  fuzz::Require(replay.Over(now), "it comes to its end");
  fuzz::Require(sent >= of_drives, "every frame of the drives is sent");
  return 0;
}
