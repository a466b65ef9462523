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

constexpr std::chrono::seconds kOneSecond{1};
// Clocks that are kept right differ by less.
constexpr std::chrono::seconds kLongestWait{3};
// A record that claims a later time is wrong, and must not take the clock beyond its range.
constexpr std::chrono::hours kLatestIssue{24 * 365 * 10};

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

struct Heartbeat {
  std::string host_id;
  system_clock::time_point time;
};

// The newest heartbeat of the other hosts; not set when they have never sent one. If `changed` is not null, only the
// keys in it count.
Result<std::optional<Heartbeat>> NewestHeartbeat(const store::Store& store, const std::string& own_host_id,
                                                 const std::vector<store::Change>* changed) {
  const auto reader = records::Reader::Open(store);
  if (!reader) return reader.error();
  const auto ids = reader->Children(HostCategory());
  if (!ids) return ids.error();
  std::optional<Heartbeat> newest;
  for (const std::string& id : *ids) {
    const auto is_heartbeat = [key = HeartbeatKey(id)](const store::Change& change) { return change.key == key; };
    if (id == own_host_id || (changed && std::ranges::none_of(*changed, is_heartbeat))) continue;
    const system_clock::time_point time = HeartbeatOf(*reader, id);
    if (time != system_clock::time_point() && (!newest || time > newest->time)) newest = Heartbeat{id, time};
  }
  return newest;
}

bool IsFarBehind(const std::optional<Heartbeat>& heartbeat) {
  return heartbeat && heartbeat->time < system_clock::now() - kCertificateClockTolerance;
}

bool IsFarAhead(const std::optional<Heartbeat>& heartbeat) {
  return heartbeat && heartbeat->time > system_clock::now() + kCertificateClockTolerance;
}

// Old heartbeats are those of hosts that are gone, or show that this host's clock is ahead. So the next ones decide.
Status CheckClock(store::Store& store, const RevocationRequest& request,
                  const std::optional<Heartbeat>& newest_heartbeat) {
  if (IsFarAhead(newest_heartbeat)) {
    return Error(ErrorCode::kDenied,
                 fmt::format("The clock of this host is more than an hour behind the last heartbeat of the host '{}'. "
                             "Set the clock that is wrong, or remove that host if it is gone for good",
                             newest_heartbeat->host_id));
  }
  if (!IsFarBehind(newest_heartbeat)) return {};
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

// When the certificate was issued that the host has reported last; the epoch when that is unknown.
Result<system_clock::time_point> CertificateIssued(const store::Store& store, const std::string& host_id) {
  const auto reader = records::Reader::Open(store);
  if (!reader) return reader.error();
  const auto record = reader->ReadRecord(records::ObjectKey(VexaCCC::DB::DashCate::Host.name(), host_id));
  if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
  if (!record || !*record) return system_clock::time_point();
  return records::TimeFromJson(json::Member(json::Member(**record, "certificate"), "issued"));
}

}  // namespace

Status RevokeHost(store::Store& store, const RevocationRequest& request) {
  const auto heartbeat = NewestHeartbeat(store, request.own_host_id, nullptr);
  if (!heartbeat) return heartbeat.error();
  if (Status checked = CheckClock(store, request, *heartbeat); !checked) return checked;
  const auto issued = CertificateIssued(store, request.host_id);
  if (!issued) return issued.error();
  // The clock that issued a certificate may be ahead of this one, by which nothing would be revoked then.
  const auto now = system_clock::now();
  auto latest = std::max(now, std::min(*issued, now + kLatestIssue));
  if (*heartbeat) latest = std::max(latest, (*heartbeat)->time);
  // Certificates have whole seconds, so one that is made later in this second must not look older.
  const auto before = std::chrono::floor<std::chrono::seconds>(latest) + kOneSecond;
  if (Status revoked = records::RevokeCertificates(store, request.host_id, before, {request.user, now}); !revoked) {
    return revoked;
  }
  std::this_thread::sleep_for(std::min<system_clock::duration>(before - now, kLongestWait));
  return {};
}

}  // namespace vexa::cluster
