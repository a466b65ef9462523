#include "host/base/fair_queue.h"

#include <algorithm>
#include <iterator>
#include <limits>

namespace vexa {

FairQueue::FairQueue(const QueueLimits& limits) : limits_(limits) {
  constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();
  if (limits_.running_per_user == 0) limits_.running_per_user = kUnlimited;
  if (limits_.active_per_user == 0) limits_.active_per_user = limits_.running_per_user;
}

FairQueue::PushResult FairQueue::Push(const JobOwner& owner, std::function<void()> run) {
  if (limits_.queued > 0 && waiting_ >= limits_.queued) return PushResult::kFull;
  Owner& found = Find(owner);
  if (IsOverQuota(found)) {
    Release(found);
    return PushResult::kOverQuota;
  }
  found.waiting.push_back(Job{std::move(run), &found, Clock::now()});
  ++waiting_;
  if (found.host) ++found.host->second;
  Update(found);
  return PushResult::kQueued;
}

FairQueue::Owner& FairQueue::Find(const JobOwner& owner) {
  const auto [found, is_new] = owners_.try_emplace(owner.user);
  if (is_new) {
    found->second.name = &found->first;
    found->second.allowed = limits_.active_per_user;
    if (!owner.host.empty()) found->second.host = &*hosts_.try_emplace(owner.host, 0).first;
  }
  return found->second;
}

bool FairQueue::IsOverQuota(const Owner& owner) const {
  return (limits_.per_user > 0 && owner.waiting.size() + owner.running >= limits_.per_user) ||
         (limits_.per_host > 0 && owner.host && owner.host->second >= limits_.per_host);
}

FairQueue::Job FairQueue::Take() {
  Owner& owner = *turns_.front();
  turns_.pop_front();
  ready_ -= std::exchange(owner.ready, 0);
  Job job = std::move(owner.waiting.front());
  owner.waiting.pop_front();
  job.has_successors = !owner.waiting.empty();
  --waiting_;
  ++owner.running;
  owner.progress = Clock::now();
  Update(owner);  // if it has more jobs, its next turn comes after everybody else's
  return job;
}

void FairQueue::Finish(const Job& job) {
  Owner& owner = *job.owner;
  --owner.running;
  owner.progress = Clock::now();
  owner.allowed = std::max(limits_.active_per_user, owner.running + owner.ready);
  if (owner.host) --owner.host->second;
  Update(owner);
  Release(owner);
}

std::optional<FairQueue::Clock::time_point> FairQueue::AdmitStuck(std::chrono::milliseconds patience) {
  std::optional<Clock::time_point> next;
  const Clock::time_point now = Clock::now();
  for (auto& [name, owner] : owners_) {
    if (owner.waiting.size() == owner.ready || owner.allowed >= limits_.running_per_user) continue;
    if (owner.ready == 0 && now >= owner.progress + patience) {
      ++owner.allowed;
      Update(owner);
    }
    const Clock::time_point due = owner.ready == 0 ? owner.progress + patience : now + patience;
    next = std::min(next.value_or(due), due);
  }
  return next;
}

std::deque<FairQueue::Job> FairQueue::Clear() {
  std::deque<Job> dropped;
  turns_.clear();
  ready_ = 0;
  waiting_ = 0;
  for (auto next = owners_.begin(); next != owners_.end();) {
    Owner& owner = (next++)->second;  // Release() may remove it
    owner.ready = 0;
    if (owner.host) owner.host->second -= owner.waiting.size();
    std::ranges::move(owner.waiting, std::back_inserter(dropped));
    owner.waiting.clear();
    Release(owner);
  }
  return dropped;
}

FairQueue::Clock::time_point FairQueue::SubmittedAt(std::size_t ahead) const {
  const std::deque<Job>& jobs = turns_[ahead % turns_.size()]->waiting;
  return jobs[std::min(ahead / turns_.size(), jobs.size() - 1)].submitted;
}

// Counts its ready jobs again, and gives it a turn with the first one.
void FairQueue::Update(Owner& owner) {
  const std::size_t room = owner.allowed - std::min(owner.allowed, owner.running);
  const std::size_t ready = std::min(owner.waiting.size(), room);
  if (owner.ready == 0 && ready > 0) turns_.push_back(&owner);
  ready_ += ready - owner.ready;
  owner.ready = ready;
}

// Forgets an owner, and a host, without jobs.
void FairQueue::Release(Owner& owner) {
  if (!owner.waiting.empty() || owner.running > 0) return;
  auto* const host = owner.host;
  owners_.erase(owners_.find(*owner.name));
  if (host && host->second == 0) hosts_.erase(hosts_.find(host->first));
}

}  // namespace vexa
