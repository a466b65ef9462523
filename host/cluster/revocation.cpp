#include "host/cluster/revocation.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <thread>

#include "host/base/certificate_times.h"
#include "host/records/host_membership.h"
#include "host/records/keys.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::cluster {
namespace {

using std::chrono::steady_clock;
using std::chrono::system_clock;

std::string HostCategory() { return records::CategoryKey(VexaCCC::DB::DashCate::Host.name()); }

std::string HeartbeatKey(const std::string& host_id) {
  return records::MemberKey(VexaCCC::DB::DashCate::Host.name(), host_id, "seen");
}

// The time of the host's last heartbeat; the epoch when it is missing or unreadable.
system_clock::time_point HeartbeatOf(const records::Reader& reader, const std::string& host_id) {
  const auto heartbeat = reader.ReadRecord(HeartbeatKey(host_id));
  if (!heartbeat || !*heartbeat) return {};
  return records::TimeFromJson(json::Member(**heartbeat, "time"));
}

// The newest heartbeat of the other hosts; not set when they have never sent one. If `changed` is not null, only the
// keys in it count.
Result<std::optional<system_clock::time_point>> NewestHeartbeat(const store::Store& store,
                                                                const std::string& own_host_id,
                                                                const std::vector<store::Change>* changed) {
  const auto reader = records::Reader::Open(store);
  if (!reader) return reader.error();
  const auto ids = reader->Children(HostCategory());
  if (!ids) return ids.error();
  std::optional<system_clock::time_point> newest;
  for (const std::string& id : *ids) {
    const auto is_heartbeat = [key = HeartbeatKey(id)](const store::Change& change) { return change.key == key; };
    if (id == own_host_id || (changed && std::ranges::none_of(*changed, is_heartbeat))) continue;
    const system_clock::time_point heartbeat = HeartbeatOf(*reader, id);
    if (heartbeat != system_clock::time_point()) newest = std::max(newest.value_or(heartbeat), heartbeat);
  }
  return newest;
}

bool IsFarBehind(const std::optional<system_clock::time_point>& heartbeat) {
  return heartbeat && *heartbeat < system_clock::now() - kCertificateClockTolerance;
}

// Old heartbeats are those of hosts that are gone, or show that this host's clock is ahead. So the next ones decide.
Status CheckClock(store::Store& store, const RevocationRequest& request) {
  const auto newest = NewestHeartbeat(store, request.own_host_id, nullptr);
  if (!newest) return newest.error();
  if (!IsFarBehind(*newest)) return {};
  const auto end = steady_clock::now() + request.heartbeat_wait;
  store::Revision revision = 0;
  if (const auto snapshot = store.Read()) revision = (*snapshot)->revision();
  while (steady_clock::now() < end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - steady_clock::now());
    const auto batch = store.Watch(HostCategory(), revision, std::max(left, std::chrono::milliseconds(1)));
    if (!batch) return batch.error();
    revision = batch->revision;
    const auto heartbeat = NewestHeartbeat(store, request.own_host_id, &batch->changes);
    if (!heartbeat) return heartbeat.error();
    if (IsFarBehind(*heartbeat)) {
      return Error(ErrorCode::kDenied,
                   "The clock of this host is more than an hour ahead of another host's. Set it, or ask another host");
    }
  }
  return {};
}

}  // namespace

Status RevokeHost(store::Store& store, const RevocationRequest& request) {
  if (Status checked = CheckClock(store, request); !checked) return checked;
  // Certificates have whole seconds, so one that is made later in this second must not look older.
  const auto now = system_clock::now();
  const auto before = std::chrono::floor<std::chrono::seconds>(now) + std::chrono::seconds(1);
  if (Status revoked = records::RevokeCertificates(store, request.host_id, before, {request.user, now}); !revoked) {
    return revoked;
  }
  std::this_thread::sleep_until(before);
  return {};
}

}  // namespace vexa::cluster
