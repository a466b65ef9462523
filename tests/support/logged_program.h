// A program that writes to a log file, and that its starter waits for and ends by itself. Others are easier with
// Process.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/check.h"

namespace vexa::test {

// Starts `program` with these arguments, argv[0] included. Appends what it writes to `log`. `runtime` becomes its
// XDG_RUNTIME_DIR unless it is empty. The test program ends when there can be no process; a program that cannot be
// executed ends with 127.
inline pid_t StartLogged(const std::string& program, std::vector<std::string> arguments, const std::string& log,
                         const std::string& runtime = "") {
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) Fail("Cannot fork");
  if (pid > 0) return pid;
  const int output = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  ::dup2(output, 1);
  ::dup2(output, 2);
  if (!runtime.empty()) ::setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
  ::execv(program.c_str(), argv.data());
  ::_exit(127);
}

}  // namespace vexa::test
