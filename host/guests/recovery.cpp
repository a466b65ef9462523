#include "host/guests/recovery.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/guests/abandoned_jobs.h"
#include "host/guests/guest_activities.h"
#include "host/records/domain_record.h"
#include "host/records/environment.h"
#include "host/records/host_claim_record.h"
#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/live_state.h"
#include "host/records/object_edit.h"
#include "host/records/reader.h"
#include "host/records/run_record.h"
#include "host/records/shutdown_reason.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

using records::LoadObject;
using records::StoredObject;
using VexaCCC::DB::DashCate;

constexpr int kMaxListedNames = 10;  // in a sentence
constexpr std::size_t kMaxNoteBytes = 1024;

std::string Key(const DashCate& category, const std::string& id, std::string_view key = keys::object) {
  return records::MemberKey(category.name(), id, key);
}

Refusal NoSuchHost(const std::string& host_id) {
  return {host_error::kNotFoundOrUnreadable, fmt::format("There is no host '{}'", host_id)};
}

// The error with which a plan ends when it is refused. Sets `refused`, which the caller gets instead of the error.
Error AbortPlan(std::optional<Refusal>& refused, Refusal refusal) {
  refused = std::move(refusal);
  return Error(ErrorCode::kDenied, "refused");
}

Result<void, Refusal> ResultOf(const Status& committed, std::optional<Refusal> refused) {
  if (committed) return {};
  if (refused) return *std::move(refused);
  const bool is_unreadable =
      committed.error().code() == ErrorCode::kNotFound || committed.error().code() == ErrorCode::kCorrupt;
  return Refusal{is_unreadable ? host_error::kNotFoundOrUnreadable : host_error::kFailed, committed.error().ToString()};
}

// Commits what `plan`, a Result<store::Transaction>(const records::Reader&, std::optional<Refusal>&), returns, and
// calls it again after a conflict.
template <class Plan>
Result<void, Refusal> CommitPlan(store::Store& store, const Plan& plan) {
  std::optional<Refusal> refused;
  const Status committed = records::CommitWithRetry(store, [&](const records::Reader& reader) {
    refused.reset();
    return plan(reader, refused);
  });
  return ResultOf(committed, std::move(refused));
}

std::string HostName(const store::Snapshot& snapshot, const std::string& host_id) {
  const auto host = LoadObject(snapshot, Key(DashCate::Host, host_id));
  const std::string name = host ? json::StringMember(host->record, keys::name) : std::string();
  return name.empty() ? host_id : name;
}

// Makes the commit depend on the host being gone: a new heartbeat makes it a conflict. Refuses a host that is alive.
Status CompareGone(const records::Reader& reader, const std::string& host_id, store::Transaction& transaction,
                   std::optional<Refusal>& refused) {
  const std::string heartbeat_key = Key(DashCate::Host, host_id, "seen");
  const auto stored = reader.Get(heartbeat_key);
  if (!stored) return stored.error();
  const auto liveness = records::LivenessOf(reader, host_id);
  if (!liveness) return liveness.error();
  const auto host = reader.Get(Key(DashCate::Host, host_id));
  if (!host) return host.error();
  // A host without a record and a heartbeat, for instance one known only from imported records, never existed.
  const records::Environment* const environment = records::CurrentEnvironment();
  const bool is_here = environment && environment->host_id == host_id;
  const bool is_known = *stored || *host || is_here;
  if (!liveness->is_gone && is_known) {
    return AbortPlan(refused,
                     {kHostIsAlive, fmt::format("The host '{}' is alive. Use it to shut down or power off the guest",
                                                HostName(reader, host_id))});
  }
  transaction.compares.push_back({heartbeat_key, *stored ? (*stored)->revision : 0});
  return {};
}

// Renumbers the host's claim, and sets `incarnation` to the new number. Returns the claim as it was.
Result<StoredObject> FenceHost(const store::Snapshot& snapshot, const std::string& host_id,
                               store::Transaction& transaction, std::uint64_t& incarnation) {
  const std::string key = records::HostClaimKey(host_id);
  Result<StoredObject> claim = LoadObject(snapshot, key);
  if (!claim) return claim.error();
  StoredObject fenced = *claim;
  incarnation = records::AdvanceIncarnation(fenced.record);
  records::PutObject(transaction, key, fenced);
  return claim;
}

