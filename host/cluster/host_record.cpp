#include "host/cluster/host_record.h"

#include <syslog.h>

#include <utility>

#include "host/base/time_text.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using std::chrono::system_clock;

std::string KeyOf(const std::string& host_id, std::string_view key) {
  return MemberKey(VexaCCC::DB::DashCate::Host.name(), host_id, key);
}

std::string NicKey(const std::string& host_id, const std::string& nic_id) {
  return KeyOf(host_id, keys::nics) + "/" + store::EncodeSegment(nic_id);
}

bool IsInaccessible(const Json::Value& record) {
  return json::String(json::Member(record, keys::state)) == VexaCCC::State::Host::inaccessible;
}

void Fill(Json::Value& record, const HostFacts& facts, system_clock::time_point started) {
  record[keys::name] = facts.name;
  record["addresses"] = Json::Value(Json::arrayValue);
  for (const std::string& address : facts.addresses) record["addresses"].append(address);
  // An address from an earlier start would send other hosts to a port where no one, or another program, listens.
  if (facts.cluster_address.empty()) {
    record.removeMember("cluster_address");
  } else {
    record["cluster_address"] = facts.cluster_address;
  }
  record[keys::cpu_cores] = facts.cpu_cores;
  record[keys::cpu_clock_speed] = facts.cpu_clock_mhz;
  record["ram_size"] = static_cast<Json::UInt64>(facts.ram_kib);
  record["started"] = SecondsSinceEpoch(started);
  record["version"] = facts.version;
  if (facts.package_version.empty()) {
    record.removeMember("package_version");
  } else {
    record["package_version"] = facts.package_version;
  }
}

void PutSeen(store::Transaction& transaction, const std::string& host_id, system_clock::time_point now) {
  Json::Value seen(Json::objectValue);
  seen["time"] = SecondsSinceEpoch(now);
  transaction.operations.push_back({KeyOf(host_id, "seen"), json::ToText(seen)});
}

enum class Moment { kStart, kLater };

// Makes the commit depend on the claim. kDenied: the claim is no longer held, and retrying is pointless.
Status GuardWith(const HostClaim* claim, store::Transaction& transaction) {
  if (!claim) return {};
  if (Status held = claim->Check(); !held) return held;
  transaction.compares.push_back(claim->Guard());
  return {};
}

Result<store::Transaction> PlanRegistration(const store::Store& store, const HostFacts& facts, const HostTimes& times,
                                            Moment moment, const HostClaim* claim) {
  store::Transaction transaction;
  if (const Status guarded = GuardWith(claim, transaction); !guarded) return guarded.error();
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const std::string object = KeyOf(facts.host_id, keys::object);
  Result<StoredObject> host = LoadObject(**snapshot, object);
  if (!host) return host.error();
  Fill(host->record, facts, times.started);
  if (!facts.state.empty()) {
    host->record[keys::state] = facts.state;
  } else if (moment == Moment::kStart || json::Member(host->record, keys::state).isNull() ||
             IsInaccessible(host->record)) {
    host->record[keys::state] = VexaCCC::State::Host::running;
  }
  PutObject(transaction, object, *host);
  for (const HostNic& nic : facts.nics) {
    const std::string key = NicKey(facts.host_id, nic.id);
    Result<StoredObject> stored = LoadObject(**snapshot, key);
    if (!stored) return stored.error();
    const Json::Value before = stored->record;
    stored->record[keys::name] = nic.name;
    stored->record[keys::mac_address] = nic.mac_address;
    if (stored->revision == 0 || stored->record != before) PutObject(transaction, key, *stored);
  }
  PutSeen(transaction, facts.host_id, times.now);
  return transaction;
}

Result<StoredObject> LoadHost(const store::Store& store, const std::string& host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return LoadObject(**snapshot, KeyOf(host_id, keys::object));
}

// Values that could not be read this time, when files or memory are short for instance, stay as they were.
void KeepUnread(const HostFacts& before, HostFacts& facts) {
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
  return CommitPlanned(store, [&] { return PlanRegistration(store, facts, {now, now}, Moment::kStart, claim); });
}

Status UpdateHost(store::Store& store, const HostFacts& facts, const HostTimes& times, const HostClaim* claim) {
  return CommitPlanned(store, [&] { return PlanRegistration(store, facts, times, Moment::kLater, claim); });
}

Status TouchHost(store::Store& store, const std::string& host_id, system_clock::time_point now,
                 const std::string& state, const HostClaim* claim) {
  return CommitPlanned(store, [&]() -> Result<store::Transaction> {
    store::Transaction transaction;
    if (const Status guarded = GuardWith(claim, transaction); !guarded) return guarded.error();
    Result<StoredObject> host = LoadHost(store, host_id);
    if (!host) return host.error();
    if (host->revision == 0) return Error(ErrorCode::kNotFound, "This host has no record in the cluster database");
    if (IsInaccessible(host->record)) {
      host->record[keys::state] = state.empty() ? VexaCCC::State::Host::running : state;
      PutObject(transaction, KeyOf(host_id, keys::object), *host);
    }
    PutSeen(transaction, host_id, now);
    return transaction;
  });
}

