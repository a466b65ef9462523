#include "host/records/host_life.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "host/records/environment.h"
#include "host/records/environment_internal.h"
#include "host/records/host_claim_record.h"
#include "host/records/keys.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::cluster {
namespace {

using std::chrono::system_clock;

// The last second that the clock, which counts nanoseconds, can represent.
constexpr Json::Int64 kLastSecond =
    std::chrono::duration_cast<std::chrono::seconds>(system_clock::duration::max()).count();

// Null when absent or damaged: that says nothing about the host.
Result<Record> ReadIntact(const std::string& key) {
  Result<Record> record = ReadRecord(key);
  if (!record && record.error().code() == ErrorCode::kCorrupt) return Record();
  return record;
}

std::string HostKey(const std::string& host_id, std::string_view key) {
  return MemberKey(VexaCCC::DB::DashCate::Host.name(), host_id, key);
}

system_clock::time_point TimeOf(const Json::Value& seen) {
  const Json::Int64 count = std::clamp<Json::Int64>(json::Int64(json::Member(seen, "time")), 0, kLastSecond);
  return system_clock::time_point(std::chrono::seconds(count));
}

// When the database was last found to be lost, in the steady clock's count; 0: never.
std::atomic<std::chrono::steady_clock::rep> last_lost{0};

bool WasDatabaseLost(const Environment& environment) {
  const auto now = std::chrono::steady_clock::now();
  if (CurrentClusterStatus().HealthOf(*environment.store, kPresenceWindow) == store::Health::kInaccessible) {
    NoteDatabaseLost();
  }
  const auto lost = last_lost.load();
  return lost != 0 && now.time_since_epoch() - std::chrono::steady_clock::duration(lost) < kPresenceWindow;
}

// Whether the guest is running on its host, or has something waiting there.
bool IsHeldByItsHost(std::string_view state) {
  return VexaCCC::Utils::IsGuestStateOnline(std::string(state)) || state == VexaCCC::State::Guest::freeze ||
         state == VexaCCC::State::Guest::saved;
}

}  // namespace

bool IsSignOfLife(const Json::Value& seen, system_clock::time_point now) {
  if (!json::Member(seen, "time").isInt64()) return false;
  const auto age = now - TimeOf(seen);
  return age <= kPresenceWindow && -age <= kPresenceWindow;
}

void NoteDatabaseLost() { last_lost = std::chrono::steady_clock::now().time_since_epoch().count(); }

Result<HostLife> LifeOf(const std::string& host_id) {
  const Environment* environment = CurrentEnvironment();
  if (environment && host_id == environment->host_id) return HostLife();
  if (environment && WasDatabaseLost(*environment)) return HostLife();
  const Result<Record> seen = ReadIntact(HostKey(host_id, "seen"));
  if (!seen) return seen.error();
  if (!*seen) {
    const Result<Record> claim = ReadIntact(HostClaimKey(host_id));
    if (!claim) return claim.error();
    return HostLife{*claim && IsForgotten(**claim), {}};
  }
  HostLife life{!IsSignOfLife(**seen, system_clock::now()), TimeOf(**seen)};
  if (life.is_gone) return life;
  const Result<Record> record = ReadIntact(HostKey(host_id, keys::object));
  if (!record) return record.error();
  life.is_gone = *record && json::TextMember(**record, keys::state) == VexaCCC::State::Host::inaccessible;
  return life;
}

Result<std::optional<std::string_view>> HostStateNow(const std::string& host_id) {
  const Result<HostLife> life = LifeOf(host_id);
  if (!life) return life.error();
  return life->is_gone ? std::optional<std::string_view>(VexaCCC::State::Host::inaccessible) : std::nullopt;
}

Result<std::optional<std::string_view>> RepositoryStateNow(const Json::Value& record) {
  const std::string host_id = json::TextMember(record, keys::host_id);
  if (host_id.empty()) return std::optional<std::string_view>();
  const Result<HostLife> life = LifeOf(host_id);
  if (!life) return life.error();
  return life->is_gone ? std::optional<std::string_view>(VexaCCC::State::Repo::inaccessible) : std::nullopt;
}

Result<std::optional<std::string_view>> GuestStateNow(const Json::Value& record, std::string_view state) {
  if (!IsHeldByItsHost(state)) return std::optional<std::string_view>();
  const std::string host_id = json::TextMember(record, keys::host_id);
  if (host_id.empty()) return std::optional<std::string_view>();
  const Result<HostLife> life = LifeOf(host_id);
  if (!life) return life.error();
  return life->is_gone ? std::optional<std::string_view>(VexaCCC::State::Guest::inaccessible) : std::nullopt;
}

}  // namespace vexa::cluster