// Records that the guest is off, by force, because its host was offline.
Status PutShutDown(const store::Snapshot& snapshot, const std::string& guest_id, store::Transaction& transaction) {
  transaction.operations.push_back({records::LiveStateKey(guest_id), json::ToText(VexaCCC::State::Guest::shutdown)});
  const std::string key = records::LiveRecordKey(guest_id);
  Result<StoredObject> live = LoadObject(snapshot, key);
  if (!live && live.error().code() != ErrorCode::kCorrupt) return live.error();
  // A damaged record stays, and the guest is off for an unknown reason.
  if (!live) return {};
  // The host continues with its own sequence when it comes back.
  live->record.removeMember(keys::host_id);
  live->record["shutdown"] = records::ShutdownToJson({records::ShutdownCause::kHostOffline, true});
  records::PutObject(transaction, key, *live);
  return {};
}

Status CheckDestination(const records::Reader& reader, const std::string& host_id, std::optional<Refusal>& refused) {
  if (host_id.empty()) return {};
  const auto host = LoadObject(reader, Key(DashCate::Host, host_id));
  if (!host) return host.error();
  if (host->revision == 0) return AbortPlan(refused, NoSuchHost(host_id));
  const auto liveness = records::LivenessOf(reader, host_id);
  if (!liveness) return liveness.error();
  if (!liveness->is_gone) return {};
  return AbortPlan(refused,
                   {kHostIsAlive, fmt::format("The host '{}', the new host of the guest, is itself inaccessible",
                                              HostName(reader, host_id))});
}

class Recovery {
 public:
  Recovery(store::Store& store, const RecoverRequest& request) : store_(store), request_(request) {}

  Result<void, Refusal> Perform() {
    return CommitPlan(store_, [this](const records::Reader& reader, std::optional<Refusal>& refused) {
      return Plan(reader, refused);
    });
  }

 private:
  Result<store::Transaction> Plan(const records::Reader& reader, std::optional<Refusal>& refused) const {
    store::Transaction transaction;
    const std::string guest_key = Key(DashCate::Guest, request_.guest_id);
    Result<StoredObject> guest = LoadObject(reader, guest_key);
    if (!guest) return guest.error();
    if (guest->revision == 0)
      return AbortPlan(refused,
                       {host_error::kNotFoundOrUnreadable, fmt::format("There is no guest '{}'", request_.guest_id)});
    const auto stored = reader.Get(records::RunKey(request_.guest_id));
    if (!stored) return stored.error();
    const records::Run run = *stored ? records::ParseRun((*stored)->text) : records::Run();
    const std::string host_id = *stored ? run.host_id : json::StringMember(guest->record, keys::host_id);
    if (host_id.empty()) {
      return AbortPlan(refused, {host_error::kNotRunning, "The guest has no host from which it could be taken"});
    }
    if (const Status compared = CompareGone(reader, host_id, transaction, refused); !compared) return compared.error();
    if (const Status checked = CheckDestination(reader, request_.to_host_id, refused); !checked) return checked.error();
    transaction.compares.push_back({records::RunKey(request_.guest_id), *stored ? (*stored)->revision : 0});
    std::uint64_t incarnation = 0;
    const Result<StoredObject> claim = FenceHost(reader, host_id, transaction, incarnation);
    if (!claim) return claim.error();
    if (*stored) {
      if (const auto allowed = CheckNothingLost(reader, run, *claim); !allowed.ok())
        return AbortPlan(refused, allowed.error());
      transaction.operations.push_back({records::RunKey(request_.guest_id), std::nullopt});
      if (const Status put = PutShutDown(reader, request_.guest_id, transaction); !put) return put.error();
    }
    // Fences a guest that was off as well: the host may have started it after it was cut off.
    const records::ChangeAuthor author{request_.user, std::chrono::system_clock::now()};
    const std::string fence_key = records::FenceKey(host_id, request_.guest_id);
    if (!store::IsValidKey(fence_key)) return Error(ErrorCode::kInvalid, "The host's id is too long");
    transaction.operations.push_back({fence_key, records::SerializeFence(incarnation, author)});
    transaction.operations.push_back({records::UndefineKey(host_id, request_.guest_id), "true"});
    if (request_.to_host_id.empty()) {
      guest->record.removeMember(keys::host_id);
    } else {
      guest->record[keys::host_id] = request_.to_host_id;
    }
    records::PutObject(transaction, guest_key, *guest);
    return transaction;
  }

