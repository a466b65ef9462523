#include "host/base/lane_check.h"

#include <memory>
#include <semaphore>
#include <thread>

namespace vexa {
namespace {

constexpr std::chrono::milliseconds kPause{10};

}  // namespace

bool IsRunningJobs(Lane& lane, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const std::uint64_t done_before = lane.stats().done;
  const auto has_run = std::make_shared<std::binary_semaphore>(0);
  if (lane.Submit(JobOwner{}, [has_run] { has_run->release(); }) == Lane::SubmitResult::kAccepted)
    return has_run->try_acquire_until(end);
  while (lane.stats().done == done_before) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

}  // namespace vexa
