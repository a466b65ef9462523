// Jobs with files by processes that are killed at each of their steps, finished by others.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/unit/guests/swap_job.h"

namespace vexa::test {
namespace {

using guests::JobOptions;

enum class End { kKilled, kCompleted };

// Runs `act` in a process of its own, which opens the store itself and is killed right before its step number
// `last_step`, counted from 0. This process must not have the store open.
End RunUntil(const DeletionEnvironment& environment, int last_step,
             const std::function<void(const JobOptions& options)>& act) {
  const pid_t child = ::fork();
  if (child == 0) {
    JobOptions options = environment.Options(environment.OpenStore());
    int step = 0;
    options.before_step = [&step, last_step](std::string_view) {
      if (step++ == last_step) ::kill(::getpid(), SIGKILL);
    };
    act(options);
    ::_exit(0);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return End::kKilled;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return End::kCompleted;
}

TEST(KilledFileJob, Kill_AtEachStepOfJobOrFinish_LeavesOldOrNewState) {
  constexpr int kPointOfNoReturn = 5;  // the step "commit records"
  int step = 0;
  int rounds = 0;
  for (bool is_through = false; !is_through && !testing::Test::HasFailure(); ++step) {
    for (int second = 0;; ++second) {
      SCOPED_TRACE("killed before step " + std::to_string(step) + ", then " + std::to_string(second));
      const DeletionEnvironment environment;
      std::unique_ptr<ExpectedStates> states;
      {
        const auto store = environment.OpenStore();
        PutBoth(environment, *store);
        states = std::make_unique<ExpectedStates>(environment, *store);
      }
      const End end = RunUntil(environment, step, [&](const JobOptions& options) {
        if (!Swap(environment, options).Run().ok()) ::_exit(1);
      });
      is_through = end == End::kCompleted;
      const End finish =
          RunUntil(environment, second, [&](const JobOptions& options) { FinishSwaps(environment, options); });
      const JobOptions options = environment.Options(environment.OpenStore());
      FinishSwaps(environment, options);
      if (step <= kPointOfNoReturn) {
        states->ExpectOld(environment, *options.store);
      } else {
        states->ExpectNew(environment, *options.store);
      }
      if (finish == End::kCompleted || testing::Test::HasFailure()) break;
      ++rounds;
    }
  }
  EXPECT_EQ(step, 11) << "ten steps, and one round without a kill";
  // Five steps undo what was begun before the point of no return, four finish it after that.
  EXPECT_EQ(rounds, 5 * 5 + 4 * 4);
}

}  // namespace
}  // namespace vexa::test
