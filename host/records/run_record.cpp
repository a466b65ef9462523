#include "host/records/run_record.h"

#include <algorithm>
#include <limits>
#include <ratio>
#include <type_traits>

#include "host/base/json_parse.h"
#include "host/base/time_text.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::records {
namespace {

constexpr char kHostId[] = "host_id";
constexpr char kIncarnation[] = "incarnation";
constexpr char kSince[] = "since";
constexpr char kStarting[] = "starting";
constexpr char kRestoring[] = "restoring";
constexpr char kStateBefore[] = "state_before";
constexpr char kSaved[] = "saved";
constexpr char kVcpus[] = "vcpus";
constexpr char kMemory[] = "memory_mib";
constexpr char kPinned[] = "pinned_cpus";
constexpr char kKeptOff[] = "kept_off";
constexpr char kFunctions[] = "virtual_functions";
constexpr char kAddress[] = "address";
constexpr char kNetwork[] = "network";

// The latest second that the clock, which counts nanoseconds, can represent.
constexpr Json::Int64 kMaxSeconds = std::numeric_limits<std::int64_t>::max() / 1'000'000'000;
static_assert(std::is_same_v<std::chrono::system_clock::period, std::nano>);

}  // namespace

std::chrono::system_clock::time_point TimeFromJson(const Json::Value& seconds) {
  const Json::Int64 count = std::clamp<Json::Int64>(json::Int64(seconds), 0, kMaxSeconds);
  return std::chrono::system_clock::time_point(std::chrono::seconds(count));
}

Run ParseRun(std::string_view text) {
  Run run;
  const Result<Json::Value> parsed = ParseJson(text);
  if (!parsed) return run;
  const Json::Value& host_id = json::Member(*parsed, kHostId);
  if (host_id.isString()) run.host_id = json::String(host_id);
  run.incarnation = json::UInt64(json::Member(*parsed, kIncarnation));
  run.since = TimeFromJson(json::Member(*parsed, kSince));
  run.starting = json::Bool(json::Member(*parsed, kStarting));
  run.restoring = json::Bool(json::Member(*parsed, kRestoring));
  const Json::Value& before = json::Member(*parsed, kStateBefore);
  if (before.isString()) run.state_before = json::String(before);
  run.saved = json::Bool(json::Member(*parsed, kSaved));
  run.vcpus = json::UInt64(json::Member(*parsed, kVcpus));
  run.memory_mib = json::UInt64(json::Member(*parsed, kMemory));
  for (const Json::Value& cpu : json::Elements(json::Member(*parsed, kPinned))) {
    if (cpu.isUInt()) run.pinned_cpus.push_back(json::UInt(cpu));
  }
  // Records of hosts that kept guests off no processors have no such member.
  const Json::Value* const kept_off = json::FindMember(*parsed, kKeptOff);
  if (kept_off && kept_off->isNull()) run.kept_off.reset();
  for (const Json::Value& cpu : kept_off ? json::Elements(*kept_off) : json::Elements(Json::Value())) {
    if (cpu.isUInt()) run.kept_off->insert(json::UInt(cpu));
  }
  const Json::Value& functions = json::Member(*parsed, kFunctions);
  for (const std::string& nic : json::MemberNames(functions)) {
    const Json::Value& function = json::Member(functions, nic);
    VirtualFunction read{json::StringMember(function, kAddress), json::StringMember(function, kNetwork)};
    if (!read.address.empty()) run.virtual_functions.emplace(nic, std::move(read));
  }
  return run;
}

std::string RunKey(const std::string& guest_id) { return store::MakeKey({"run", guest_id}); }
std::string DeletionKey(const std::string& guest_id) { return store::MakeKey({"deletion", guest_id}); }

std::string GuestNamesGuardKey() { return store::MakeKey({"renames"}); }

std::string FileReferencesGuardKey() { return store::MakeKey({"files"}); }

std::string EditKey(const std::string& guest_id) { return store::MakeKey({"edit", guest_id}); }

std::string CreationKey(const std::string& guest_id) { return store::MakeKey({"creation", guest_id}); }

Result<std::optional<StoredRun>> ReadRun(const store::Snapshot& snapshot, const std::string& guest_id) {
  const auto value = snapshot.Get(RunKey(guest_id));
  if (!value) return value.error();
  if (!value->has_value()) return std::optional<StoredRun>();
  return std::optional(StoredRun{ParseRun((*value)->text), (*value)->revision});
}

Result<std::optional<StoredRun>> ReadRun(const store::Store& store, const std::string& guest_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return ReadRun(**snapshot, guest_id);
}

Result<std::vector<std::pair<std::string, StoredRun>>> RunsOf(const store::Snapshot& snapshot,
                                                              const std::string& host_id) {
  const auto ids = snapshot.Children(store::MakeKey({"run"}));
  if (!ids) return ids.error();
  std::vector<std::pair<std::string, StoredRun>> runs;
  for (const std::string& id : *ids) {
    const auto value = snapshot.Get(RunKey(id));
    if (!value) return value.error();
    if (!value->has_value()) continue;
    Run run = ParseRun((*value)->text);
    if (run.host_id == host_id) runs.emplace_back(id, StoredRun{std::move(run), (*value)->revision});
  }
  return runs;
}

Result<std::vector<std::pair<std::string, StoredRun>>> RunsOf(const store::Store& store, const std::string& host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return RunsOf(**snapshot, host_id);
}

std::string SerializeRun(const Run& run) {
  Json::Value record(Json::objectValue);
  record[kHostId] = run.host_id;
  record[kIncarnation] = static_cast<Json::UInt64>(run.incarnation);
  record[kSince] = ToUnixSeconds(run.since);
  record[kStarting] = run.starting;
  if (run.starting && run.restoring) record[kRestoring] = true;
  if (run.starting && !run.state_before.empty()) record[kStateBefore] = run.state_before;
  record[kSaved] = run.saved;
  record[kVcpus] = static_cast<Json::UInt64>(run.vcpus);
  record[kMemory] = static_cast<Json::UInt64>(run.memory_mib);
  record[kPinned] = Json::Value(Json::arrayValue);
  for (const unsigned cpu : run.pinned_cpus) record[kPinned].append(cpu);
  if (!run.kept_off) record[kKeptOff] = Json::Value();
  if (run.kept_off && !run.kept_off->empty()) {
    for (const unsigned cpu : *run.kept_off) record[kKeptOff].append(cpu);
  }
  for (const auto& [nic, function] : run.virtual_functions) {
    Json::Value& member = record[kFunctions][nic];
    member[kAddress] = function.address;
    member[kNetwork] = function.network;
  }
  return json::ToText(record);
}

}  // namespace vexa::records
