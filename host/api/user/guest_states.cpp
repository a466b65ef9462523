#include "host/api/user/guest_states.h"

#include <algorithm>
#include <utility>

#include "host/records/environment.h"
#include "host/records/keys.h"
#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::DashCate;
using Links = GuestView::Links;

constexpr std::string_view kWatchedPrefix = "/dash";
constexpr std::string_view kHeartbeatKey = "seen";

// Whether the library derives states without the usual records (no database, or an incompatible upgrade). The derived
// states then depend on inputs that are not compared here.
bool AreStatesFrozen() { return !VexaVirtualization::IsDashboardReady() || CCCIsIncompatibleUpgrading() == 1; }

// The segments of "/dash/<category>/<id>/<key>", the id decoded.
struct DashKey {
  std::string_view category;
  std::string id;
  std::string_view key;
};

std::optional<DashKey> SplitKey(std::string_view key) {
  key.remove_prefix(std::min(kWatchedPrefix.size() + 1, key.size()));
  const std::size_t first = key.find('/');
  if (first == std::string_view::npos) return std::nullopt;
  const std::string_view rest = key.substr(first + 1);
  const std::size_t second = rest.find('/');
  std::optional<std::string> id = store::DecodeSegment(rest.substr(0, second));
  if (!id) return std::nullopt;
  return DashKey{key.substr(0, first), *std::move(id),
                 second == std::string_view::npos ? std::string_view() : rest.substr(second + 1)};
}

}  // namespace

struct GuestStates::Changes {
  bool derive_all = false;
  bool is_list_changed = false;
  bool are_nics_changed = false;
  std::set<std::string> guests;
  std::set<std::string> repositories;
  std::set<std::string> hosts;
};

void AddAge(const GuestView& guest, const GuestListing& listing, Json::Value& view) {
  const auto liveness_of = [&listing](const std::string& host_id) {
    const auto found = listing.liveness.find(host_id);
    return found == listing.liveness.end() ? records::HostLiveness() : found->second;
  };
  AddAge(guest, *listing.links, liveness_of(guest.host_id), liveness_of(guest.repository_host_id), view);
}

Result<GuestListing> GuestStates::ListWith(std::shared_ptr<const GuestLinkStates> links) {
  const MutexLock lock(mutex_);
  Changes changes;
  if (Status collected = Collect(changes); !collected) return collected.error();
  // A scope that starts now reads a state that contains every collected change, and so every change committed before
  // the call.
  const records::RequestScope newest;
  const auto reader = records::ReaderOfRequest();
  if (!reader) return reader.error();
  const bool was_frozen = std::exchange(is_frozen_, AreStatesFrozen());
  // While states are frozen, a host's observations of its own guests are not in the store, so no change reports them.
  if (was_frozen || is_frozen_) changes.derive_all = true;
  if (Status listed = ListIds(**reader, changes); !listed) return listed.error();
  if (Status compared = CompareLiveness(**reader, changes); !compared) return compared.error();
  CompareLinks(links, changes);
  compared_links_ = std::move(links);
  AddDependents(changes);
  const bool is_same_list = listed_ && !changes.is_list_changed;
  if (DeriveChanged(**reader, changes) || !is_same_list) {
    ++version_;
    auto guests = std::make_shared<GuestListing::Guests>();
    guests->reserve(order_.size());
    for (const std::string& id : order_) guests->push_back(by_id_.at(id));
    listed_ = std::move(guests);
  }
  if (!changes.guests.empty()) {
    if (Status rechecked = RecheckLiveness(**reader, changes); !rechecked) return rechecked.error();
  }
  return GuestListing{listed_, liveness_, compared_links_, version_};
}

Status GuestStates::StartOver(Changes& changes) {
  const Result<records::Reader> current = records::Reader::OpenCurrent();
  if (!current) return current.error();
  changes.derive_all = true;
  pending_revision_ = current->revision();
  return {};
}

// Collects changes until there is nothing newer. Until they have been applied, revision_ is not set: if a later step
// fails, everything is derived the next time.
Status GuestStates::Collect(Changes& changes) {
  const records::Environment* const environment = records::CurrentEnvironment();
  if (!environment) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  std::optional<store::Revision> revision = std::exchange(revision_, std::nullopt);
  if (!revision) return StartOver(changes);
  while (true) {
    const auto batch = environment->store->Watch(kWatchedPrefix, *revision, std::chrono::milliseconds(0));
    // While the database is lost, its copy can be read, but the change log is lost.
    if (!batch) return StartOver(changes);
    revision = batch->revision;
    changes.derive_all = changes.derive_all || batch->lost;
    for (const store::Change& change : batch->changes) RecordChange(change, changes);
    if (batch->lost || batch->changes.empty()) break;
  }
  pending_revision_ = *revision;
  return {};
}

