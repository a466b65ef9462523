#include "host/cluster/host_claim.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <thread>
#include <utility>

#include "host/base/files.h"
#include "host/base/time_text.h"
#include "host/base/uuid.h"
#include "host/records/host_claim_record.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr milliseconds kMaxRecheckInterval{250};

bool IsSameMachine(const Json::Value& claim, const ClaimIdentity& identity) {
  if (json::StringMember(claim, "place") != identity.data_folder_id) return false;
  const Json::Value& addresses = json::Member(claim, "addresses");
  const auto& known = json::Elements(addresses);
  if (identity.addresses.empty() || known.empty()) return true;
  return std::any_of(known.begin(), known.end(), [&](const Json::Value& address) {
    return address.isString() &&
           std::ranges::find(identity.addresses, json::String(address)) != identity.addresses.end();
  });
}

Error RemovedHostError(const std::string& host_id, const Json::Value& claim) {
  const Json::Value& forgotten = json::Member(claim, "forgotten");
  return Error(
      ErrorCode::kDenied,
      fmt::format("This host, '{}', was removed from the cluster by {} at {}. Remove the file 'host-id' from the data "
                  "folder to join as a new host, or start vexad once with --take-host-id to come back as this one",
                  host_id, json::StringMember(forgotten, "by"),
                  FormatUtcTime(std::chrono::system_clock::from_time_t(json::Int64(json::Member(forgotten, "time"))))));
}

Error OtherMachineError(const std::string& host_id, const Json::Value& claim) {
  return Error(
      ErrorCode::kDenied,
      fmt::format("The host id '{}' belongs to the machine '{}', and this data folder is a copy of that machine's. "
                  "Remove the file 'host-id' from the data folder to join the cluster as a new host. If this machine "
                  "has replaced that one, which is off for good, start vexad once with --take-host-id",
                  host_id, json::StringMember(claim, "name")));
}

Error LiveDaemonError(const std::string& host_id, const Json::Value& claim) {
  return Error(
      ErrorCode::kDenied,
      fmt::format("Another vexad on the machine '{}' holds the host id '{}' and still sends heartbeats. Stop it "
                  "first, or remove the file 'host-id' from the data folder to join the cluster as a new host",
                  json::StringMember(claim, "name"), host_id));
}

}  // namespace

Result<std::string> FileInstanceId(const std::string& path) {
  struct statx found {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &found) != 0) {
    return SystemError(ErrorCode::kInternal, fmt::format("Cannot examine '{}'", path), errno);
  }
  std::string id = std::to_string(found.stx_ino);
  if (found.stx_mask & STATX_BTIME) {
    id += "-" + std::to_string(found.stx_btime.tv_sec) + "." + std::to_string(found.stx_btime.tv_nsec);
  }
  return id;
}

std::string BootId() {
  Result<std::string> text = ReadFile("/proc/sys/kernel/random/boot_id", 4096);
  if (!text) return "";
  while (!text->empty() && text->back() == '\n') text->pop_back();
  return *text;
}

