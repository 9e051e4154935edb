// All frames of a bus, in files. A process of its own writes: no disk holds the recorder up.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "context.h"
#include "frame_ring.h"
#include "lasting_output.h"
#include "log_files.h"

namespace motorctl {

// A process that writes files waits for whatever meets a bus.
constexpr int kWriterNice = 10;

class ContinuousLog {
 public:
  // `in_writer` is called in the process that writes, which closes there what is not its own.
  ContinuousLog(const Context& context, LastingOutput& output, std::string directory,
                const LogLimits& limits, std::function<void()> in_writer);
  // Waits until everything that was handed over is written.
  ~ContinuousLog();
  ContinuousLog(const ContinuousLog&) = delete;
  ContinuousLog& operator=(const ContinuousLog&) = delete;

  // Hands over what is new in the ring, as much as the writer takes now. False when there is more:
  // a slow disk has time until the ring is full of newer ones.
  bool Offer(const FrameRing& frames);

 private:
  // What fails is tried again later.
  void Start();
  void End();
  ExitStatus RunWriter(int frames) const;
  void Write(int frames, LastingOutput& output) const;

  const Context& context_;
  LastingOutput& output_;
  const std::string interface_;
  const std::string directory_;
  const LogLimits limits_;
  const std::function<void()> in_writer_;
  pid_t writer_ = -1;
  int frames_ = -1;           // to the writer
  std::uint64_t handed_ = 0;  // of all frames that were pushed
  std::chrono::steady_clock::time_point started_;
};

}  // namespace motorctl