void GuestStates::RecordChange(const store::Change& change, Changes& changes) const {
  const std::optional<DashKey> key = SplitKey(change.key);
  if (!key) return;
  if (key->category == DashCate::Guest.name()) {
    changes.is_list_changed = changes.is_list_changed || change.deleted || !by_id_.contains(key->id);
    changes.guests.insert(key->id);
  } else if (key->category == DashCate::Repository.name()) {
    changes.repositories.insert(key->id);
  } else if (key->category == DashCate::Host.name()) {
    // Heartbeats change every few seconds: what follows from them is compared instead.
    if (key->key != kHeartbeatKey) changes.hosts.insert(key->id);
  } else if (key->category == DashCate::vNic.name()) {
    changes.are_nics_changed = true;
  }
}

// Reads the ids in their order; guests that are new to the table are derived, and guests that no longer exist are
// removed.
Status GuestStates::ListIds(const records::Reader& reader, Changes& changes) {
  if (!changes.derive_all && !changes.is_list_changed) return {};
  changes.is_list_changed = true;
  Result<std::vector<std::string>> ids = reader.Children(records::CategoryKey(DashCate::Guest.name()));
  if (!ids) return Error(ErrorCode::kUnavailable, "The guests cannot be listed", ids.error().ToString());
  const std::set<std::string> present(ids->begin(), ids->end());
  std::erase_if(by_id_, [&](const auto& guest) { return !present.contains(guest.first); });
  std::erase_if(changes.guests, [&](const std::string& id) { return !present.contains(id); });
  for (const std::string& id : *ids) {
    if (changes.derive_all || !by_id_.contains(id)) changes.guests.insert(id);
  }
  order_ = std::move(*ids);
  return {};
}

Status GuestStates::CompareLiveness(const records::Reader& reader, Changes& changes) {
  if (changes.derive_all) {
    const Result<std::vector<std::string>> ids = reader.Children(records::CategoryKey(DashCate::Host.name()));
    if (!ids) return Error(ErrorCode::kUnavailable, "The hosts cannot be listed", ids.error().ToString());
    for (const std::string& id : *ids) liveness_.try_emplace(id);
  }
  changes.hosts.merge(std::exchange(hosts_to_recheck_, {}));
  for (auto& [host_id, liveness] : liveness_) {
    const Result<records::HostLiveness> now = records::LivenessOf(reader, host_id);
    if (!now) return now.error();
    if (now->is_gone != liveness.is_gone) changes.hosts.insert(host_id);
    liveness = *now;
  }
  return {};
}

void GuestStates::CompareLinks(const std::shared_ptr<const GuestLinkStates>& links, Changes& changes) const {
  if (changes.derive_all || is_frozen_ || (links == compared_links_ && !changes.are_nics_changed)) return;
  for (const auto& [id, guest] : by_id_) {
    if (guest->links == Links::kIrrelevant) continue;
    const auto found = links->connected.find(id);
    const bool is_known = found != links->connected.end();
    // A known link state stays known, with one exception: after a change of its interfaces, a missing link becomes
    // unknown.
    const bool is_same = is_known
                             ? (found->second != 0 ? guest->links == Links::kConnected
                                                   : guest->links == Links::kDisconnected && !changes.are_nics_changed)
                             : guest->links == Links::kUnknown;
    if (!is_same) changes.guests.insert(id);
  }
}

void GuestStates::AddDependents(Changes& changes) const {
  if (changes.repositories.empty() && changes.hosts.empty()) return;
  for (const auto& [id, guest] : by_id_) {
    if (changes.repositories.contains(guest->repository_id) || changes.hosts.contains(guest->host_id) ||
        changes.hosts.contains(guest->repository_host_id)) {
      changes.guests.insert(id);
    }
  }
}

// True: at least one view has changed.
bool GuestStates::DeriveChanged(const records::Reader& reader, const Changes& changes) {
  bool is_changed = false;
  for (const std::string& id : changes.guests) {
    std::shared_ptr<const GuestView> derived = DeriveGuest(reader, id, *compared_links_);
    std::shared_ptr<const GuestView>& kept = by_id_[id];
    if (kept && *kept == *derived) continue;
    is_changed = true;
    kept = std::move(derived);
  }
  revision_ = pending_revision_;
  return is_changed;
}

// A host may come or go between the comparison and the derivation, and a guest may be the first to name a host. When
// the liveness of a host differs from the one compared, its guests are derived again by the next list.
Status GuestStates::RecheckLiveness(const records::Reader& reader, const Changes& changes) {
  const auto recheck = [this, &reader](const std::string& host_id) VEXA_REQUIRES(mutex_) -> Status {
    if (host_id.empty()) return {};
    const Result<records::HostLiveness> now = records::LivenessOf(reader, host_id);
    if (!now) return now.error();
    const auto [known, is_new] = liveness_.try_emplace(host_id, *now);
    if (is_new || known->second.is_gone != now->is_gone) hosts_to_recheck_.insert(host_id);
    return {};
  };
  std::set<std::string> hosts;
  for (const std::string& id : changes.guests) {
    const GuestView& guest = *by_id_.at(id);
    hosts.insert(guest.host_id);
    hosts.insert(guest.repository_host_id);
  }
  for (const std::string& host_id : hosts) {
    if (Status rechecked = recheck(host_id); !rechecked) return rechecked;
  }
  return {};
}

}  // namespace vexa::api