// The transaction that claims the id. Empty: another daemon may be alive. Plan again after `wait`; if the heartbeat has
// not changed by then, that daemon has stopped. `heartbeat_revision_before` is 0 at first; it receives the revision of
// that heartbeat.
Result<store::Transaction> HostClaim::PlanClaim(store::Revision& heartbeat_revision_before, milliseconds& wait) {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const std::string key = records::HostClaimKey(options_.host_id);
  const std::string heartbeat_key = records::MemberKey(VexaCCC::DB::DashCate::Host.name(), options_.host_id, "seen");
  Result<records::StoredObject> claim = records::LoadObject(**snapshot, key);
  if (!claim) return claim.error();
  const auto heartbeat = records::LoadObject(**snapshot, heartbeat_key);
  if (!heartbeat && heartbeat.error().code() != ErrorCode::kCorrupt) return heartbeat.error();
  const store::Revision heartbeat_revision = heartbeat ? heartbeat->revision : 0;
  // A claim without a token was created by another host that took guests from a host of an older version.
  const bool is_new = json::StringMember(claim->record, "token").empty() && !records::IsForgotten(claim->record);
  const bool is_same = is_new || IsSameMachine(claim->record, options_.identity);
  const bool is_same_boot =
      is_same && !options_.identity.boot.empty() && json::StringMember(claim->record, "boot") == options_.identity.boot;
  if (records::IsForgotten(claim->record) && !options_.take_over)
    return RemovedHostError(options_.host_id, claim->record);
  if (!is_same && !options_.take_over) return OtherMachineError(options_.host_id, claim->record);
  const bool may_be_alive = !is_new && !is_same_boot && !json::Bool(json::Member(claim->record, "released")) &&
                            heartbeat && records::IsRecentHeartbeat(heartbeat->record, system_clock::now());
  if (may_be_alive && heartbeat_revision_before == 0) {
    heartbeat_revision_before = heartbeat_revision;
    wait = options_.window;
    return store::Transaction();
  }
  if (may_be_alive && heartbeat_revision_before != heartbeat_revision)
    return LiveDaemonError(options_.host_id, claim->record);
  const std::uint64_t incarnation = records::AdvanceIncarnation(claim->record);
  if (!is_same_boot) claim->record["booted"] = static_cast<Json::UInt64>(incarnation);
  claim->record["token"] = token_;
  claim->record["place"] = options_.identity.data_folder_id;
  // If the network cards cannot be read this time, the addresses read earlier are kept.
  if (!is_same || !options_.identity.addresses.empty()) {
    claim->record["addresses"] = Json::Value(Json::arrayValue);
    for (const std::string& address : options_.identity.addresses) claim->record["addresses"].append(address);
  }
  claim->record["boot"] = options_.identity.boot;
  claim->record["name"] = options_.identity.name;
  claim->record["since"] = ToUnixSeconds(system_clock::now());
  claim->record.removeMember("released");
  claim->record.removeMember("forgotten");
  incarnation_ = incarnation;
  booted_ = records::FirstIncarnationSinceBoot(claim->record);
  store::Transaction transaction;
  records::PutObject(transaction, key, *claim);
  // A heartbeat that is written after the snapshot comes from another daemon.
  if (may_be_alive) transaction.compares.push_back({heartbeat_key, heartbeat_revision});
  return transaction;
}

Result<std::shared_ptr<HostClaim>> HostClaim::Take(ClaimOptions options) {
  Result<std::string> token = RandomUuid();
  if (!token) return token.error();
  std::shared_ptr<HostClaim> claim(new HostClaim(std::move(options), std::move(*token)));
  store::Revision heartbeat_revision_before = 0;
  for (int attempts = 0; attempts < records::kMaxCommitAttempts;) {
    milliseconds wait{0};
    const auto plan = claim->PlanClaim(heartbeat_revision_before, wait);
    if (!plan) return plan.error();
    if (plan->operations.empty()) {
      ::syslog(LOG_INFO, "The host id %s was in use recently. Waiting up to %lld s for another heartbeat.",
               claim->options_.host_id.c_str(),
               static_cast<long long>(std::chrono::ceil<std::chrono::seconds>(wait).count()));
      const auto end = steady_clock::now() + wait;
      while (steady_clock::now() < end) {
        std::this_thread::sleep_for(std::min(wait, kMaxRecheckInterval));
        milliseconds unused_wait{0};
        if (const auto planned = claim->PlanClaim(heartbeat_revision_before, unused_wait); !planned)
          return planned.error();
      }
      continue;
    }
    const Result<store::Revision> committed = claim->options_.store->Commit(*plan);
    if (committed) {
      claim->revision_ = *committed;
      return claim;
    }
    if (committed.error().code() != ErrorCode::kConflict) {
      if (claim->AdoptStoredClaim(committed.error())) return claim;
      return committed.error();
    }
    ++attempts;
  }
  return Error(ErrorCode::kConflict, "The claim of this host's id keeps changing: is another vexad starting with it?");
}

store::Compare HostClaim::Guard() const { return {records::HostClaimKey(options_.host_id), revision_}; }

