// Runs other programs in tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::test {

struct ProcessOptions {
  std::vector<std::string> argv;  // argv[0] is the program; without a slash it is looked up in PATH
  // In addition to the test's own environment; an empty optional removes the variable.
  std::map<std::string, std::optional<std::string>> environment{};
  std::string input{};              // the program's standard input, followed by end of file
  std::string working_directory{};  // the test's own when empty
};

// How a program ended: one of the two is set.
struct ExitStatus {
  std::optional<int> code;    // it exited
  std::optional<int> signal;  // a signal ended it
};

// A running program in a process group of its own. Its output is collected while it runs.
// Threads: any, at the same time, except for the destructor.
class Process {
 public:
  // Aborts the test program when the program cannot be started (it does not exist, no memory).
  explicit Process(const ProcessOptions& options);
  // Kills the whole group when the program still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const;

  // Sends a signal to the program, not to its children. Does nothing when it has ended.
  void Signal(int signal);

  // Waits until the program has ended; empty when it still runs after `timeout`. By then, everything that the program
  // itself wrote has been collected.
  std::optional<ExitStatus> Wait(std::chrono::milliseconds timeout);
  bool IsRunning();

  // The output so far.
  std::string output() const;
  std::string errors() const;

  // Waits until `text` is in the output or the errors; false when the program ends or `timeout` passes without it.
  bool WaitForText(std::string_view text, std::chrono::milliseconds timeout);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

struct ProcessResult {
  int exit_code = -1;      // -1 when a signal ended it or it had to be killed
  bool timed_out = false;  // it was killed after `timeout`
  std::string output;
  std::string errors;
};

// Runs a program to its end.
ProcessResult RunProcess(const ProcessOptions& options, std::chrono::milliseconds timeout = std::chrono::seconds(60));

}  // namespace vexa::test
