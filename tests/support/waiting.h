// Waiting for conditions that other threads bring about.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <thread>

namespace vexa::test {

// Whether `condition` holds within 20 s: generous, because a loaded machine must not fail a test.
inline bool Eventually(const std::function<bool()>& condition) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

// How many threads this process has.
inline int ProcessThreads() {
  int count = 0;
  for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

}  // namespace vexa::test
