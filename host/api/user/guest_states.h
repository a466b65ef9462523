// What is shown for every guest, kept in step with the store.
//
// Deriving a state reads the records of the guest, its repository and its host. A list derives only the states whose
// inputs have changed since the previous list: the store's change log names the records, and the hosts' signs of life
// and the guests' links are compared. So a list is as new as the store, and an unchanged one derives nothing.
#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/api/user/guest_links.h"
#include "host/api/user/shown_guest.h"
#include "host/base/result.h"
#include "host/records/host_life.h"
#include "host/store/store.h"

namespace vexa::services {

// All guests in the platform's order, at one moment, and the data that they were judged by.
struct GuestListing {
  using Guests = std::vector<std::shared_ptr<const ShownGuest>>;
  std::shared_ptr<const Guests> guests;
  std::map<std::string, cluster::HostLife> lives;  // of the hosts that the guests and their repositories name
  std::shared_ptr<const GuestLinks> links;
  std::uint64_t version = 0;  // changes when a guest is shown differently, appears or disappears
};

// ShowAge (shown_guest.h) with the lives of the listing.
void ShowAge(const ShownGuest& guest, const GuestListing& listing, Json::Value& shown);

// Threads: any, at the same time; in a cluster::RequestScope. Uses the installed environment.
class GuestStates {
 public:
  explicit GuestStates(LinkWatcherOptions links = {}) : links_(std::move(links)) {}

  LinkWatcher& links() { return links_; }

  // The guests as they are now, including every change that was committed before the call. Waits for links as
  // LinkWatcher::Get() does, and releases the calling thread's snapshot. Errors: those of the store.
  Result<GuestListing> List() { return ListWith(links_.Get()); }
  // The same with links that were obtained in another way.
  Result<GuestListing> ListWith(std::shared_ptr<const GuestLinks> links);

 private:
  struct Changes;

  Status Collect(Changes& changes);
  Status BeginAgain(Changes& changes);
  void Note(const store::Change& change, Changes& changes) const;
  Status CompareLives(Changes& changes);
  void CompareLinks(const std::shared_ptr<const GuestLinks>& links, Changes& changes) const;
  Status ListIds(Changes& changes);
  void AddDependents(Changes& changes) const;
  bool DeriveAll(const Changes& changes);
  Status NoteLivesAfter(const Changes& changes);

  LinkWatcher links_;
  std::mutex mutex_;
  // Under mutex_:
  std::optional<store::Revision> revision_;  // of the applied changes; not set: everything has to be derived
  store::Revision pending_ = 0;              // of the changes being applied
  std::map<std::string, std::shared_ptr<const ShownGuest>> by_id_;
  std::vector<std::string> order_;
  std::map<std::string, cluster::HostLife> lives_;
  std::set<std::string> unsettled_;  // hosts whose life changed while guests were derived: their guests are derived
                                     // again
  std::shared_ptr<const GuestLinks> judged_by_;
  std::shared_ptr<const GuestListing::Guests> listed_;
  bool is_frozen_ = false;
  std::uint64_t version_ = 0;
};

}  // namespace vexa::services
