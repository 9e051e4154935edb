#include "continuous_log.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

namespace motorctl {
namespace {

using Clock = std::chrono::steady_clock;

// A write for so many, or every second.
constexpr std::size_t kBlock = std::size_t{64} * 1024;
constexpr int kFlushMilliseconds = 1000;
constexpr auto kFlush = std::chrono::milliseconds(kFlushMilliseconds);
// More than this is not lost when the supply fails.
constexpr auto kSync = std::chrono::seconds(5);
// A writer that was killed is started again, but not all the time.
constexpr auto kRestart = std::chrono::seconds(1);
constexpr std::size_t kBatch = 256;  // frames

}  // namespace

ContinuousLog::ContinuousLog(const Context& context, LastingOutput& output, std::string directory,
                             const LogLimits& limits, std::function<void()> in_writer)
    : context_(context),
      output_(output),
      interface_(context.vehicle.interface),
      directory_(std::move(directory)),
      limits_(limits),
      in_writer_(std::move(in_writer)) {
  Start();
}

ContinuousLog::~ContinuousLog() { End(); }

void ContinuousLog::Start() {
  started_ = Clock::now();
  int ends[2] = {};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return;
  writer_ = ::fork();
  if (writer_ == 0) {
    ::close(ends[0]);
    in_writer_();
    // Who asks the recorder to end means this process as well: it ends when it has written all.
    sigset_t all = {};
    sigfillset(&all);
    ::sigprocmask(SIG_BLOCK, &all, nullptr);
    ::setpriority(PRIO_PROCESS, 0, kWriterNice);
    ::_exit(RunWriter(ends[1]));
  }
  ::close(ends[1]);
  frames_ = ends[0];
  if (writer_ < 0) End();
}

void ContinuousLog::End() {
  if (frames_ >= 0) ::close(std::exchange(frames_, -1));
  if (writer_ > 0) ::waitpid(std::exchange(writer_, -1), nullptr, 0);
}

bool ContinuousLog::Offer(const FrameRing& frames) {
  if (frames_ < 0 && Clock::now() - started_ > kRestart) Start();
  const std::uint64_t kept = frames.pushed() - frames.size();
  if (handed_ < kept) {
    output_.Say(std::to_string(kept - handed_) +
                " frames are missing in the log: the disk is too slow");
    handed_ = kept;
  }
  std::array<BusFrame, kBatch> batch;
  while (frames_ >= 0 && handed_ < frames.pushed()) {
    std::size_t count = 0;
    for (; count < kBatch && handed_ + count < frames.pushed(); ++count) {
      batch[count] = frames.at(static_cast<std::size_t>(handed_ - kept) + count);
    }
    if (::send(frames_, batch.data(), count * sizeof(BusFrame), MSG_NOSIGNAL | MSG_DONTWAIT) > 0) {
      handed_ += count;
    } else if (errno != EAGAIN && errno != EINTR) {
      output_.Say("the writer of the log was ended; it is started again");
      End();
    } else {
      return false;
    }
  }
  return frames_ >= 0;
}

ExitStatus ContinuousLog::RunWriter(int frames) const {
  LastingOutput output(context_);
  try {
    Write(frames, output);
    return kSuccess;
  } catch (const std::exception& error) {
    output.Say(std::string("the writer of the log ended: ") + error.what());
    return kFailure;
  }
}

void ContinuousLog::Write(int frames, LastingOutput& output) const {
  LogFiles files(directory_, interface_, limits_,
                 [&output](const std::string& text) { output.Say(text); });
  std::array<BusFrame, kBatch> batch = {};
  std::string lines;
  std::uint64_t count = 0;
  std::int64_t first = 0;
  auto flushed = Clock::now();
  auto synced = flushed;
  const auto flush = [&](Clock::time_point now) {
    if (!lines.empty()) files.Write(lines, count, first);
    lines.clear();
    count = 0;
    flushed = now;
    if (now - synced < kSync) return;
    files.Sync();
    synced = now;
  };
  for (;;) {
    pollfd readable = {frames, POLLIN, 0};
    const bool more = ::poll(&readable, 1, lines.empty() ? -1 : kFlushMilliseconds) > 0;
    const ssize_t bytes = more ? ::read(frames, batch.data(), sizeof(batch)) : 0;
    if (more && bytes <= 0) break;  // the recorder has ended
    const std::size_t arrived = static_cast<std::size_t>(bytes) / sizeof(BusFrame);
    for (std::size_t i = 0; i < arrived; ++i) {
      if (lines.empty()) first = batch[i].nanoseconds;
      AppendLogLine(batch[i], interface_, lines);
      ++count;
    }
    const auto now = Clock::now();
    if (lines.size() >= kBlock || now - flushed >= kFlush) flush(now);
  }
  flush(Clock::now());
}

}  // namespace motorctl
