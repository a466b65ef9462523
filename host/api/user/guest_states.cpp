#include "host/api/user/guest_states.h"

#include <algorithm>
#include <utility>

#include "host/records/environment.h"
#include "host/records/reading.h"
#include "host/records/revisions.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

using VexaCCC::DB::DashCate;
using Links = ShownGuest::Links;

constexpr std::string_view kWatched = "/dash";
constexpr std::string_view kSeen = "seen";

// As the derivation of states decides it. The derived values then depend on other things.
bool IsFrozen() { return !VexaVirtualization::IsDashboardReady() || CCCIsIncompatibleUpgrading() == 1; }

// The segments of "/dash/<category>/<id>/<key>", the id decoded.
struct DashKey {
  std::string_view category;
  std::string id;
  std::string_view key;
};

std::optional<DashKey> SplitKey(std::string_view key) {
  key.remove_prefix(std::min(kWatched.size() + 1, key.size()));
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
  bool is_everything = false;
  bool is_list_changed = false;
  bool are_nics_changed = false;
  std::set<std::string> guests;
  std::set<std::string> repositories;
  std::set<std::string> hosts;
};

void ShowAge(const ShownGuest& guest, const GuestListing& listing, Json::Value& shown) {
  const auto life_of = [&listing](const std::string& host_id) {
    const auto found = listing.lives.find(host_id);
    return found == listing.lives.end() ? cluster::HostLife() : found->second;
  };
  ShowAge(guest, *listing.links, life_of(guest.host_id), life_of(guest.repository_host_id), shown);
}

Result<GuestListing> GuestStates::ListWith(std::shared_ptr<const GuestLinks> links) {
  // Reads from here on are newer than every change that was committed before the call.
  cluster::RequestScope::ReleaseSnapshot();
  const std::lock_guard lock(mutex_);
  Changes changes;
  if (Status collected = Collect(changes); !collected) return collected.error();
  cluster::RequestScope::ReleaseSnapshot();
  const bool was_frozen = std::exchange(is_frozen_, IsFrozen());
  // While it is frozen, a host's observations of its own guests are not in the store, so no change shows them.
  if (was_frozen || is_frozen_) changes.is_everything = true;
  if (Status listed = ListIds(changes); !listed) return listed.error();
  if (Status compared = CompareLives(changes); !compared) return compared.error();
  CompareLinks(links, changes);
  judged_by_ = std::move(links);
  AddDependents(changes);
  const bool is_same_list = listed_ && !changes.is_list_changed;
  if (DeriveAll(changes) || !is_same_list) {
    ++version_;
    auto guests = std::make_shared<GuestListing::Guests>();
    guests->reserve(order_.size());
    for (const std::string& id : order_) guests->push_back(by_id_.at(id));
    listed_ = std::move(guests);
  }
  if (!changes.guests.empty()) {
    if (Status noted = NoteLivesAfter(changes); !noted) return noted.error();
  }
  return GuestListing{listed_, lives_, judged_by_, version_};
}

Status GuestStates::BeginAgain(Changes& changes) {
  const Result<store::Revision> current = cluster::CurrentRevision();
  if (!current) return current.error();
  changes.is_everything = true;
  pending_ = *current;
  return {};
}

// Until there is nothing newer. Collected changes count as applied even if a later step fails: then everything is
// derived the next time.
Status GuestStates::Collect(Changes& changes) {
  const cluster::Environment* const environment = cluster::CurrentEnvironment();
  if (!environment) return Error(ErrorCode::kUnavailable, "The cluster database is not open");
  std::optional<store::Revision> revision = std::exchange(revision_, std::nullopt);
  if (!revision) return BeginAgain(changes);
  while (true) {
    const auto batch = environment->store->Watch(kWatched, *revision, std::chrono::milliseconds(0));
    // While the database is lost, its copy can be read, but the change log is lost.
    if (!batch) return BeginAgain(changes);
    revision = batch->revision;
    changes.is_everything = changes.is_everything || batch->lost;
    for (const store::Change& change : batch->changes) Note(change, changes);
    if (batch->lost || batch->changes.empty()) break;
  }
  pending_ = *revision;
  return {};
}

