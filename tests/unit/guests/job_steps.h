// The steps of edits and deletions, for tests that act before one of them or kill the process there.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

namespace vexa::test {

// For `before_step` of a job's options: calls `act` once, before the first step of this name.
inline std::function<void(std::string_view)> OnceAt(std::string step, std::function<void()> act) {
  return [step = std::move(step), act = std::move(act), done = false](std::string_view now) mutable {
    if (now == step && !std::exchange(done, true)) act();
  };
}

enum class End { kKilled, kCompleted, kFailed };

// Runs `act` with the options of `environment` in a process of its own, which opens the store itself and is killed
// right before its step number `last_step`, counted from 0. `act` returns whether it went well. This process must not
// have the store open.
template <class Environment, class Act>
End RunUntil(const Environment& environment, int last_step, const Act& act) {
  const pid_t child = ::fork();
  if (child == 0) {
    auto options = environment.Options(environment.OpenStore());
    int step = 0;
    options.before_step = [&step, last_step](std::string_view) {
      if (step++ == last_step) ::kill(::getpid(), SIGKILL);
    };
    ::_exit(act(std::move(options)) ? 0 : 1);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return End::kKilled;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? End::kCompleted : End::kFailed;
}

}  // namespace vexa::test
