#include "host/guests/recovery.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "host/base/json_parse.h"
#include "host/guests/claims.h"
#include "host/records/domain_record.h"
#include "host/records/environment.h"
#include "host/records/host_claim_record.h"
#include "host/records/host_life.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/object_edit.h"
#include "host/records/reading.h"
#include "host/records/run_record.h"
#include "host/records/shutdown_reason.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using cluster::LoadObject;
using cluster::StoredObject;
using VexaCCC::DB::DashCate;

constexpr int kShownNames = 10;

std::string Key(const DashCate& category, const std::string& id, std::string_view key = keys::object) {
  return cluster::MemberKey(category.name(), id, key);
}

// Fails in the middle of a plan: the caller gets the refusal.
Error Stop(Refused& refused, Refusal refusal) {
  refused = std::move(refusal);
  return Error(ErrorCode::kDenied, "refused");
}

Refused Finish(const Status& committed, Refused refused) {
  if (committed) return {};
  if (refused) return refused;
  const bool is_unreadable =
      committed.error().code() == ErrorCode::kNotFound || committed.error().code() == ErrorCode::kCorrupt;
  return Refusal{is_unreadable ? kUnreadable : kFailed, committed.error().ToString()};
}

std::string HostName(const store::Snapshot& snapshot, const std::string& host_id) {
  const auto host = LoadObject(snapshot, Key(DashCate::Host, host_id));
  const std::string name = host ? json::TextMember(host->record, keys::name) : std::string();
  return name.empty() ? host_id : name;
}

// Makes the commit depend on the host being gone: a sign of life, or a new claim, makes it a conflict.
Status CompareGone(const store::Snapshot& snapshot, const std::string& host_id, store::Transaction& transaction,
                   Refused& refused) {
  const std::string seen = Key(DashCate::Host, host_id, "seen");
  const auto stored = snapshot.Get(seen);
  if (!stored) return stored.error();
  cluster::RequestScope::ReleaseSnapshot();
  const auto life = cluster::LifeOf(host_id);
  if (!life) return life.error();
  const auto host = snapshot.Get(Key(DashCate::Host, host_id));
  if (!host) return host.error();
  // A host without a record and a sign of life, for instance one known only from imported records, never existed.
  const cluster::Environment* const environment = cluster::CurrentEnvironment();
  const bool is_here = environment && environment->host_id == host_id;
  const bool is_known = *stored || *host || is_here;
  if (!life->is_gone && is_known) {
    return Stop(refused, {kHostIsAlive, "The host '" + HostName(snapshot, host_id) +
                                            "' gives signs of life: use it to shut down or power off the guest"});
  }
  transaction.compares.push_back({seen, *stored ? (*stored)->revision : 0});
  return {};
}

// Renumbers the host's claim. Returns its previous state.
Result<StoredObject> FenceHost(const store::Snapshot& snapshot, const std::string& host_id,
                               store::Transaction& transaction, std::uint64_t& incarnation) {
  const std::string key = cluster::HostClaimKey(host_id);
  Result<StoredObject> claim = LoadObject(snapshot, key);
  if (!claim) return claim.error();
  StoredObject fenced = *claim;
  incarnation = cluster::FenceClaim(fenced.record);
  cluster::PutObject(transaction, key, fenced);
  return claim;
}

// The guest is off from now on, by force, because its host was offline.
Status PutShutDown(const store::Snapshot& snapshot, const std::string& guest_id, store::Transaction& transaction) {
  transaction.operations.push_back({cluster::LiveStateKey(guest_id), json::ToText(VexaCCC::State::Guest::shutdown)});
  const std::string key = cluster::LiveRecordKey(guest_id);
  Result<StoredObject> live = LoadObject(snapshot, key);
  if (!live && live.error().code() != ErrorCode::kCorrupt) return live.error();
  // A damaged record is kept: without it the guest is off for an unknown reason.
  if (!live) return {};
  // The host, when it comes back, continues to count from its own sequence.
  live->record.removeMember(keys::host_id);
  live->record["shutdown"] = cluster::ShutdownJson({cluster::ShutdownCause::kHostOffline, true});
  cluster::PutObject(transaction, key, *live);
  return {};
}

Status CheckDestination(const store::Snapshot& snapshot, const std::string& host_id, Refused& refused) {
  if (host_id.empty()) return {};
  const auto host = LoadObject(snapshot, Key(DashCate::Host, host_id));
  if (!host) return host.error();
  if (host->revision == 0) return Stop(refused, {kUnreadable, "There is no host '" + host_id + "'"});
  const auto life = cluster::LifeOf(host_id);
  if (!life) return life.error();
  if (!life->is_gone) return {};
  return Stop(refused, {kHostIsAlive, "The host '" + HostName(snapshot, host_id) +
                                          "', the new host of the guest, is itself inaccessible"});
}

class Recovery {
 public:
  Recovery(store::Store& store, const RecoverRequest& request) : store_(store), request_(request) {}

