// Several calls at once, and Ctrl-C while they wait.
#pragma once

#include <cstddef>
#include <functional>

namespace vexa::cli {

struct ParallelOptions {
  std::size_t threads = 8;  // at most
  // Both run on the calling thread: the first after each piece of work and once a second, the second when Ctrl-C is
  // pressed, as the last thing that the process does before it ends with 130.
  std::function<void()> on_change = [] {};
  std::function<void()> on_interrupt = [] {};
};

// Calls `work` with 0 to `count` - 1, each once and in this order, several at a time; returns when all have returned.
// `work` must not throw. Ctrl-C is left alone where the caller of the program has it ignored.
void RunInParallel(std::size_t count, const ParallelOptions& options, const std::function<void(std::size_t)>& work);

}  // namespace vexa::cli
