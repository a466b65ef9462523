// --watch: runs a command again and again, and shows what it prints whenever that has changed.
#pragma once

#include <chrono>

#include "cli/command.h"

namespace vexa::cli {

// Calls `run` at this interval until it refuses or Ctrl-C ends the program, with exit code 0. An unreachable server is
// reported, and asked again. On a terminal each output replaces the one before; otherwise an output is printed when it
// differs from the one before, after an empty line. kFailed, when the program that reads the output has ended.
ExitCode Watch(const GlobalOptions& global, std::chrono::seconds interval, const RunFunction& run);

// Whether Watch runs. Commands then leave out ages, which change every time. Threads: one.
bool IsWatching();

}  // namespace vexa::cli