Status LeaveHost(store::Store& store, const std::string& host_id, const HostClaim* claim) {
  return CommitPlanned(store, [&]() -> Result<store::Transaction> {
    store::Transaction transaction;
    if (const Status guarded = GuardWith(claim, transaction); !guarded) return guarded.error();
    Result<StoredObject> host = LoadHost(store, host_id);
    if (!host) return host.error();
    if (host->revision == 0 || IsInaccessible(host->record)) return transaction;
    host->record[keys::state] = VexaCCC::State::Host::inaccessible;
    PutObject(transaction, KeyOf(host_id, keys::object), *host);
    return transaction;
  });
}

HostPresence::HostPresence(std::shared_ptr<store::Store> store, GatherFacts gather, PresenceOptions options)
    : store_(std::move(store)), gather_(std::move(gather)), options_(std::move(options)) {
  Announce();
  thread_ = std::thread([this] { Run(); });
}

HostPresence::~HostPresence() {
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  thread_.join();
  if (!registered_ || is_lost_) return;
  if (const Status left = LeaveHost(*store_, facts_.host_id, options_.claim.get()); !left) {
    ::syslog(LOG_ERR, "This host's state cannot be written: %s", left.error().ToString().c_str());
  }
}

void HostPresence::Complain(const Error& error) {
  if (!failing_) ::syslog(LOG_ERR, "This host's record cannot be written: %s", error.ToString().c_str());
  failing_ = true;
}

bool HostPresence::MayWrite() {
  if (is_lost_) return false;
  if (!options_.claim) return true;
  const Result<Standing> standing = options_.claim->Look();
  if (!standing) {
    Complain(standing.error());
    return false;
  }
  // While the database is lost, reads come from a copy, and nothing can be written.
  if (store_->health() == store::Health::kInaccessible) {
    NoteDatabaseLost();
    return *standing == Standing::kHeld;
  }
  // After a start as well: guests that were taken from the host earlier are ended before the host is shown as alive.
  if (*standing == Standing::kHeld) return !options_.settle_fenced || options_.settle_fenced();
  Status renewed = Error(ErrorCode::kDenied, "Another vexad has taken this host's id, or the host was removed");
  if (*standing == Standing::kFenced) {
    if (!std::exchange(is_settling_, true)) {
      ::syslog(LOG_WARNING,
               "Other hosts considered this host gone and took guests from it. Their machines here are being ended.");
    }
    if (options_.settle_fenced && !options_.settle_fenced()) return false;
    renewed = options_.claim->Renew();
    if (renewed) {
      is_settling_ = false;
      ::syslog(LOG_INFO, "This host is back, as its incarnation %llu.",
               static_cast<unsigned long long>(options_.claim->incarnation()));
      return true;
    }
    if (renewed.error().code() != ErrorCode::kDenied) {
      Complain(renewed.error());
      return false;
    }
  } else {
    // A host that was removed also ends the guests that others have now.
    if (options_.settle_fenced) (void)options_.settle_fenced();
    if (Status why = options_.claim->Renew(); !why) renewed = std::move(why);
  }
  is_lost_ = true;
  if (options_.on_lost) options_.on_lost(renewed.error().ToString());
  return false;
}

void HostPresence::Announce() {
  if (!MayWrite()) return;
  HostFacts facts = gather_();
  if (registered_) KeepUnread(facts_, facts);
  const system_clock::time_point now = system_clock::now();
  if (!registered_) started_ = now;
  const Status status = Write(facts, now);
  if (!status) return Complain(status.error());
  failing_ = false;
  registered_ = true;
  facts_ = std::move(facts);
}

Status HostPresence::Write(const HostFacts& facts, system_clock::time_point now) const {
  if (!registered_) return RegisterHost(*store_, facts, now, options_.claim.get());
  if (HasChanged(facts_, facts)) return UpdateHost(*store_, facts, {started_, now}, options_.claim.get());
  Status touched = TouchHost(*store_, facts.host_id, now, facts.state, options_.claim.get());
  if (touched || touched.error().code() != ErrorCode::kNotFound) return touched;
  return UpdateHost(*store_, facts, {started_, now}, options_.claim.get());
}

void HostPresence::Run() {
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, options_.interval, [this] { return stop_; })) {
    lock.unlock();
    Announce();
    lock.lock();
  }
}

}  // namespace vexa::cluster
