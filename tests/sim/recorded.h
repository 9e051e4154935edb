// Recordings for tests, as text.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "sim/recording.h"

/// Reads this text as the log "bus.log".
inline sim::Recording Recorded(const std::string& text, const std::string& interface = "") {
  const int log = ::memfd_create("log", MFD_CLOEXEC);
  EXPECT_EQ(::write(log, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  ::lseek(log, 0, SEEK_SET);
  try {
    sim::Recording recording = sim::ReadRecording(log, "bus.log", interface);
    ::close(log);
    return recording;
  } catch (...) {
    ::close(log);
    throw;
  }
}
