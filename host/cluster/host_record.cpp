#include "host/cluster/host_record.h"

#include <syslog.h>

#include <utility>

#include "host/cluster/object_edit.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/json.h"

namespace vexa::cluster {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using std::chrono::system_clock;

std::string KeyOf(const std::string& host_id, std::string_view key) {
  return store::MakeKey({"dash", VexaCCC::DB::DashCate::Host.name(), host_id, key});
}

std::string NicKey(const std::string& host_id, const std::string& nic_id) {
  return KeyOf(host_id, keys::nics) + "/" + store::EncodeSegment(nic_id);
}

Json::Int64 SecondsOf(system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

bool IsInaccessible(const Json::Value& record) {
  return json::String(json::Member(record, keys::state)) == VexaCCC::State::Host::inaccessible;
}

void Fill(Json::Value& record, const HostFacts& facts, system_clock::time_point started) {
  record[keys::name] = facts.name;
  record["addresses"] = Json::Value(Json::arrayValue);
  for (const std::string& address : facts.addresses) record["addresses"].append(address);
  // An address of an earlier start would send others to a port that nobody, or somebody else, listens on.
  if (facts.cluster_address.empty()) {
    record.removeMember("cluster_address");
  } else {
    record["cluster_address"] = facts.cluster_address;
  }
  record[keys::cpu_cores] = facts.cpu_cores;
  record[keys::cpu_clock_speed] = facts.cpu_clock_mhz;
  record["ram_size"] = static_cast<Json::UInt64>(facts.ram_kib);
  record["started"] = SecondsOf(started);
  record["version"] = facts.version;
  if (facts.package_version.empty()) {
    record.removeMember("package_version");
  } else {
    record["package_version"] = facts.package_version;
  }
}

void PutSeen(store::Transaction& transaction, const std::string& host_id, system_clock::time_point now) {
  Json::Value seen(Json::objectValue);
  seen["time"] = SecondsOf(now);
  transaction.operations.push_back({KeyOf(host_id, "seen"), json::ToText(seen)});
}

enum class Moment { kStart, kLater };

Result<store::Transaction> PlanRegistration(const store::Store& store, const HostFacts& facts, const HostTimes& times,
                                            Moment moment) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  store::Transaction transaction;
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

// What could not be read this time, such as when files or memory are short, is as it was.
void KeepUnread(const HostFacts& before, HostFacts& facts) {
  if (facts.name.empty()) facts.name = before.name;
  if (facts.cpu_cores == 0) facts.cpu_cores = before.cpu_cores;
  if (facts.cpu_clock_mhz == 0) facts.cpu_clock_mhz = before.cpu_clock_mhz;
  if (facts.ram_kib == 0) facts.ram_kib = before.ram_kib;
  // No machine is without interfaces, but one may be without addresses.
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

Status RegisterHost(store::Store& store, const HostFacts& facts, system_clock::time_point now) {
  return CommitPlanned(store, [&] { return PlanRegistration(store, facts, {now, now}, Moment::kStart); });
}

Status UpdateHost(store::Store& store, const HostFacts& facts, const HostTimes& times) {
  return CommitPlanned(store, [&] { return PlanRegistration(store, facts, times, Moment::kLater); });
}

Status TouchHost(store::Store& store, const std::string& host_id, system_clock::time_point now,
                 const std::string& state) {
  return CommitPlanned(store, [&]() -> Result<store::Transaction> {
    Result<StoredObject> host = LoadHost(store, host_id);
    if (!host) return host.error();
    if (host->revision == 0) return Error(ErrorCode::kNotFound, "This host has no record in the cluster database");
    store::Transaction transaction;
    if (IsInaccessible(host->record)) {
      host->record[keys::state] = state.empty() ? VexaCCC::State::Host::running : state;
      PutObject(transaction, KeyOf(host_id, keys::object), *host);
    }
    PutSeen(transaction, host_id, now);
    return transaction;
  });
}

Status LeaveHost(store::Store& store, const std::string& host_id) {
  return CommitPlanned(store, [&]() -> Result<store::Transaction> {
    Result<StoredObject> host = LoadHost(store, host_id);
    if (!host) return host.error();
    store::Transaction transaction;
    if (host->revision == 0 || IsInaccessible(host->record)) return transaction;
    host->record[keys::state] = VexaCCC::State::Host::inaccessible;
    PutObject(transaction, KeyOf(host_id, keys::object), *host);
    return transaction;
  });
}

HostPresence::HostPresence(std::shared_ptr<store::Store> store, GatherFacts gather, std::chrono::milliseconds interval)
    : store_(std::move(store)), gather_(std::move(gather)), interval_(interval) {
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
  if (!registered_) return;
  if (const Status left = LeaveHost(*store_, facts_.host_id); !left) {
    ::syslog(LOG_ERR, "This host's state cannot be written: %s", left.error().ToString().c_str());
  }
}

void HostPresence::Announce() {
  HostFacts facts = gather_();
  if (registered_) KeepUnread(facts_, facts);
  const system_clock::time_point now = system_clock::now();
  if (!registered_) started_ = now;
  const Status status = Write(facts, now);
  if (status) {
    registered_ = true;
    facts_ = std::move(facts);
  } else if (!failing_) {
    ::syslog(LOG_ERR, "This host's record cannot be written: %s", status.error().ToString().c_str());
  }
  failing_ = !status;
}

Status HostPresence::Write(const HostFacts& facts, system_clock::time_point now) const {
  if (!registered_) return RegisterHost(*store_, facts, now);
  if (HasChanged(facts_, facts)) return UpdateHost(*store_, facts, {started_, now});
  Status touched = TouchHost(*store_, facts.host_id, now, facts.state);
  if (touched || touched.error().code() != ErrorCode::kNotFound) return touched;
  return UpdateHost(*store_, facts, {started_, now});
}

void HostPresence::Run() {
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, interval_, [this] { return stop_; })) {
    lock.unlock();
    Announce();
    lock.lock();
  }
}

}  // namespace vexa::cluster