  Refused Perform() {
    Refused refused;
    const Status committed = cluster::CommitPlanned(store_, [&] {
      refused.reset();
      return Plan(refused);
    });
    return Finish(committed, std::move(refused));
  }

 private:
  Result<store::Transaction> Plan(Refused& refused) const {
    const auto snapshot = store_.Read();
    if (!snapshot) return snapshot.error();
    store::Transaction transaction;
    const std::string guest_key = Key(DashCate::Guest, request_.guest_id);
    Result<StoredObject> guest = LoadObject(**snapshot, guest_key);
    if (!guest) return guest.error();
    if (guest->revision == 0) return Stop(refused, {kUnreadable, "There is no guest '" + request_.guest_id + "'"});
    const auto stored = (*snapshot)->Get(RunKey(request_.guest_id));
    if (!stored) return stored.error();
    const Run run = *stored ? ParseRun((*stored)->text) : Run();
    const std::string host_id = *stored ? run.host_id : json::TextMember(guest->record, keys::host_id);
    if (host_id.empty()) {
      return Stop(refused, {kNotRunning, "The guest has no host that it could be taken from"});
    }
    if (const Status gone = CompareGone(**snapshot, host_id, transaction, refused); !gone) return gone.error();
    if (const Status there = CheckDestination(**snapshot, request_.to_host_id, refused); !there) return there.error();
    transaction.compares.push_back({RunKey(request_.guest_id), *stored ? (*stored)->revision : 0});
    std::uint64_t incarnation = 0;
    const Result<StoredObject> claim = FenceHost(**snapshot, host_id, transaction, incarnation);
    if (!claim) return claim.error();
    if (*stored) {
      if (Refused unsure = RefuseUnsure(**snapshot, run, *claim)) return Stop(refused, std::move(*unsure));
      transaction.operations.push_back({RunKey(request_.guest_id), std::nullopt});
      if (const Status put = PutShutDown(**snapshot, request_.guest_id, transaction); !put) return put.error();
    }
    // Also for a guest that was off according to the records: the host may have started it while it was cut off.
    const cluster::Deed deed{request_.user, std::chrono::system_clock::now()};
    const std::string note = cluster::FenceKey(host_id, request_.guest_id);
    if (!store::IsKey(note)) return Error(ErrorCode::kInvalid, "The host's id is too long");
    transaction.operations.push_back({note, cluster::FenceNote(incarnation, deed)});
    transaction.operations.push_back({UndefineKey(host_id, request_.guest_id), "true"});
    if (request_.to_host_id.empty()) {
      guest->record.removeMember(keys::host_id);
    } else {
      guest->record[keys::host_id] = request_.to_host_id;
    }
    cluster::PutObject(transaction, guest_key, *guest);
    return transaction;
  }

  // Whether something that is still running or saved could be lost or duplicated.
  Refused RefuseUnsure(const store::Snapshot& snapshot, const Run& run, const StoredObject& claim) const {
    const std::string host = "the host '" + HostName(snapshot, run.host_id) + "'";
    if (run.saved && request_.saved == SavedMemory::kKeep) {
      return Refusal{kSavedMemoryLost, "The guest's saved memory is on " + host +
                                           " and would be lost: confirm that it is to be discarded"};
    }
    // libvirt starts an imported guest together with the host's machine if its owner configured that.
    const auto imported = snapshot.Get(DomainKey(request_.guest_id));
    const bool may_have_started = !imported || *imported;
    const bool is_proved =
        !may_have_started && run.incarnation != 0 && run.incarnation < cluster::BootedIncarnationOf(claim.record);
    if (run.saved || is_proved || request_.machine == MachineIs::kConfirmedOff) return {};
    return Refusal{kNotConfirmed, "The guest's machine may still run on " + host +
                                      ", and two machines on the same disks destroy them: make sure that the host's "
                                      "machine is off, and confirm it"};
  }

  store::Store& store_;
  const RecoverRequest& request_;
};

// Guests that name the host, and whether it has them.
struct GuestsNaming {
  std::vector<std::string> held;  // according to /run
  std::vector<std::string> off;   // records that name it
};

Result<GuestsNaming> FindGuests(const store::Store& store, const std::string& host_id) {
  const auto runs = RunsOf(store, host_id);
  if (!runs) return runs.error();
  GuestsNaming found;
  for (const auto& [guest_id, run] : *runs) found.held.push_back(guest_id);
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const auto ids = (*snapshot)->Children(cluster::CategoryKey(DashCate::Guest.name()));
  if (!ids) return ids.error();
  for (const std::string& id : *ids) {
    const auto guest = LoadObject(**snapshot, Key(DashCate::Guest, id));
    if (!guest && guest.error().code() == ErrorCode::kCorrupt) continue;
    if (!guest) return guest.error();
    if (json::TextMember(guest->record, keys::host_id) == host_id) found.off.push_back(id);
  }
  std::erase_if(found.off,
                [&](const std::string& id) { return std::ranges::find(found.held, id) != found.held.end(); });
  return found;
}

