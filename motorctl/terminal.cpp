#include "terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "base/blocked_signals.h"
#include "log/relay.h"

namespace motorctl {
namespace {

// Standard output as the caller gave it to us, once LibraryOutput stands in its place.
int data_descriptor = STDOUT_FILENO;

int library_text = -1;
off_t taken = 0;

// Returns 0, or the error.
int WriteWhole(int descriptor, const std::string& text) {
  // Past FILE*, whose lock would stay with a thread that is ended here.
  const corvel::MayEndHere here;
  for (std::size_t written = 0; written < text.size();) {
    const ssize_t bytes = ::write(descriptor, text.data() + written, text.size() - written);
    if (bytes >= 0) {
      written += static_cast<std::size_t>(bytes);
    } else if (errno == EAGAIN) {  // who shares the output made it so
      pollfd output = {descriptor, POLLOUT, 0};
      ::poll(&output, 1, -1);
    } else if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

bool IsTerminal() { return ::isatty(data_descriptor) != 0; }

}  // namespace

int DataDescriptor() { return data_descriptor; }

void Context::Write(const std::string& text) const {
  const int error = WriteWhole(data_descriptor, text);
  if (error == 0) return;
  const std::string failure = "standard output: " + std::generic_category().message(error);
  if (error == EPIPE) throw NobodyReads(failure);
  throw CommandFailed(failure);
}

void Context::Line(const std::string& text) const { Write(text + '\n'); }

void Context::Say(const std::string& text) const {
  WriteWhole(STDERR_FILENO, "motorctl: " + text + "\n");
}

ExitStatus Context::Ask(bool yes, const std::string& question) const {
  if (yes) return kSuccess;
  if (::isatty(STDIN_FILENO) == 0) {
    Say("refusing without --yes, for standard input is not a terminal: " + question);
    return kUsage;
  }
  std::fprintf(stderr, "motorctl: %s [y/N] ", question.c_str());
  char answer[16] = {};
  const ssize_t bytes = ::read(STDIN_FILENO, answer, sizeof(answer) - 1);
  return bytes > 0 && (answer[0] == 'y' || answer[0] == 'Y') ? kSuccess : kFailure;
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

Writer::Writer(std::function<void(const std::string&)> write, std::size_t most)
    : write_(std::move(write)), most_(most) {
  const BlockedSignals inherited_by_the_thread;
  thread_ = std::thread([this] { Run(); });
}

Writer::~Writer() {
  if (!thread_.joinable()) return;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Writer::End(std::chrono::milliseconds longest) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ended_ = true;
    changed_.notify_all();
    if (!changed_.wait_for(lock, longest, [this] { return waiting_.empty(); })) {
      pthread_cancel(thread_.native_handle());
    }
  }
  thread_.join();
}

bool Writer::Push(std::string text) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (failed_ || waiting_.size() >= most_) return false;
    waiting_.push_back(std::move(text));
  }
  changed_.notify_all();
  return true;
}

bool Writer::AwaitIdle(std::chrono::milliseconds longest) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, longest, [this] { return waiting_.empty(); });
}

bool Writer::Failed() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return failed_;
}

void Writer::Run() {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return ended_ || !waiting_.empty(); });
    if (waiting_.empty()) return;
    const std::string text = waiting_.front();
    lock.unlock();
    bool written = true;
    try {
      write_(text);
    } catch (const CommandFailed&) {
      written = false;
    }
    lock.lock();
    waiting_.pop_front();
    if (!written) {
      failed_ = true;
      waiting_.clear();
    }
    changed_.notify_all();
  }
}

BackgroundOutput::BackgroundOutput(const Context& context)
    : data_([&context](const std::string& text) { context.Write(text); }),
      status_([&context, this](const std::string& text) {
        // For the eye only: what was drawn should stand above it.
        data_.AwaitIdle(std::chrono::milliseconds(100));
        context.Say(text);
      }) {}

}  // namespace motorctl
