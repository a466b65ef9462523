// Jobs with files by processes that are killed at each of their steps, finished by others.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "tests/unit/guests/file_job_ground.h"

namespace vexa::test {
namespace {

using guests::JobOptions;

enum class End { kKilled, kThrough };

// Runs `act` in a process of its own, which opens the store itself and is killed right before its step number
// `last_step`, counted from 0. This process must not have the store open.
End RunUntil(const DeletionGround& ground, int last_step, const std::function<void(const JobOptions& options)>& act) {
  const pid_t child = ::fork();
  if (child == 0) {
    JobOptions options = ground.Options(ground.OpenStore());
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
  return End::kThrough;
}

TEST(KilledFileJob, AtEachStep_AndAtEachOfItsFinish_HasItsOldStateOrItsNewOne) {
  constexpr int kPointOfNoReturn = 5;  // the step "commit records"
  int step = 0;
  int rounds = 0;
  for (bool is_through = false; !is_through && !testing::Test::HasFailure(); ++step) {
    for (int second = 0;; ++second) {
      SCOPED_TRACE("killed before step " + std::to_string(step) + ", then " + std::to_string(second));
      const DeletionGround ground;
      std::unique_ptr<Ends> ends;
      {
        const auto store = ground.OpenStore();
        PutBoth(ground, *store);
        ends = std::make_unique<Ends>(ground, *store);
      }
      const End end = RunUntil(ground, step, [&](const JobOptions& options) {
        if (Swap(ground, options).Run()) ::_exit(1);
      });
      is_through = end == End::kThrough;
      const End finish = RunUntil(ground, second, [&](const JobOptions& options) { FinishSwaps(ground, options); });
      const JobOptions options = ground.Options(ground.OpenStore());
      FinishSwaps(ground, options);
      if (step <= kPointOfNoReturn) {
        ends->ExpectOld(ground, *options.store);
      } else {
        ends->ExpectNew(ground, *options.store);
      }
      if (finish == End::kThrough || testing::Test::HasFailure()) break;
      ++rounds;
    }
  }
  EXPECT_EQ(step, 11) << "ten steps, and one round without a kill";
  // Five steps undo what was begun before the point of no return, four finish it after that.
  EXPECT_EQ(rounds, 5 * 5 + 4 * 4);
}

}  // namespace
}  // namespace vexa::test
