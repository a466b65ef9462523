// Runs several calls concurrently, and handles Ctrl-C while they wait.
#pragma once

#include <cstddef>
#include <functional>

namespace vexa::cli {

struct ParallelOptions {
  std::size_t threads = 8;  // maximum
  // Both run on the calling thread. `on_change` runs after each piece of work and once a second; `on_interrupt` runs
  // after Ctrl-C, immediately before the process ends with exit code 130.
  std::function<void()> on_change = [] {};
  std::function<void()> on_interrupt = [] {};
};

// Calls `work` with 0 to `count` - 1, each once and in this order, several at a time; returns when all have returned.
// `work` must not throw. Ctrl-C has no effect if the program was started with it ignored.
void RunInParallel(std::size_t count, const ParallelOptions& options, const std::function<void(std::size_t)>& work);

}  // namespace vexa::cli
