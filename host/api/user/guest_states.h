// What users see of every guest, kept up to date with the store.
//
// Deriving a state reads the records of the guest, its repository and its host. A list derives only the states whose
// inputs have changed since the previous list: the store's change log names the records, and the hosts' heartbeats
// and the guests' links are compared. So a list is as current as the store, and derives nothing when nothing has
// changed.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/api/user/guest_links.h"
#include "host/api/user/guest_view.h"
#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/records/host_liveness.h"
#include "host/store/store.h"

namespace vexa::api {

// All guests in the platform's order, at one moment, and the data that they were derived from.
struct GuestListing {
  using Guests = std::vector<std::shared_ptr<const GuestView>>;
  std::shared_ptr<const Guests> guests;
  std::map<std::string, records::HostLiveness> liveness;  // of the hosts that the guests and their repositories name
  std::shared_ptr<const GuestLinkStates> links;
  std::uint64_t version = 0;  // changes when a view changes, or a guest appears or disappears
};

// AddAge (guest_view.h) with the liveness of the listing's hosts.
void AddAge(const GuestView& guest, const GuestListing& listing, Json::Value& view);

// Threads: any, at the same time. Uses the installed environment.
class GuestStates {
 public:
  explicit GuestStates(LinkWatcherOptions links = {}) : links_(std::move(links)) {}

  LinkWatcher& links() { return links_; }

  // The guests as they are now, including every change that was committed before the call. Waits for links as
  // LinkWatcher::Get() does. Errors: those of the store.
  Result<GuestListing> List() { return ListWith(links_.Get()); }
  // The same with the given links.
  Result<GuestListing> ListWith(std::shared_ptr<const GuestLinkStates> links);

 private:
  struct Changes;

  Status Collect(Changes& changes) VEXA_REQUIRES(mutex_);
  Status StartOver(Changes& changes) VEXA_REQUIRES(mutex_);
  void RecordChange(const store::Change& change, Changes& changes) const VEXA_REQUIRES(mutex_);
  Status CompareLiveness(const records::Reader& reader, Changes& changes) VEXA_REQUIRES(mutex_);
  void CompareLinks(const std::shared_ptr<const GuestLinkStates>& links, Changes& changes) const VEXA_REQUIRES(mutex_);
  Status ListIds(const records::Reader& reader, Changes& changes) VEXA_REQUIRES(mutex_);
  void AddDependents(Changes& changes) const VEXA_REQUIRES(mutex_);
  bool DeriveChanged(const records::Reader& reader, const Changes& changes) VEXA_REQUIRES(mutex_);
  Status RecheckLiveness(const records::Reader& reader, const Changes& changes) VEXA_REQUIRES(mutex_);

  LinkWatcher links_;
  Mutex mutex_;
  // The revision of the applied changes. Not set: everything has to be derived.
  std::optional<store::Revision> revision_ VEXA_GUARDED_BY(mutex_);
  // What revision_ becomes once the collected changes have been applied.
  store::Revision pending_revision_ VEXA_GUARDED_BY(mutex_) = 0;
  std::map<std::string, std::shared_ptr<const GuestView>> by_id_ VEXA_GUARDED_BY(mutex_);
  std::vector<std::string> order_ VEXA_GUARDED_BY(mutex_);
  std::map<std::string, records::HostLiveness> liveness_ VEXA_GUARDED_BY(mutex_);
  // Hosts whose liveness changed while guests were derived: their guests are derived again.
  std::set<std::string> hosts_to_recheck_ VEXA_GUARDED_BY(mutex_);
  std::shared_ptr<const GuestLinkStates> compared_links_ VEXA_GUARDED_BY(mutex_);
  std::shared_ptr<const GuestListing::Guests> listed_ VEXA_GUARDED_BY(mutex_);
  bool is_frozen_ VEXA_GUARDED_BY(mutex_) = false;
  std::uint64_t version_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace vexa::api