// Called when the claim cannot be written. If the stored claim is this machine's, continues under it and returns true.
// No other process can use it: the data folder of this machine is locked.
bool HostClaim::AdoptStoredClaim(const Error& error) {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return false;
  const Result<records::StoredObject> claim = records::LoadObject(**snapshot, records::HostClaimKey(options_.host_id));
  if (!claim || claim->revision == 0 || !IsSameMachine(claim->record, options_.identity)) return false;
  ::syslog(LOG_ERR, "The claim of this host's id cannot be written. The existing claim is used: %s",
           error.ToString().c_str());
  token_ = json::StringMember(claim->record, "token");
  incarnation_ = records::IncarnationOf(claim->record);
  booted_ = records::FirstIncarnationSinceBoot(claim->record);
  revision_ = claim->revision;
  return true;
}

Result<ClaimState> HostClaim::ReadClaimState() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  return ReadClaimState(**snapshot);
}

Result<ClaimState> HostClaim::ReadClaimState(const store::Snapshot& snapshot) const {
  const Result<records::StoredObject> claim = records::LoadObject(snapshot, records::HostClaimKey(options_.host_id));
  if (!claim && claim.error().code() != ErrorCode::kCorrupt) return claim.error();
  if (!claim || json::StringMember(claim->record, "token") != token_ || records::IsForgotten(claim->record))
    return ClaimState::kLost;
  return claim->revision == revision_ ? ClaimState::kHeld : ClaimState::kFenced;
}

Status HostClaim::Check() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  return Check(**snapshot);
}

Status HostClaim::Check(const store::Snapshot& snapshot) const {
  const Result<ClaimState> claim_state = ReadClaimState(snapshot);
  if (!claim_state) return claim_state.error();
  if (*claim_state == ClaimState::kHeld) return {};
  return Error(
      ErrorCode::kDenied,
      "Other hosts considered this host gone meanwhile, and it has not yet stopped the guests that were taken from it");
}

Status HostClaim::Renew() {
  const std::string key = records::HostClaimKey(options_.host_id);
  for (int attempt = 0; attempt < records::kMaxCommitAttempts; ++attempt) {
    auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    Result<records::StoredObject> claim = records::LoadObject(**snapshot, key);
    if (!claim) return claim.error();
    if (records::IsForgotten(claim->record)) return RemovedHostError(options_.host_id, claim->record);
    if (json::StringMember(claim->record, "token") != token_) return OtherMachineError(options_.host_id, claim->record);
    // Guests that were taken while this host stopped the others must be stopped first.
    const auto left = (*snapshot)->Children(records::FencesPrefix(options_.host_id));
    if (!left) return left.error();
    if (!left->empty()) return Error(ErrorCode::kBusy, "More guests were taken from this host meanwhile");
    const std::uint64_t incarnation = records::AdvanceIncarnation(claim->record);
    store::Transaction transaction;
    records::PutObject(transaction, key, *claim);
    snapshot->reset();  // the commit may have to reopen the store
    const Result<store::Revision> committed = options_.store->Commit(transaction);
    if (committed) {
      incarnation_ = incarnation;
      revision_ = *committed;
      return {};
    }
    if (committed.error().code() != ErrorCode::kConflict) return committed.error();
  }
  return Error(ErrorCode::kConflict, "The claim of this host's id keeps changing");
}

Status HostClaim::Release() {
  auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const std::string key = records::HostClaimKey(options_.host_id);
  Result<records::StoredObject> claim = records::LoadObject(**snapshot, key);
  if (!claim) return claim.error();
  if (json::StringMember(claim->record, "token") != token_) return {};
  const bool is_held = claim->revision == revision_;
  claim->record["released"] = true;
  store::Transaction transaction;
  records::PutObject(transaction, key, *claim);
  snapshot->reset();  // as in Renew
  const Result<store::Revision> committed = options_.store->Commit(transaction);
  if (!committed) return committed.error();
  if (is_held) revision_ = *committed;
  return {};
}

}  // namespace vexa::cluster
