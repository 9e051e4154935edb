// The folder that tells what led to an event on a bus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "frame_ring.h"
#include "trigger_watch.h"

namespace motorctl {

struct RecordLimits {
  std::size_t count = 20;              // of folders or files
  std::uintmax_t bytes = 200'000'000;  // of all of them
};

struct Incident {
  BusEvent trigger;
  std::vector<BusEvent> events;  // the trigger among them
  std::size_t first_frame = 0;   // index in the ring
  std::int64_t begin = 0;        // of the stretch, nanoseconds since the epoch
  std::int64_t end = 0;
  std::uint64_t lost_frames = 0;
  std::size_t unlisted_events = 0;
  bool hears_sent = true;
};

// One interface's folders in a directory.
class IncidentStore {
 public:
  // `vehicle_file`: read at once; empty without one. Makes the directory where it is
  // missing. Throws CommandFailed when nothing can be written there.
  IncidentStore(std::string directory, std::string interface, const RecordLimits& limits,
                const std::string& vehicle_file);

  // Removes what a recorder that was killed had begun.
  void RemoveUnfinished() const;

  // What Write has written in another process: it is newer than what was there before.
  void Remember(const std::string& folder);

  // Returns the path of the folder, which is there as a whole or not at all; the oldest are
  // removed where the limits ask for it. Throws CommandFailed. Takes as long as the disk does.
  std::string Write(const Incident& incident, const FrameRing& frames) const;

 private:
  void WriteSystem(const std::string& path, const Incident& incident) const;
  void KeepLimits(const std::string& newest) const;

  const std::string directory_;
  const std::string interface_;
  const RecordLimits limits_;
  const std::string vehicle_text_;
  std::vector<std::filesystem::path> written_;  // by this recorder, the oldest first
};

}  // namespace motorctl
