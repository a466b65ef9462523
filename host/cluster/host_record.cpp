#include "host/cluster/host_record.h"

#include <syslog.h>

#include <utility>

#include "host/base/time_text.h"
#include "host/cluster/host_name.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

using std::chrono::system_clock;

std::string KeyOf(const std::string& host_id, std::string_view key) {
  return records::MemberKey(VexaCCC::DB::DashCate::Host.name(), host_id, key);
}

std::string NicKey(const std::string& host_id, const std::string& nic_id) {
  return KeyOf(host_id, keys::nics) + "/" + store::EncodeSegment(nic_id);
}

bool IsInaccessible(const Json::Value& record) {
  return json::String(json::Member(record, keys::state)) == VexaCCC::State::Host::inaccessible;
}

void FillHostRecord(Json::Value& record, const HostFacts& facts, const std::string& given_name,
                    system_clock::time_point started) {
  record[keys::name] = given_name.empty() ? facts.name : given_name;
  record["addresses"] = Json::Value(Json::arrayValue);
  for (const std::string& address : facts.addresses) record["addresses"].append(address);
  // Without this, an address from an earlier start would lead other hosts to a port that is closed or belongs to
  // another program.
  if (facts.cluster_address.empty()) {
    record.removeMember("cluster_address");
  } else {
    record["cluster_address"] = facts.cluster_address;
  }
  record[keys::cpu_cores] = facts.cpu_cores;
  record[keys::cpu_clock_speed] = facts.cpu_clock_mhz;
  record["ram_size"] = static_cast<Json::UInt64>(facts.ram_kib);
  record["started"] = ToUnixSeconds(started);
  record["version"] = facts.version;
  if (facts.package_version.empty()) {
    record.removeMember("package_version");
  } else {
    record["package_version"] = facts.package_version;
  }
  if (facts.is_simulated) {
    record["simulated"] = true;
  } else {
    record.removeMember("simulated");
  }
  record.removeMember("certificate");
  if (facts.certificate_expires != 0) {
    record["certificate"]["issued"] = static_cast<Json::Int64>(facts.certificate_issued);
    record["certificate"]["expires"] = static_cast<Json::Int64>(facts.certificate_expires);
  }
}

void PutHeartbeat(store::Transaction& transaction, const std::string& host_id, system_clock::time_point now) {
  Json::Value heartbeat(Json::objectValue);
  heartbeat["time"] = ToUnixSeconds(now);
  transaction.operations.push_back({KeyOf(host_id, "seen"), json::ToText(heartbeat)});
}

enum class RegistrationKind { kAtStart, kUpdate };

// Makes the commit depend on the claim. kDenied: the claim is no longer held, and retrying is pointless.
Status AddClaimGuard(const records::Reader& reader, const HostClaim* claim, store::Transaction& transaction) {
  if (!claim) return {};
  if (Status held = claim->Check(reader); !held) return held;
  transaction.compares.push_back(claim->Guard());
  return {};
}

Result<store::Transaction> PlanRegistration(const records::Reader& reader, const HostFacts& facts,
                                            const HostTimes& times, RegistrationKind kind, const HostClaim* claim) {
  store::Transaction transaction;
  if (const Status guarded = AddClaimGuard(reader, claim, transaction); !guarded) return guarded.error();
  const std::string object = KeyOf(facts.host_id, keys::object);
  Result<records::StoredObject> host = records::LoadObject(reader, object);
  if (!host) return host.error();
  const Result<std::string> given_name = ReadHostName(reader, facts.host_id);
  if (!given_name) return given_name.error();
  FillHostRecord(host->record, facts, *given_name, times.started);
  if (!facts.state.empty()) {
    host->record[keys::state] = facts.state;
  } else if (kind == RegistrationKind::kAtStart || json::Member(host->record, keys::state).isNull() ||
             IsInaccessible(host->record)) {
    host->record[keys::state] = VexaCCC::State::Host::running;
  }
  records::PutObject(transaction, object, *host);
  for (const HostNic& nic : facts.nics) {
    const std::string key = NicKey(facts.host_id, nic.id);
    Result<records::StoredObject> stored = records::LoadObject(reader, key);
    if (!stored) return stored.error();
    const Json::Value before = stored->record;
    stored->record[keys::name] = nic.name;
    stored->record[keys::mac_address] = nic.mac_address;
    if (stored->revision == 0 || stored->record != before) records::PutObject(transaction, key, *stored);
  }
  PutHeartbeat(transaction, facts.host_id, times.now);
  return transaction;
}

