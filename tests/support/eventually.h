// Waiting for what other threads and processes bring about.
#pragma once

#include <chrono>
#include <thread>

namespace support {

// Looks after each pause whether `condition` holds; false when it does not within `longest`, which
// leaves room for a busy machine. What is promised sooner has to be measured.
template <typename Condition>
bool Eventually(Condition condition, std::chrono::milliseconds longest = std::chrono::seconds(10),
                std::chrono::milliseconds pause = std::chrono::milliseconds(1)) {
  const auto deadline = std::chrono::steady_clock::now() + longest;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      return false;
    }
    std::this_thread::sleep_for(pause);
  }
  return true;
}

}  // namespace support
