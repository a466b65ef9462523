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

void Fill(Json::Value& record, const HostFacts& facts, system_clock::time_point now) {
  record[keys::name] = facts.name;
  record["addresses"] = Json::Value(Json::arrayValue);
  for (const std::string& address : facts.addresses) record["addresses"].append(address);
  if (!facts.cluster_address.empty()) record["cluster_address"] = facts.cluster_address;
  record[keys::cpu_cores] = facts.cpu_cores;
  record[keys::cpu_clock_speed] = facts.cpu_clock_mhz;
  record["ram_size"] = static_cast<Json::UInt64>(facts.ram_kib);
  record[keys::state] = VexaCCC::State::Host::running;
  record["started"] = SecondsOf(now);
  record["version"] = facts.version;
}

void PutSeen(store::Transaction& transaction, const std::string& host_id, system_clock::time_point now) {
  Json::Value seen(Json::objectValue);
  seen["time"] = SecondsOf(now);
  transaction.operations.push_back({KeyOf(host_id, "seen"), json::ToText(seen)});
}

Result<store::Transaction> PlanRegistration(const store::Store& store, const HostFacts& facts,
                                            system_clock::time_point now) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  store::Transaction transaction;
  const std::string object = KeyOf(facts.host_id, keys::object);
  Result<StoredObject> host = LoadObject(**snapshot, object);
  if (!host) return host.error();
  Fill(host->record, facts, now);
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
  PutSeen(transaction, facts.host_id, now);
  return transaction;
}

Result<StoredObject> LoadHost(const store::Store& store, const std::string& host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return LoadObject(**snapshot, KeyOf(host_id, keys::object));
}

bool IsInaccessible(const Json::Value& record) {
  return json::String(json::Member(record, keys::state)) == VexaCCC::State::Host::inaccessible;
}

}  // namespace

Status RegisterHost(store::Store& store, const HostFacts& facts, system_clock::time_point now) {
  return CommitPlanned(store, [&] { return PlanRegistration(store, facts, now); });
}

Status TouchHost(store::Store& store, const std::string& host_id, system_clock::time_point now) {
  return CommitPlanned(store, [&]() -> Result<store::Transaction> {
    Result<StoredObject> host = LoadHost(store, host_id);
    if (!host) return host.error();
    if (host->revision == 0) return Error(ErrorCode::kNotFound, "This host has no record in the cluster database");
    store::Transaction transaction;
    if (IsInaccessible(host->record)) {
      host->record[keys::state] = VexaCCC::State::Host::running;
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

HostPresence::HostPresence(std::shared_ptr<store::Store> store, HostFacts facts, std::chrono::milliseconds interval)
    : store_(std::move(store)), facts_(std::move(facts)), interval_(interval) {
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
  const system_clock::time_point now = system_clock::now();
  const Status status = registered_ ? TouchHost(*store_, facts_.host_id, now) : RegisterHost(*store_, facts_, now);
  if (status) {
    registered_ = true;
  } else if (!failing_) {
    ::syslog(LOG_ERR, "This host's record cannot be written: %s", status.error().ToString().c_str());
  }
  failing_ = !status;
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