  // Refuses when saved memory would be lost, or when the guest could run twice.
  Result<void, Refusal> CheckNothingLost(const store::Snapshot& snapshot, const records::Run& run,
                                         const StoredObject& claim) const {
    const std::string host = HostName(snapshot, run.host_id);
    // A host that ended while it restored the guest may not have used up the saved memory.
    const bool may_be_saved = run.saved || (run.starting && run.restoring);
    if (may_be_saved && request_.saved == SavedMemory::kKeep) {
      return Refusal{
          kSavedMemoryLost,
          fmt::format(
              "The guest's saved memory is on the host '{}' and would be lost. Confirm that it may be discarded",
              host)};
    }
    // libvirt starts an imported guest at boot of its host if its owner configured that and the host has not cleared it
    // yet. Saved memory can be restored by the machine itself, for instance by a service of libvirt when it boots.
    const auto imported = snapshot.Get(records::DomainKey(request_.guest_id));
    const bool may_have_started = !imported || *imported;
    const bool has_ended =
        !may_be_saved && run.incarnation != 0 && run.incarnation < records::FirstIncarnationSinceBoot(claim.record);
    if ((has_ended && !may_have_started) || request_.machine == MachineState::kConfirmedOff) return {};
    return Refusal{
        kNotConfirmed,
        fmt::format("The guest may still be running on the host '{}', and a guest that runs twice destroys its "
                    "disks. Make sure that the host's machine is off, and confirm it",
                    host)};
  }

  store::Store& store_;
  const RecoverRequest& request_;
};

// The ids of a host's guests.
struct HostGuests {
  std::vector<std::string> held;  // it holds them according to /run
  std::vector<std::string> off;   // only their records name it
};

Result<HostGuests> FindGuests(const store::Snapshot& snapshot, const std::string& host_id) {
  const auto runs = records::RunsOf(snapshot, host_id);
  if (!runs) return runs.error();
  HostGuests found;
  for (const auto& [guest_id, run] : *runs) found.held.push_back(guest_id);
  const auto ids = snapshot.Children(records::CategoryKey(DashCate::Guest.name()));
  if (!ids) return ids.error();
  for (const std::string& id : *ids) {
    const auto guest = LoadObject(snapshot, Key(DashCate::Guest, id));
    if (!guest && guest.error().code() == ErrorCode::kCorrupt) continue;
    if (!guest) return guest.error();
    if (json::StringMember(guest->record, keys::host_id) == host_id) found.off.push_back(id);
  }
  std::erase_if(found.off,
                [&](const std::string& id) { return std::ranges::find(found.held, id) != found.held.end(); });
  return found;
}

// The quoted names of at most kMaxListedNames guests, and how many more there are.
std::string NamesOf(const store::Snapshot& snapshot, const std::vector<std::string>& guest_ids) {
  std::string names;
  int listed = 0;
  for (const std::string& id : guest_ids) {
    if (++listed > kMaxListedNames) return fmt::format("{} and {} more", names, guest_ids.size() - kMaxListedNames);
    const auto guest = LoadObject(snapshot, Key(DashCate::Guest, id));
    const std::string name = guest ? json::StringMember(guest->record, keys::name) : std::string();
    names += fmt::format("{}'{}'", names.empty() ? "" : ", ", name.empty() ? id : name);
  }
  return names;
}

class ForgetOperation {
 public:
  ForgetOperation(store::Store& store, const ForgetRequest& request) : store_(store), request_(request) {}