// Values that could not be read this time, for instance for lack of file descriptors or memory, stay as they were.
void KeepPreviousWhereUnreadable(const HostFacts& before, HostFacts& facts) {
  if (facts.name.empty()) facts.name = before.name;
  if (facts.cpu_cores == 0) facts.cpu_cores = before.cpu_cores;
  if (facts.cpu_clock_mhz == 0) facts.cpu_clock_mhz = before.cpu_clock_mhz;
  if (facts.ram_kib == 0) facts.ram_kib = before.ram_kib;
  // Every machine has interfaces, but one may have no addresses.
  if (facts.nics.empty()) {
    facts.nics = before.nics;
    facts.addresses = before.addresses;
  }
}

bool HasChanged(HostFacts before, const HostFacts& facts) {
  if (before.cpu_clock_mhz != 0) before.cpu_clock_mhz = facts.cpu_clock_mhz;
  return before != facts;
}

}  // namespace

Status RegisterHost(store::Store& store, const HostFacts& facts, system_clock::time_point now, const HostClaim* claim) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) {
    return PlanRegistration(reader, facts, {now, now}, RegistrationKind::kAtStart, claim);
  });
}

Status UpdateHost(store::Store& store, const HostFacts& facts, const HostTimes& times, const HostClaim* claim) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) {
    return PlanRegistration(reader, facts, times, RegistrationKind::kUpdate, claim);
  });
}

Status WriteHeartbeat(store::Store& store, const std::string& host_id, system_clock::time_point now,
                      const std::string& state, const HostClaim* claim) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    store::Transaction transaction;
    if (const Status guarded = AddClaimGuard(reader, claim, transaction); !guarded) return guarded.error();
    Result<records::StoredObject> host = records::LoadObject(reader, KeyOf(host_id, keys::object));
    if (!host) return host.error();
    if (host->revision == 0) return Error(ErrorCode::kNotFound, "This host has no record in the cluster database");
    if (IsInaccessible(host->record)) {
      host->record[keys::state] = state.empty() ? VexaCCC::State::Host::running : state;
      records::PutObject(transaction, KeyOf(host_id, keys::object), *host);
    }
    PutHeartbeat(transaction, host_id, now);
    return transaction;
  });
}

Status SignOffHost(store::Store& store, const std::string& host_id, const HostClaim* claim) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    store::Transaction transaction;
    if (const Status guarded = AddClaimGuard(reader, claim, transaction); !guarded) return guarded.error();
    Result<records::StoredObject> host = records::LoadObject(reader, KeyOf(host_id, keys::object));
    if (!host) return host.error();
    if (host->revision == 0 || IsInaccessible(host->record)) return transaction;
    host->record[keys::state] = VexaCCC::State::Host::inaccessible;
    records::PutObject(transaction, KeyOf(host_id, keys::object), *host);
    return transaction;
  });
}

HostHeartbeat::HostHeartbeat(std::shared_ptr<store::Store> store, GatherFacts gather, HeartbeatOptions options)
    : store_(std::move(store)), gather_(std::move(gather)), options_(std::move(options)) {
  PublishOnce();
  thread_ = std::thread([this] { Run(); });
}

