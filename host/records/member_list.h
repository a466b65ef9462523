// The members of the cluster as this process knows them, for decisions that must not wait for the store.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "host/base/mutex.h"
#include "host/records/host_membership.h"
#include "host/store/store.h"

namespace vexa::records {

// Follows the store's changes on a thread of its own; a change is known within about a second, and after Accepts has
// read it.
// Threads: any, at the same time; one constructs and destroys it.
class MemberList {
 public:
  // Reads the list first. When that fails, the list stays empty until the store can be read.
  explicit MemberList(std::shared_ptr<store::Store> store);
  ~MemberList();
  // No longer follows changes, and no longer uses the environment (environment.h). Threads: one.
  void Stop();
  MemberList(const MemberList&) = delete;
  MemberList& operator=(const MemberList&) = delete;

  // From memory: whether the host is a member, and its certificate, issued at this time, has not been revoked.
  bool Knows(const std::string& host_id, std::chrono::system_clock::time_point issued) const;

  // From the latest state of the store, which Knows then knows as well; from memory only while that cannot be read.
  bool Accepts(const std::string& host_id, std::chrono::system_clock::time_point issued);

 private:
  // The positions from which the changes of claims, of hosts' records and of revocations are watched.
  struct Positions {
    store::Revision claims = 0;
    store::Revision hosts = 0;
    store::Revision revocations = 0;
  };

  // Waits briefly for changes, and reads the list again when there are some.
  void Follow(Positions& positions);
  bool Refresh();  // false: the store cannot be read, or what was read is outdated, and the list stays as it is
  void Remember(const std::string& host_id, const HostMembership& membership, store::Revision revision);
  void PauseAfterFailure();
  bool IsStopping() const;

  const std::shared_ptr<store::Store> store_;
  mutable Mutex mutex_;
  ConditionVariable wake_;
  bool stop_ VEXA_GUARDED_BY(mutex_) = false;
  std::map<std::string, HostMembership> members_ VEXA_GUARDED_BY(mutex_);
  store::Revision revision_ VEXA_GUARDED_BY(mutex_) = 0;  // the newest one that `members_` has something of
  std::thread thread_;
};

}  // namespace vexa::records