  Result<void, Refusal> Perform() {
    if (const auto allowed = Check(); !allowed.ok()) return allowed;
    std::vector<std::string> held;
    {
      const auto reader = records::Reader::Open(store_);
      if (!reader) return ResultOf(reader.error(), {});
      auto guests = FindGuests(*reader, request_.host_id);
      if (!guests) return ResultOf(guests.error(), {});
      held = std::move(guests->held);
      if (!held.empty() && request_.guests == GuestsOfHost::kKeep) {
        return Refusal{kHostHasGuests,
                       fmt::format("The host has guests that ran on it, or their saved memory: {}. Recover them first",
                                   NamesOf(*reader, held))};
      }
    }
    for (const std::string& guest_id : held) {
      RecoverRequest recover{guest_id, "", request_.machine, SavedMemory::kDiscard, request_.user};
      if (const auto allowed = RecoverGuest(store_, recover); !allowed.ok()) return allowed;
    }
    std::vector<std::string> notes;
    auto done = CommitPlan(store_, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
      return Plan(reader, refused, notes);
    });
    if (!done.ok()) return done;
    for (const std::string& note : notes) ::syslog(LOG_WARNING, "%s", SanitizeForLog(note, kMaxNoteBytes).c_str());
    return done;
  }

 private:
  Result<void, Refusal> Check() const {
    const records::Environment* const environment = records::CurrentEnvironment();
    if (environment && environment->host_id == request_.host_id) {
      return Refusal{kHostIsAlive, "This is the host that received the request"};
    }
    const auto reader = records::Reader::Open(store_);
    if (!reader) return ResultOf(reader.error(), {});
    const auto host = reader->Get(Key(DashCate::Host, request_.host_id));
    if (!host) return ResultOf(host.error(), {});
    if (!*host) return NoSuchHost(request_.host_id);
    std::optional<Refusal> refused;
    store::Transaction unused;
    if (const Status compared = CompareGone(*reader, request_.host_id, unused, refused); !compared) {
      return ResultOf(compared, std::move(refused));
    }
    if (request_.machine == MachineState::kConfirmedOff) return {};
    return Refusal{
        kNotConfirmed,
        fmt::format("Guests may still be running on the host '{}'. Make sure that its machine is off, and confirm it",
                    HostName(*reader, request_.host_id))};
  }

  Result<store::Transaction> Plan(const records::Reader& reader, std::optional<Refusal>& refused,
                                  std::vector<std::string>& notes) const {
    const auto guests = FindGuests(reader, request_.host_id);
    if (!guests) return guests.error();
    if (!guests->held.empty()) {
      return AbortPlan(refused,
                       {kHostHasGuests, fmt::format("The host has guests again: {}", NamesOf(reader, guests->held))});
    }
    store::Transaction transaction;
    if (const Status compared = CompareGone(reader, request_.host_id, transaction, refused); !compared)
      return compared.error();
    const std::string claim_key = records::HostClaimKey(request_.host_id);
    Result<StoredObject> claim = LoadObject(reader, claim_key);
    if (!claim) return claim.error();
    records::ForgetClaim(claim->record, {request_.user, std::chrono::system_clock::now()});
    records::PutObject(transaction, claim_key, *claim);
    auto abandoned = AddAbandonedJobs(reader, request_.host_id, std::chrono::system_clock::now(), transaction);
    if (!abandoned) return abandoned.error();
    notes = std::move(abandoned->notes);
    for (const std::string& guest_id : guests->off) {
      if (abandoned->removed_guests.contains(guest_id)) continue;
      const std::string key = Key(DashCate::Guest, guest_id);
      Result<StoredObject> guest = LoadObject(reader, key);
      if (!guest) return guest.error();
      guest->record.removeMember(keys::host_id);
      records::PutObject(transaction, key, *guest);
      transaction.compares.push_back({records::RunKey(guest_id), 0});
    }
    const Status listed = reader.Scan(records::RecordKey(DashCate::Host.name(), request_.host_id),
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

Result<void, Refusal> RecoverGuest(store::Store& store, const RecoverRequest& request) {
  return Recovery(store, request).Perform();
}

Result<void, Refusal> ForgetHost(store::Store& store, const ForgetRequest& request) {
  return ForgetOperation(store, request).Perform();
}

}  // namespace vexa::guests