std::string NamesOf(const store::Store& store, const std::vector<std::string>& guest_ids) {
  const auto snapshot = store.Read();
  std::string names;
  int shown = 0;
  for (const std::string& id : guest_ids) {
    if (++shown > kShownNames) return names + " and " + std::to_string(guest_ids.size() - kShownNames) + " more";
    const auto guest =
        snapshot ? LoadObject(**snapshot, Key(DashCate::Guest, id)) : Result<StoredObject>(StoredObject());
    const std::string name = guest ? json::TextMember(guest->record, keys::name) : std::string();
    names += (names.empty() ? "'" : ", '") + (name.empty() ? id : name) + "'";
  }
  return names;
}

class Removal {
 public:
  Removal(store::Store& store, const ForgetRequest& request) : store_(store), request_(request) {}

  Refused Perform() {
    if (Refused refused = Check()) return refused;
    const auto guests = FindGuests(store_, request_.host_id);
    if (!guests) return Finish(guests.error(), {});
    if (!guests->held.empty() && request_.guests == GuestsOfHost::kKeep) {
      return Refusal{kHostHasGuests, "The host has guests that ran on it, or their saved memory: " +
                                         NamesOf(store_, guests->held) + ". Recover them first"};
    }
    for (const std::string& guest_id : guests->held) {
      RecoverRequest recover{guest_id, "", request_.machine, SavedMemory::kDiscard, request_.user};
      if (Refused refused = RecoverGuest(store_, recover)) return refused;
    }
    Refused refused;
    const Status committed = cluster::CommitPlanned(store_, [&] {
      refused.reset();
      return Plan(refused);
    });
    return Finish(committed, std::move(refused));
  }

 private:
  Refused Check() const {
    const cluster::Environment* const environment = cluster::CurrentEnvironment();
    if (environment && environment->host_id == request_.host_id) {
      return Refusal{kHostIsAlive, "This is the host that you are asking"};
    }
    const auto snapshot = store_.Read();
    if (!snapshot) return Finish(snapshot.error(), {});
    const auto host = (*snapshot)->Get(Key(DashCate::Host, request_.host_id));
    if (!host) return Finish(host.error(), {});
    if (!*host) return Refusal{kUnreadable, "There is no host '" + request_.host_id + "'"};
    Refused refused;
    store::Transaction unused;
    if (const Status gone = CompareGone(**snapshot, request_.host_id, unused, refused); !gone) {
      return Finish(gone, std::move(refused));
    }
    if (request_.machine == MachineIs::kConfirmedOff) return {};
    return Refusal{kNotConfirmed, "The machine of the host '" + HostName(**snapshot, request_.host_id) +
                                      "' may still run guests: make sure that it is off, and confirm it"};
  }

  Result<store::Transaction> Plan(Refused& refused) const {
    const auto guests = FindGuests(store_, request_.host_id);
    if (!guests) return guests.error();
    if (!guests->held.empty()) {
      return Stop(refused, {kHostHasGuests, "The host has just got guests: " + NamesOf(store_, guests->held)});
    }
    const auto snapshot = store_.Read();
    if (!snapshot) return snapshot.error();
    store::Transaction transaction;
    if (const Status gone = CompareGone(**snapshot, request_.host_id, transaction, refused); !gone) return gone.error();
    const std::string claim_key = cluster::HostClaimKey(request_.host_id);
    Result<StoredObject> claim = LoadObject(**snapshot, claim_key);
    if (!claim) return claim.error();
    cluster::ForgetClaim(claim->record, {request_.user, std::chrono::system_clock::now()});
    cluster::PutObject(transaction, claim_key, *claim);
    for (const std::string& guest_id : guests->off) {
      const std::string key = Key(DashCate::Guest, guest_id);
      Result<StoredObject> guest = LoadObject(**snapshot, key);
      if (!guest) return guest.error();
      guest->record.removeMember(keys::host_id);
      cluster::PutObject(transaction, key, *guest);
      transaction.compares.push_back({RunKey(guest_id), 0});
    }
    const Status listed = (*snapshot)->Scan(cluster::RecordKey(DashCate::Host.name(), request_.host_id),
                                            [&](std::string_view key, const store::ValueView&) {
                                              transaction.operations.push_back({std::string(key), std::nullopt});
                                              return true;
                                            });
    if (!listed) return listed.error();
    return transaction;
  }

  store::Store& store_;
  const ForgetRequest& request_;
};

}  // namespace

Refused RecoverGuest(store::Store& store, const RecoverRequest& request) {
  cluster::RequestScope::ReleaseSnapshot();
  return Recovery(store, request).Perform();
}

Refused ForgetHost(store::Store& store, const ForgetRequest& request) {
  cluster::RequestScope::ReleaseSnapshot();
  return Removal(store, request).Perform();
}

}  // namespace vexa::guests
