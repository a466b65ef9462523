// Guests that run here, their disks, and whether their repository can be used.
#include <sys/stat.h>

#include <limits>
#include <map>
#include <optional>
#include <utility>

#include "host/api/peer/rows.h"
#include "host/records/reading.h"
#include "host/storage/storage_condition.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using webapi::Call;
using webapi::LaneKind;

constexpr Json::UInt64 kMib = Json::UInt64{1} << 20;
constexpr std::uint64_t kBlockBytes = 512;  // of st_blocks, independent of the file system's own block size

// Why the repository cannot be used here: a code of "failed_check", and the sentence for "reason".
struct FailedCheck {
  int code = 0;
  const char* reason = "";
};

// The shared layer has keywords for these two. For the next two it has no accurate keyword, and reports their number.
constexpr FailedCheck kHostOffline{307, "The repository belongs to another host, which does not answer."};
constexpr FailedCheck kRemoteFirmware{
    311, "The repository belongs to another host, and guests with EFI firmware cannot run that way."};
constexpr FailedCheck kRepositoryOffline{
    303, "The repository is neither online nor degraded: its storage is missing, full or damaged."};
constexpr FailedCheck kRepositoryElsewhere{304, "The repository belongs to another host, or has no readable record."};

std::string ReadText(const DashCate& category, const std::string& id, const char* key) {
  std::string text;
  return Dashboard(category, id).Get(text, key) == 0 ? text : std::string();
}

// The guest that the call names, and its record. If it is not set, the call has been answered.
struct NamedGuest {
  std::string id;
  Json::Value record;
};
std::optional<NamedGuest> ReadGuest(const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (id.IsInvalid()) {
    Fail(call, webapi::kErrorBadParameter);
    return std::nullopt;
  }
  NamedGuest guest{id.Get(), {}};
  if (Dashboard(DashCate::Guest, guest.id).Get(guest.record, keys::object) != 0) {
    Fail(call, kErrorUnreadable);
    return std::nullopt;
  }
  return guest;
}

void GuestInfo(guests::GuestControl* guests, const Call& call) {
  const auto guest = ReadGuest(call);
  if (!guest) return;
  const bool runs_here = ReadText(DashCate::Guest, guest->id, keys::state) == states::Guest::running &&
                         ReadText(DashCate::Guest, guest->id, keys::host_id) == VexaCCC::DB::DBLocalhostID();
  if (!runs_here) return Fail(call, kErrorUnreadable);
  cluster::RequestScope::ReleaseSnapshot();  // the call may wait for the hypervisor
  const std::optional<guests::RunningGuest> live = guests ? guests->Running(guest->id) : guests::RunningGuest();
  if (!live) return Fail(call, kErrorUnreadable);
  Json::Value data(Json::objectValue);
  data["ip"] = Json::Value(Json::arrayValue);
  for (const std::string& address : live->addresses) data["ip"].append(address);
  data["uptime"] = static_cast<Json::UInt64>(live->uptime_s);
  data["has_agent"] = live->has_agent;
  call.response->SetSuccess(data);
}

// A host whose state is unknown may be alive.
bool IsGone(const std::string& host_id) {
  std::map<std::string, std::string> all;
  std::map<std::string, std::string> reachable;
  return VexaCCC::CCCVersionStateGetAllHosts(all, reachable) == 0 && !reachable.contains(host_id);
}

// Not set: the repository can be used.
std::optional<FailedCheck> CheckRepository(const Json::Value& guest) {
  const std::string id = json::String(json::Member(guest, keys::repository_id));
  const std::string host_id = ReadText(DashCate::Repository, id, keys::host_id);
  if (host_id != VexaCCC::DB::DBLocalhostID()) {
    if (!host_id.empty() && IsGone(host_id)) return kHostOffline;
    const bool has_efi = json::Bool(json::Member(guest, keys::use_ovmf));
    return !host_id.empty() && has_efi ? kRemoteFirmware : kRepositoryElsewhere;
  }
  const std::string state = ReadText(DashCate::Repository, id, keys::state);
  if (guests::IsUsableRepository(state)) return std::nullopt;
  return kRepositoryOffline;
}

void CheckRepoCap(const Call& call) {
  const auto guest = ReadGuest(call);
  if (!guest) return;
  const std::optional<FailedCheck> failed = CheckRepository(guest->record);
  Json::Value data(Json::objectValue);
  data["repo_usable"] = !failed.has_value();
  data["failed_check"] = failed ? failed->code : 0;
  if (failed) data["reason"] = failed->reason;
  call.response->SetSuccess(data);
}

bool IsPlainPath(const std::string& path) {
  return path.starts_with('/') && path.find('\0') == std::string::npos &&
         (path + "/").find("/../") == std::string::npos;
}

// The space of the disk's file on its file system; for a block device, its whole size. 0: unknown.
Json::UInt64 UsedBytes(const std::string& path, Json::UInt64 total) {
  struct stat info {};
  if (!IsPlainPath(path) || ::stat(path.c_str(), &info) != 0) return 0;
  if (S_ISBLK(info.st_mode)) return total;
  return S_ISREG(info.st_mode) ? static_cast<Json::UInt64>(info.st_blocks) * kBlockBytes : 0;
}

void DiskList(const Call& call) {
  const auto guest = ReadGuest(call);
  if (!guest) return;
  std::vector<std::pair<std::string, Json::Value>> disks;
  for (const Json::Value& element : json::Elements(json::Member(guest->record, keys::vdisks))) {
    Json::Value record;
    std::string id = json::String(element);
    if (Dashboard(DashCate::vDisk, id).Get(record, keys::object) != 0) return Fail(call, kErrorUnreadable);
    disks.emplace_back(std::move(id), std::move(record));
  }
  // What follows waits for file systems, which may be slow.
  cluster::RequestScope::ReleaseSnapshot();
  Json::Value data(Json::objectValue);
  data["vdisks"] = Json::Value(Json::arrayValue);
  for (const auto& [id, record] : disks) {
    const Json::UInt64 size_mib = json::UInt64(json::Member(record, keys::size));
    const Json::UInt64 most = std::numeric_limits<Json::UInt64>::max();
    const Json::UInt64 total = size_mib > most / kMib ? most : size_mib * kMib;
    Json::Value disk(Json::objectValue);
    disk["vdisk_id"] = id;
    disk["total_size"] = total;
    disk["used_size"] = UsedBytes(json::String(json::Member(record, "path")), total);
    data["vdisks"].append(std::move(disk));
  }
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<webapi::ApiRow> GuestReportRows(const ServiceParts& parts) {
  const webapi::Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  const std::vector<int> errors{webapi::kErrorBadParameter, kErrorUnreadable};
  return {
      HostRow(
          "VEXA.CCC.Guest", "get_info", LaneKind::kLong,
          [guests = parts.guests](const Call& call) { GuestInfo(guests, call); },
          "A guest that runs here: its addresses, uptime (seconds), and whether its agent answers.", {guest}, errors),
      HostRow("VEXA.CCC.Guest", "check_repo_cap", LaneKind::kQuick, CheckRepoCap,
              "Whether this host can run a guest from its repository; if not, why.", {guest}, errors),
      HostRow("VEXA.CCC.VDisk", "list", LaneKind::kLong, DiskList,
              "A guest's disks, with their sizes and what they take, in bytes.", {guest}, errors)};
}

}  // namespace vexa::services
