// Guests that run here, their disks, and whether their repository can be used.
#include <sys/stat.h>

#include <limits>
#include <optional>
#include <utility>

#include "host/api/peer/rows.h"
#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/storage/storage_condition.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::api {
namespace {

namespace states = VexaCCC::State;
using records::Reader;
using records::ReadStringOrEmpty;
using VexaCCC::DB::DashCate;

constexpr Json::UInt64 kMib = Json::UInt64{1} << 20;
constexpr std::uint64_t kBlockBytes = 512;  // of st_blocks, independent of the file system's own block size

// Why the repository cannot be used here: a code of "failed_check", and the sentence for "reason".
struct FailedCheck {
  int code = 0;
  const char* reason = "";
};

// The library has keywords for the first two codes. For the other two it has no accurate keyword, and reports the
// number.
constexpr FailedCheck kHostOffline{307, "The repository belongs to another host, which does not answer."};
constexpr FailedCheck kRemoteFirmware{
    311, "The repository belongs to another host, and guests with EFI firmware cannot run that way."};
constexpr FailedCheck kRepositoryOffline{
    303, "The repository is neither online nor degraded: its storage is missing, full or damaged."};
constexpr FailedCheck kRepositoryElsewhere{304, "The repository belongs to another host, or has no readable record."};

// The newest state of the store. If it is not set, the call has been answered.
std::optional<Reader> OpenReader(const Call& call) {
  Result<Reader> reader = Reader::OpenCurrent();
  if (reader) return *std::move(reader);
  Fail(call, host_error::kNotFoundOrUnreadable);
  return std::nullopt;
}

// The guest that the call names, and its record.
struct NamedGuest {
  std::string id;
  Json::Value record;
};
// If it is not set, the call has been answered.
std::optional<std::string> ReadGuestId(const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (!id.IsInvalid()) return id.Get();
  Fail(call, host_error::kBadParameter);
  return std::nullopt;
}

// If it is not set, the call has been answered.
std::optional<NamedGuest> ReadGuest(const Reader& reader, const Call& call, const std::string& id) {
  auto record = records::ReadMember(reader, DashCate::Guest, id, keys::object);
  if (record && *record) return NamedGuest{id, **std::move(record)};
  Fail(call, host_error::kNotFoundOrUnreadable);
  return std::nullopt;
}

// The guest that the call names, which is running here. If it is not set, the call has been answered.
std::optional<std::string> RunningGuestId(const Call& call) {
  const auto id = ReadGuestId(call);
  if (!id) return std::nullopt;
  const auto reader = OpenReader(call);
  if (!reader) return std::nullopt;
  const auto guest = ReadGuest(*reader, call, *id);
  if (!guest) return std::nullopt;
  const auto text_of = [&](const char* key) { return ReadStringOrEmpty(*reader, DashCate::Guest, guest->id, key); };
  if (text_of(keys::state) == states::Guest::running && text_of(keys::host_id) == VexaCCC::DB::DBLocalhostID()) {
    return guest->id;
  }
  Fail(call, host_error::kNotFoundOrUnreadable);
  return std::nullopt;
}

// Waits for the hypervisor, without a reader.
void GuestInfo(guests::GuestControl* guests, const Call& call) {
  const std::optional<std::string> id = RunningGuestId(call);
  if (!id) return;
  const std::optional<guests::RunningGuest> live = guests ? guests->FindRunningGuest(*id) : guests::RunningGuest();
  if (!live) return Fail(call, host_error::kNotFoundOrUnreadable);
  Json::Value data(Json::objectValue);
  data["ip"] = Json::Value(Json::arrayValue);
  for (const std::string& address : live->addresses) data["ip"].append(address);
  data["uptime"] = static_cast<Json::UInt64>(live->uptime_s);
  data["has_agent"] = live->has_agent;
  call.response->SetSuccess(data);
}

// A host whose state is unknown may be alive.
bool IsGone(const Reader& reader, const std::string& host_id) {
  const auto reachable = records::ReachableHosts(reader);
  return reachable && !reachable->contains(host_id);
}

// Not set: the repository can be used.
std::optional<FailedCheck> CheckRepository(const Reader& reader, const Json::Value& guest) {
  const std::string id = json::String(json::Member(guest, keys::repository_id));
  const std::string host_id = ReadStringOrEmpty(reader, DashCate::Repository, id, keys::host_id);
  if (host_id != VexaCCC::DB::DBLocalhostID()) {
    if (!host_id.empty() && IsGone(reader, host_id)) return kHostOffline;
    const bool has_efi = json::Bool(json::Member(guest, keys::use_ovmf));
    return !host_id.empty() && has_efi ? kRemoteFirmware : kRepositoryElsewhere;
  }
  const std::string state = ReadStringOrEmpty(reader, DashCate::Repository, id, keys::state);
  if (storage::IsUsableRepository(state)) return std::nullopt;
  return kRepositoryOffline;
}

void CheckRepoCap(const Call& call) {
  const auto id = ReadGuestId(call);
  if (!id) return;
  const auto reader = OpenReader(call);
  if (!reader) return;
  const auto guest = ReadGuest(*reader, call, *id);
  if (!guest) return;
  const std::optional<FailedCheck> failed = CheckRepository(*reader, guest->record);
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

// The space that the disk's file takes on its file system, or the whole size of a block device. 0: unknown.
Json::UInt64 UsedBytes(const std::string& path, Json::UInt64 total) {
  struct stat info {};
  if (!IsPlainPath(path) || ::stat(path.c_str(), &info) != 0) return 0;
  if (S_ISBLK(info.st_mode)) return total;
  return S_ISREG(info.st_mode) ? static_cast<Json::UInt64>(info.st_blocks) * kBlockBytes : 0;
}

// The records of the disks of the guest that the call names, by id. If it is not set, the call has been answered.
using DiskRecords = std::vector<std::pair<std::string, Json::Value>>;
std::optional<DiskRecords> ReadDisks(const Call& call) {
  const auto guest_id = ReadGuestId(call);
  if (!guest_id) return std::nullopt;
  const auto reader = OpenReader(call);
  if (!reader) return std::nullopt;
  const auto guest = ReadGuest(*reader, call, *guest_id);
  if (!guest) return std::nullopt;
  DiskRecords disks;
  for (const Json::Value& element : json::Elements(json::Member(guest->record, keys::vdisks))) {
    std::string id = json::String(element);
    auto record = records::ReadMember(*reader, DashCate::vDisk, id, keys::object);
    if (!record || !*record) {
      Fail(call, host_error::kNotFoundOrUnreadable);
      return std::nullopt;
    }
    disks.emplace_back(std::move(id), **std::move(record));
  }
  return disks;
}

// Waits for file systems, which may be slow, without a reader.
void DiskList(const Call& call) {
  const auto disks = ReadDisks(call);
  if (!disks) return;
  Json::Value data(Json::objectValue);
  data["vdisks"] = Json::Value(Json::arrayValue);
  for (const auto& [id, record] : *disks) {
    const Json::UInt64 size_mib = json::UInt64(json::Member(record, keys::size));
    const Json::UInt64 max_bytes = std::numeric_limits<Json::UInt64>::max();
    const Json::UInt64 total = size_mib > max_bytes / kMib ? max_bytes : size_mib * kMib;
    Json::Value disk(Json::objectValue);
    disk["vdisk_id"] = id;
    disk["total_size"] = total;
    disk["used_size"] = UsedBytes(json::String(json::Member(record, "path")), total);
    data["vdisks"].append(std::move(disk));
  }
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> GuestReportRows(const ServiceParts& parts) {
  const Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  const std::vector<int> errors{host_error::kBadParameter, host_error::kNotFoundOrUnreadable};
  return {
      HostRow(
          "VEXA.CCC.Guest", "get_info", LaneKind::kLong,
          [guests = parts.guests](const Call& call) { GuestInfo(guests, call); },
          "A guest that runs here: its addresses, uptime (seconds), and whether its agent answers.", {guest}, errors),
      HostRow("VEXA.CCC.Guest", "check_repo_cap", LaneKind::kQuick, CheckRepoCap,
              "Whether this host can run a guest from its repository; if not, why.", {guest}, errors),
      HostRow("VEXA.CCC.VDisk", "list", LaneKind::kLong, DiskList,
              "A guest's disks: their sizes and the space that they take, in bytes.", {guest}, errors)};
}

}  // namespace vexa::api
