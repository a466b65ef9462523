#include "host/cluster/host_claim.h"

#include <fcntl.h>
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

namespace json = VexaVirtualization::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr milliseconds kMaxRecheckPause{250};

bool IsOfMachine(const Json::Value& claim, const ClaimIdentity& identity) {
  if (json::TextMember(claim, "place") != identity.place) return false;
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
  return Error(ErrorCode::kDenied,
               "This host, '" + host_id + "', was removed from the cluster by " + json::TextMember(forgotten, "by") +
                   " at " +
                   TimeText(std::chrono::system_clock::from_time_t(json::Int64(json::Member(forgotten, "time")))) +
                   ": remove the file 'host-id' from the data folder to join as a new host, or start vexad once with "
                   "--take-host-id to come back as this one");
}

Error OtherMachineError(const std::string& host_id, const Json::Value& claim) {
  return Error(ErrorCode::kDenied,
               "The host id '" + host_id + "' belongs to the machine '" + json::TextMember(claim, "name") +
                   "', and this data folder is a copy of its: remove the file 'host-id' from the data folder to join "
                   "the cluster as a new host. If this machine has replaced that one, which is off for good, start "
                   "vexad once with --take-host-id");
}

Error LiveDaemonError(const std::string& host_id, const Json::Value& claim) {
  return Error(ErrorCode::kDenied, "Another vexad on the machine '" + json::TextMember(claim, "name") +
                                       "' has the host id '" + host_id +
                                       "' and gives signs of life: stop it first, or remove the file "
                                       "'host-id' from the data folder to join the cluster as a new host");
}

}  // namespace

Result<std::string> PlaceOf(const std::string& path) {
  struct statx found {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_INO | STATX_BTIME, &found) != 0) {
    return SystemError(ErrorCode::kInternal, "Cannot look at '" + path + "'", errno);
  }
  std::string place = std::to_string(found.stx_ino);
  if (found.stx_mask & STATX_BTIME) {
    place += "-" + std::to_string(found.stx_btime.tv_sec) + "." + std::to_string(found.stx_btime.tv_nsec);
  }
  return place;
}

std::string BootId() {
  Result<std::string> text = ReadFile("/proc/sys/kernel/random/boot_id", 4096);
  if (!text) return "";
  while (!text->empty() && text->back() == '\n') text->pop_back();
  return *text;
}

// Nothing to commit: check again after `wait`.
Result<store::Transaction> HostClaim::PlanTake(store::Revision& judged_seen, milliseconds& wait) {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const std::string key = HostClaimKey(options_.host_id);
  const std::string seen_key = MemberKey(VexaCCC::DB::DashCate::Host.name(), options_.host_id, "seen");
  Result<StoredObject> claim = LoadObject(**snapshot, key);
  if (!claim) return claim.error();
  const auto seen = LoadObject(**snapshot, seen_key);
  if (!seen && seen.error().code() != ErrorCode::kCorrupt) return seen.error();
  const store::Revision seen_revision = seen ? seen->revision : 0;
  // A claim without a token was created by another host that took guests from a host of an older version.
  const bool is_new = json::TextMember(claim->record, "token").empty() && !IsForgotten(claim->record);
  const bool is_same = is_new || IsOfMachine(claim->record, options_.identity);
  const bool is_same_boot =
      is_same && !options_.identity.boot.empty() && json::TextMember(claim->record, "boot") == options_.identity.boot;
  if (IsForgotten(claim->record) && !options_.take_over) return RemovedHostError(options_.host_id, claim->record);
  if (!is_same && !options_.take_over) return OtherMachineError(options_.host_id, claim->record);
  const bool may_be_alive = !is_new && !is_same_boot && !json::Bool(json::Member(claim->record, "released")) && seen &&
                            IsSignOfLife(seen->record, system_clock::now());
  if (may_be_alive && judged_seen == 0) {
    judged_seen = seen_revision;
    wait = options_.window;
    return store::Transaction();
  }
  if (may_be_alive && judged_seen != seen_revision) return LiveDaemonError(options_.host_id, claim->record);
  const std::uint64_t incarnation = FenceClaim(claim->record);
  if (!is_same_boot) claim->record["booted"] = static_cast<Json::UInt64>(incarnation);
  claim->record["token"] = token_;
  claim->record["place"] = options_.identity.place;
  // If the network cards cannot be read this time, the addresses read earlier are kept.
  if (!is_same || !options_.identity.addresses.empty()) {
    claim->record["addresses"] = Json::Value(Json::arrayValue);
    for (const std::string& address : options_.identity.addresses) claim->record["addresses"].append(address);
  }
  claim->record["boot"] = options_.identity.boot;
  claim->record["name"] = options_.identity.name;
  claim->record["since"] = static_cast<Json::Int64>(
      std::chrono::duration_cast<std::chrono::seconds>(system_clock::now().time_since_epoch()).count());
  claim->record.removeMember("released");
  claim->record.removeMember("forgotten");
  incarnation_ = incarnation;
  booted_ = BootedIncarnationOf(claim->record);
  store::Transaction transaction;
  PutObject(transaction, key, *claim);
  // A sign of life from now on comes from another daemon.
  if (may_be_alive) transaction.compares.push_back({seen_key, seen_revision});
  return transaction;
}

