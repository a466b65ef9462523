#include "host/records/member_list.h"

#include <algorithm>
#include <utility>

#include "host/base/background_thread.h"
#include "host/base/run_logging_exceptions.h"
#include "host/records/keys.h"
#include "host/store/key.h"

namespace vexa::records {
namespace {

constexpr std::chrono::milliseconds kWatchTimeout{250};
constexpr std::chrono::milliseconds kPauseAfterFailure{1000};

bool HasChanges(const store::ChangeBatch& batch) { return batch.lost || !batch.changes.empty(); }

// Whether hosts' records have changed: below the category are also their heartbeats, which do not matter here.
bool HasChangedRecords(const store::ChangeBatch& batch) {
  const std::string suffix = std::string("/") + keys::object;
  return batch.lost ||
         std::ranges::any_of(batch.changes, [&](const store::Change& change) { return change.key.ends_with(suffix); });
}

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

bool MemberList::Accepts(const std::string& host_id, std::chrono::system_clock::time_point issued) {
  const auto reader = Reader::Open(*store_);
  if (!reader) return Knows(host_id, issued);
  const auto membership = MembershipOf(*reader, host_id);
  if (!membership) return Knows(host_id, issued);
  Remember(host_id, *membership, reader->revision());
  return membership->Accepts(issued);
}

// Strangers are not remembered, because anybody with a certificate of the authority could be one.
void MemberList::Remember(const std::string& host_id, const HostMembership& membership, store::Revision revision) {
  const MutexLock lock(mutex_);
  if (revision < revision_) return;  // of an older state than the list
  revision_ = revision;
  if (membership.is_member) {
    members_[host_id] = membership;
  } else {
    members_.erase(host_id);
  }
}

void MemberList::Follow(Positions& positions) {
  const auto claims = store_->Watch(store::MakeKey({kHostClaims}), positions.claims, kWatchTimeout);
  if (!claims) return PauseAfterFailure();
  const auto revocations =
      store_->Watch(store::MakeKey({kRevocations}), positions.revocations, std::chrono::milliseconds(0));
  if (!revocations) return PauseAfterFailure();
  const auto hosts =
      store_->Watch(CategoryKey(VexaCCC::DB::DashCate::Host.name()), positions.hosts, std::chrono::milliseconds(0));
  if (!hosts) return PauseAfterFailure();
  const bool changed = HasChanges(*claims) || HasChanges(*revocations) || HasChangedRecords(*hosts);
  if (changed && !Refresh()) return PauseAfterFailure();
  positions = {claims->revision, hosts->revision, revocations->revision};
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
  if (reader->revision() < revision_) return false;  // Accepts has read something newer meanwhile
  members_.swap(members);
  revision_ = reader->revision();
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