void GuestStates::Note(const store::Change& change, Changes& changes) const {
  const std::optional<DashKey> key = SplitKey(change.key);
  if (!key) return;
  if (key->category == DashCate::Guest.name()) {
    changes.is_list_changed = changes.is_list_changed || change.deleted || !by_id_.contains(key->id);
    changes.guests.insert(key->id);
  } else if (key->category == DashCate::Repository.name()) {
    changes.repositories.insert(key->id);
  } else if (key->category == DashCate::Host.name()) {
    // Signs of life come every few seconds, and are compared by their meaning.
    if (key->key != kSeen) changes.hosts.insert(key->id);
  } else if (key->category == DashCate::vNic.name()) {
    changes.are_nics_changed = true;
  }
}

// Reads the ids in their order; guests that are new to the table are derived, and guests that no longer exist are
// removed.
Status GuestStates::ListIds(Changes& changes) {
  if (!changes.is_everything && !changes.is_list_changed) return {};
  changes.is_list_changed = true;
  std::vector<std::string> ids;
  if (DashCate::Guest.List(ids) != 0) return Error(ErrorCode::kUnavailable, "The guests cannot be listed");
  const std::set<std::string> present(ids.begin(), ids.end());
  std::erase_if(by_id_, [&](const auto& guest) { return !present.contains(guest.first); });
  std::erase_if(changes.guests, [&](const std::string& id) { return !present.contains(id); });
  for (const std::string& id : ids) {
    if (changes.is_everything || !by_id_.contains(id)) changes.guests.insert(id);
  }
  order_ = std::move(ids);
  return {};
}

Status GuestStates::CompareLives(Changes& changes) {
  if (changes.is_everything) {
    std::vector<std::string> ids;
    if (DashCate::Host.List(ids) != 0) return Error(ErrorCode::kUnavailable, "The hosts cannot be listed");
    for (const std::string& id : ids) lives_.try_emplace(id);
  }
  changes.hosts.merge(std::exchange(unsettled_, {}));
  for (auto& [host_id, life] : lives_) {
    const Result<cluster::HostLife> now = cluster::LifeOf(host_id);
    if (!now) return now.error();
    if (now->is_gone != life.is_gone) changes.hosts.insert(host_id);
    life = *now;
  }
  return {};
}

void GuestStates::CompareLinks(const std::shared_ptr<const GuestLinks>& links, Changes& changes) const {
  if (changes.is_everything || is_frozen_ || (links == judged_by_ && !changes.are_nics_changed)) return;
  for (const auto& [id, guest] : by_id_) {
    if (guest->links == Links::kNoMatter) continue;
    const auto found = links->connected.find(id);
    const bool is_known = found != links->connected.end();
    // What is known about a guest stays known, with one exception: after a change of its interfaces, missing links
    // become unknown.
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

// True: a guest is shown differently than before.
bool GuestStates::DeriveAll(const Changes& changes) {
  bool is_changed = false;
  for (const std::string& id : changes.guests) {
    std::shared_ptr<const ShownGuest> derived = DeriveGuest(id, *judged_by_);
    std::shared_ptr<const ShownGuest>& kept = by_id_[id];
    if (kept && *kept == *derived) continue;
    is_changed = true;
    kept = std::move(derived);
  }
  revision_ = pending_;
  return is_changed;
}

// A host may come or go between the comparison and the derivation, and a guest may be the first to name a host: such
// guests are derived once more the next time if the host's life differs from the one compared.
Status GuestStates::NoteLivesAfter(const Changes& changes) {
  const auto note = [this](const std::string& host_id) -> Status {
    if (host_id.empty()) return {};
    const Result<cluster::HostLife> now = cluster::LifeOf(host_id);
    if (!now) return now.error();
    const auto [known, is_new] = lives_.try_emplace(host_id, *now);
    if (is_new || known->second.is_gone != now->is_gone) unsettled_.insert(host_id);
    return {};
  };
  std::set<std::string> hosts;
  for (const std::string& id : changes.guests) {
    const ShownGuest& guest = *by_id_.at(id);
    hosts.insert(guest.host_id);
    hosts.insert(guest.repository_host_id);
  }
  for (const std::string& host_id : hosts) {
    if (Status noted = note(host_id); !noted) return noted;
  }
  return {};
}

}  // namespace vexa::services