Result<std::shared_ptr<HostClaim>> HostClaim::Take(ClaimOptions options) {
  Result<std::string> token = RandomUuid();
  if (!token) return token.error();
  std::shared_ptr<HostClaim> claim(new HostClaim(std::move(options), std::move(*token)));
  store::Revision judged_seen = 0;
  for (int tries = 0; tries < kCommitTries;) {
    milliseconds wait{0};
    const auto plan = claim->PlanTake(judged_seen, wait);
    if (!plan) return plan.error();
    if (plan->operations.empty()) {
      ::syslog(LOG_INFO, "The host id %s was in use a moment ago: waiting for up to %lld s to see whether it still is.",
               claim->options_.host_id.c_str(),
               static_cast<long long>(std::chrono::ceil<std::chrono::seconds>(wait).count()));
      const auto end = steady_clock::now() + wait;
      while (steady_clock::now() < end) {
        std::this_thread::sleep_for(std::min(wait, kMaxRecheckPause));
        milliseconds again{0};
        if (const auto looked = claim->PlanTake(judged_seen, again); !looked) return looked.error();
      }
      continue;
    }
    const Result<store::Revision> committed = claim->options_.store->Commit(*plan);
    if (committed) {
      claim->revision_ = *committed;
      return claim;
    }
    if (committed.error().code() != ErrorCode::kConflict) {
      if (claim->GoOnUnwritten(committed.error())) return claim;
      return committed.error();
    }
    ++tries;
  }
  return Error(ErrorCode::kConflict, "The claim of this host's id keeps changing: is another vexad starting with it?");
}

store::Compare HostClaim::Guard() const { return {HostClaimKey(options_.host_id), revision_}; }

// No other process can have the claim of this machine: the data folder is locked.
bool HostClaim::GoOnUnwritten(const Error& error) {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return false;
  const Result<StoredObject> claim = LoadObject(**snapshot, HostClaimKey(options_.host_id));
  if (!claim || claim->revision == 0 || !IsOfMachine(claim->record, options_.identity)) return false;
  ::syslog(LOG_ERR, "The claim of this host's id cannot be written. The existing claim is used: %s",
           error.ToString().c_str());
  token_ = json::TextMember(claim->record, "token");
  incarnation_ = IncarnationOf(claim->record);
  booted_ = BootedIncarnationOf(claim->record);
  revision_ = claim->revision;
  return true;
}

Result<Standing> HostClaim::Look() const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const Result<StoredObject> claim = LoadObject(**snapshot, HostClaimKey(options_.host_id));
  if (!claim && claim.error().code() != ErrorCode::kCorrupt) return claim.error();
  if (!claim || json::TextMember(claim->record, "token") != token_ || IsForgotten(claim->record))
    return Standing::kLost;
  return claim->revision == revision_ ? Standing::kHeld : Standing::kFenced;
}

Status HostClaim::Check() const {
  const Result<Standing> standing = Look();
  if (!standing) return standing.error();
  if (*standing == Standing::kHeld) return {};
  return Error(
      ErrorCode::kDenied,
      "Other hosts considered this host gone meanwhile, and it has not yet settled which guests were taken from it");
}

Status HostClaim::Renew() {
  const std::string key = HostClaimKey(options_.host_id);
  for (int tries = 0; tries < kCommitTries; ++tries) {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    Result<StoredObject> claim = LoadObject(**snapshot, key);
    if (!claim) return claim.error();
    if (IsForgotten(claim->record)) return RemovedHostError(options_.host_id, claim->record);
    if (json::TextMember(claim->record, "token") != token_) return OtherMachineError(options_.host_id, claim->record);
    // Guests that were taken while the others were being settled come first.
    const auto left = (*snapshot)->Children(store::MakeKey({"fence", options_.host_id}));
    if (!left) return left.error();
    if (!left->empty()) return Error(ErrorCode::kBusy, "More guests were taken from this host meanwhile");
    const std::uint64_t incarnation = FenceClaim(claim->record);
    store::Transaction transaction;
    PutObject(transaction, key, *claim);
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
  const auto snapshot = options_.store->Read();
  if (!snapshot) return snapshot.error();
  const std::string key = HostClaimKey(options_.host_id);
  Result<StoredObject> claim = LoadObject(**snapshot, key);
  if (!claim) return claim.error();
  if (json::TextMember(claim->record, "token") != token_) return {};
  const bool is_held = claim->revision == revision_;
  claim->record["released"] = true;
  store::Transaction transaction;
  PutObject(transaction, key, *claim);
  const Result<store::Revision> committed = options_.store->Commit(transaction);
  if (!committed) return committed.error();
  if (is_held) revision_ = *committed;
  return {};
}

}  // namespace vexa::cluster