HostHeartbeat::~HostHeartbeat() {
  {
    const MutexLock lock(mutex_);
    stop_ = true;
  }
  wake_.NotifyAll();
  thread_.join();
  if (!registered_ || is_lost_) return;
  if (const Status left = SignOffHost(*store_, facts_.host_id, options_.claim.get()); !left) {
    ::syslog(LOG_ERR, "This host's state cannot be written: %s", left.error().ToString().c_str());
  }
}

void HostHeartbeat::LogWriteFailure(const Error& error) {
  if (!failing_) ::syslog(LOG_ERR, "This host's record cannot be written: %s", error.ToString().c_str());
  failing_ = true;
}

bool HostHeartbeat::EnsureMayWrite() {
  if (is_lost_) return false;
  if (!options_.claim) return true;
  const Result<ClaimState> claim_state = options_.claim->ReadClaimState();
  if (!claim_state) {
    LogWriteFailure(claim_state.error());
    return false;
  }
  // While the database is lost, reads come from a copy, and nothing can be written.
  if (store_->health() == store::Health::kInaccessible) {
    records::RecordDatabaseLoss();
    return *claim_state == ClaimState::kHeld;
  }
  // After a start as well: guests that were taken from the host earlier are stopped before the host counts as alive.
  if (*claim_state == ClaimState::kHeld) return !options_.stop_fenced_guests || options_.stop_fenced_guests();
  Status renewed = Error(ErrorCode::kDenied, "Another vexad has taken this host's id, or the host was removed");
  if (*claim_state == ClaimState::kFenced) {
    if (!std::exchange(is_stopping_fenced_guests_, true)) {
      ::syslog(
          LOG_WARNING,
          "Other hosts considered this host gone and took guests from it. Their domains here are being destroyed.");
    }
    if (options_.stop_fenced_guests && !options_.stop_fenced_guests()) return false;
    renewed = options_.claim->Renew();
    if (renewed) {
      is_stopping_fenced_guests_ = false;
      ::syslog(LOG_INFO, "This host is back, as its incarnation %llu.",
               static_cast<unsigned long long>(options_.claim->incarnation()));
      return true;
    }
    if (renewed.error().code() != ErrorCode::kDenied) {
      LogWriteFailure(renewed.error());
      return false;
    }
  } else {
    // A host that was removed from the cluster also stops the guests that other hosts have taken.
    if (options_.stop_fenced_guests) (void)options_.stop_fenced_guests();
    if (Status reason = options_.claim->Renew(); !reason) renewed = std::move(reason);
  }
  is_lost_ = true;
  if (options_.on_lost) options_.on_lost(renewed.error().ToString());
  return false;
}

void HostHeartbeat::PublishOnce() {
  if (!EnsureMayWrite()) return;
  HostFacts facts = gather_();
  if (registered_) KeepPreviousWhereUnreadable(facts_, facts);
  const system_clock::time_point now = system_clock::now();
  if (!registered_) started_ = now;
  const Status status = Write(facts, now);
  if (!status) return LogWriteFailure(status.error());
  failing_ = false;
  registered_ = true;
  facts_ = std::move(facts);
}

Status HostHeartbeat::Write(const HostFacts& facts, system_clock::time_point now) const {
  if (!registered_) return RegisterHost(*store_, facts, now, options_.claim.get());
  if (HasChanged(facts_, facts)) return UpdateHost(*store_, facts, {started_, now}, options_.claim.get());
  Status heartbeat_written = WriteHeartbeat(*store_, facts.host_id, now, facts.state, options_.claim.get());
  if (heartbeat_written || heartbeat_written.error().code() != ErrorCode::kNotFound) return heartbeat_written;
  return UpdateHost(*store_, facts, {started_, now}, options_.claim.get());
}

bool HostHeartbeat::WaitForInterval() {
  const auto end = std::chrono::steady_clock::now() + options_.interval;
  const MutexLock lock(mutex_);
  while (!stop_ && wake_.WaitUntil(mutex_, end)) {
  }
  return !stop_;
}

void HostHeartbeat::Run() {
  while (WaitForInterval()) PublishOnce();
}

}  // namespace vexa::cluster
