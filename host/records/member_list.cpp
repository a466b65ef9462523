#include "host/records/member_list.h"

#include <utility>

#include "host/base/background_thread.h"
#include "host/base/run_logging_exceptions.h"
#include "host/store/key.h"

namespace vexa::records {
namespace {

constexpr std::chrono::milliseconds kWatchTimeout{250};
constexpr std::chrono::milliseconds kPauseAfterFailure{1000};

}  // namespace

MemberList::MemberList(std::shared_ptr<store::Store> store) : store_(std::move(store)) {
  Refresh();
  thread_ = StartThreadBlockingSignals([this] {
    Positions positions;
    while (!IsStopping()) {
      RunLoggingExceptions("The list of the cluster's hosts", [&] { Follow(positions); });
    }
  });
}

MemberList::~MemberList() { Stop(); }

void MemberList::Stop() {
  {
    const MutexLock lock(mutex_);
    stop_ = true;
  }
  wake_.NotifyAll();
  if (thread_.joinable()) thread_.join();
}

bool MemberList::Knows(const std::string& host_id, std::chrono::system_clock::time_point issued) const {
  const MutexLock lock(mutex_);
  const auto found = members_.find(host_id);
  return found != members_.end() && found->second.Accepts(issued);
}

bool MemberList::Accepts(const std::string& host_id, std::chrono::system_clock::time_point issued) const {
  const auto reader = Reader::Open(*store_);
  if (!reader) return Knows(host_id, issued);
  const auto membership = MembershipOf(*reader, host_id);
  return membership ? membership->Accepts(issued) : Knows(host_id, issued);
}

void MemberList::Follow(Positions& positions) {
  const auto claims = store_->Watch(store::MakeKey({kHostClaims}), positions.claims, kWatchTimeout);
  if (!claims) return PauseAfterFailure();
  const auto revocations =
      store_->Watch(store::MakeKey({kRevocations}), positions.revocations, std::chrono::milliseconds(0));
  if (!revocations) return PauseAfterFailure();
  const auto is_empty = [](const store::ChangeBatch& batch) { return batch.changes.empty() && !batch.lost; };
  const bool changed = !is_empty(*claims) || !is_empty(*revocations);
  if (changed && !Refresh()) return PauseAfterFailure();
  positions = {claims->revision, revocations->revision};
}

bool MemberList::Refresh() {
  const auto reader = Reader::Open(*store_);
  if (!reader) return false;
  const auto ids = HostIds(*reader);
  if (!ids) return false;
  std::map<std::string, HostMembership> members;
  for (const std::string& id : *ids) {
    const auto membership = MembershipOf(*reader, id);
    if (!membership) return false;
    members.emplace(id, *membership);
  }
  const MutexLock lock(mutex_);
  members_.swap(members);
  return true;
}

void MemberList::PauseAfterFailure() {
  const auto end = std::chrono::steady_clock::now() + kPauseAfterFailure;
  const MutexLock lock(mutex_);
  while (!stop_ && wake_.WaitUntil(mutex_, end)) {
  }
}

bool MemberList::IsStopping() const {
  const MutexLock lock(mutex_);
  return stop_;
}

}  // namespace vexa::records
