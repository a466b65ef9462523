#include "host/records/host_liveness.h"

#include <atomic>
#include <utility>

#include "host/records/environment.h"
#include "host/records/environment_internal.h"
#include "host/records/host_claim_record.h"
#include "host/records/keys.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::records {
namespace {

using std::chrono::system_clock;

// Null when absent or damaged: a damaged record proves nothing about the host.
Result<Record> ReadIntact(const Reader& reader, const std::string& key) {
  Result<Record> record = reader.ReadRecord(key);
  if (!record && record.error().code() == ErrorCode::kCorrupt) return Record();
  return record;
}

std::string HostKey(const std::string& host_id, std::string_view key) {
  return MemberKey(VexaCCC::DB::DashCate::Host.name(), host_id, key);
}

system_clock::time_point TimeOf(const Json::Value& heartbeat) { return TimeFromJson(json::Member(heartbeat, "time")); }

// When the database was last found to be lost, in ticks of the steady clock; 0: never.
std::atomic<std::chrono::steady_clock::rep> last_database_loss{0};

bool WasDatabaseRecentlyLost(const Environment& environment) {
  const auto now = std::chrono::steady_clock::now();
  if (CurrentClusterStatus().HealthOf(*environment.store, kHeartbeatTimeout) == store::Health::kInaccessible) {
    RecordDatabaseLoss();
  }
  const auto lost = last_database_loss.load();
  return lost != 0 && now.time_since_epoch() - std::chrono::steady_clock::duration(lost) < kHeartbeatTimeout;
}

// Whether the guest runs on its host or has saved memory there.
bool DependsOnHost(std::string_view state) {
  return VexaCCC::Utils::IsGuestStateOnline(std::string(state)) || state == VexaCCC::State::Guest::freeze ||
         state == VexaCCC::State::Guest::saved;
}

}  // namespace

bool IsRecentHeartbeat(const Json::Value& heartbeat, system_clock::time_point now) {
  if (!json::Member(heartbeat, "time").isInt64()) return false;
  const auto age = now - TimeOf(heartbeat);
  return age <= kHeartbeatTimeout && -age <= kHeartbeatTimeout;
}

void RecordDatabaseLoss() { last_database_loss = std::chrono::steady_clock::now().time_since_epoch().count(); }

Result<HostLiveness> LivenessOf(const Reader& reader, const std::string& host_id) {
  const Environment* environment = CurrentEnvironment();
  if (environment && host_id == environment->host_id) return HostLiveness();
  if (environment && WasDatabaseRecentlyLost(*environment)) return HostLiveness();
  const Result<Record> heartbeat = ReadIntact(reader, HostKey(host_id, "seen"));
  if (!heartbeat) return heartbeat.error();
  if (!*heartbeat) {
    const Result<Record> claim = ReadIntact(reader, HostClaimKey(host_id));
    if (!claim) return claim.error();
    return HostLiveness{*claim && IsForgotten(**claim), {}};
  }
  HostLiveness liveness{!IsRecentHeartbeat(**heartbeat, system_clock::now()), TimeOf(**heartbeat)};
  if (liveness.is_gone) return liveness;
  const Result<Record> record = ReadIntact(reader, HostKey(host_id, keys::object));
  if (!record) return record.error();
  liveness.is_gone = *record && json::StringMember(**record, keys::state) == VexaCCC::State::Host::inaccessible;
  return liveness;
}

Result<std::set<std::string>> ReachableHosts(const Reader& reader) {
  const auto ids = reader.Children(CategoryKey(VexaCCC::DB::DashCate::Host.name()));
  if (!ids) return ids.error();
  const auto now = system_clock::now();
  std::set<std::string> reachable;
  for (const std::string& id : *ids) {
    const Result<Record> record = ReadIntact(reader, HostKey(id, keys::object));
    if (!record) return record.error();
    const Result<Record> heartbeat = ReadIntact(reader, HostKey(id, "seen"));
    if (!heartbeat) return heartbeat.error();
    if (!*record || !*heartbeat || !IsRecentHeartbeat(**heartbeat, now)) continue;
    const Json::Value& state = json::Member(**record, keys::state);
    if (state.isString() && json::String(state) != VexaCCC::State::Host::inaccessible) reachable.insert(id);
  }
  return reachable;
}

Result<std::optional<std::string_view>> HostStateIfGone(const Reader& reader, const std::string& host_id) {
  const Result<HostLiveness> liveness = LivenessOf(reader, host_id);
  if (!liveness) return liveness.error();
  return liveness->is_gone ? std::optional<std::string_view>(VexaCCC::State::Host::inaccessible) : std::nullopt;
}

Result<std::optional<std::string_view>> RepositoryStateIfHostGone(const Reader& reader, const Json::Value& record) {
  const std::string host_id = json::StringMember(record, keys::host_id);
  if (host_id.empty()) return std::optional<std::string_view>();
  const Result<HostLiveness> liveness = LivenessOf(reader, host_id);
  if (!liveness) return liveness.error();
  return liveness->is_gone ? std::optional<std::string_view>(VexaCCC::State::Repo::inaccessible) : std::nullopt;
}

Result<std::optional<std::string_view>> GuestStateIfHostGone(const Reader& reader, const Json::Value& record,
                                                             std::string_view state) {
  if (!DependsOnHost(state)) return std::optional<std::string_view>();
  const std::string host_id = json::StringMember(record, keys::host_id);
  if (host_id.empty()) return std::optional<std::string_view>();
  const Result<HostLiveness> liveness = LivenessOf(reader, host_id);
  if (!liveness) return liveness.error();
  return liveness->is_gone ? std::optional<std::string_view>(VexaCCC::State::Guest::inaccessible) : std::nullopt;
}

}  // namespace vexa::records
