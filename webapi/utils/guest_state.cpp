#include <algorithm>
#include <iterator>
#include <map>
#include <string>

#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
namespace GuestIs = VexaCCC::State::Guest;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

// The maximum age of the cached cluster status.
constexpr int kMaxStatusAgeS = 10;

// Where the severity of a shut-down guest comes from.
enum class Severity {
  kUnchanged,
  kFromRepository,
  kFromHost,
  kUnchangedAfterReadingHost,  // the host's state is read, but deliberately not used
  kError,
};

// What is displayed for a guest that was shut down.
struct ShutdownRule {
  int value;  // the stored cause of the shutdown
  struct {
    const char* reason;  // "": none
    Severity severity;
  } forced, not_forced;
};

constexpr ShutdownRule kShutdownRules[] = {
    {5, {"shutdown_repo_full", Severity::kFromRepository}, {"shutdown_repo_full", Severity::kFromRepository}},
    {6, {"shutdown_abnormal_storage_state", Severity::kFromRepository}, {"", Severity::kFromRepository}},
    {7, {"shutdown_abnormal_storage_state", Severity::kFromRepository}, {"", Severity::kFromRepository}},
    {8, {"shutdown_abnormal_storage_state", Severity::kFromRepository}, {"", Severity::kFromRepository}},
    {9, {"shutdown_cluster_is_frozen", Severity::kFromHost}, {"", Severity::kUnchangedAfterReadingHost}},
    {10, {"shutdown_host_offline", Severity::kFromHost}, {"", Severity::kUnchangedAfterReadingHost}},
    {11, {"shutdown_abnormal_storage_state", Severity::kFromRepository}, {"", Severity::kUnchanged}},
    {12, {"booting_failed_no_resource", Severity::kError}, {"booting_failed_no_resource", Severity::kError}},
    {13, {"booting_failed", Severity::kError}, {"booting_failed", Severity::kError}},
    {14, {"booting_failed", Severity::kError}, {"booting_failed", Severity::kError}},
    {15, {"booting_failed", Severity::kError}, {"booting_failed", Severity::kError}},
    {16, {"booting_failed", Severity::kError}, {"booting_failed", Severity::kError}},
};

// The severity for a shut-down guest, from the state of its host or repository: "error" or "warning".
const char* SeverityFrom(STATE_CATE cate, const std::string& state) {
  UIState displayed;
  GetStateType(cate, state, displayed);
  return displayed.type == "error" ? "error" : "warning";
}

// Returns false when the host's state cannot be read. Without a host, the state stays empty.
bool ReadHostState(const std::string& host_id, std::string& state) {
  return host_id.empty() || Dashboard(DashCate::Host, host_id).Get(state, key::state) == 0;
}

void ApplyShutdownRules(const Json::Value& record, const std::string& host_id, const std::string& repo_state,
                        std::string& type, std::string& reason) {
  const int value = json::Int(json::Member(record, key::shutdownreasonvalue));
  const auto* const rule = std::find_if(std::begin(kShutdownRules), std::end(kShutdownRules),
                                        [value](const ShutdownRule& row) { return row.value == value; });
  if (rule == std::end(kShutdownRules)) return;
  const bool is_forced = json::Bool(json::Member(record, key::is_forced_shutdown));
  const auto& displayed = is_forced ? rule->forced : rule->not_forced;
  if (*displayed.reason != '\0') reason = displayed.reason;
  std::string host_state;
  switch (displayed.severity) {
    case Severity::kUnchanged:
      break;
    case Severity::kFromRepository:
      type = SeverityFrom(STATE_CATE_REPOSITORY, repo_state);
      break;
    case Severity::kFromHost:
      if (ReadHostState(host_id, host_state)) type = SeverityFrom(STATE_CATE_HOST, host_state);
      break;
    case Severity::kUnchangedAfterReadingHost:
      static_cast<void>(ReadHostState(host_id, host_state));
      break;
    case Severity::kError:
      type = "error";
      break;
  }
}

bool IsFrozen() { return !IsDashboardReady() || CCCIsIncompatibleUpgrading() == 1; }

bool IsConnected(const std::map<std::string, int>& connected, const std::string& guest_id) {
  const auto found = connected.find(guest_id);
  return found == connected.end() || found->second != 0;
}

bool IsLost(const std::string& state) { return state == GuestIs::inaccessible || state == GuestIs::crashed; }

}  // namespace

bool IsDashboardReady() {
  Json::Value cache(Json::objectValue);
  VexaCCC::LoadCache(cache, VexaCCC::CACHE_LOAD_CLUSTER, kMaxStatusAgeS);
  return json::String(json::Member(cache, key::state)) != VexaCCC::State::Etcd::inaccessible;
}

void GetGuestStateFreeze(const Json::Value& record, const std::string& guest_id, std::string& state) {
  const std::string host_id = json::String(json::Member(record, key::host_id));
  static const std::string local_id = VexaCCC::DB::DBLocalhostID();
  std::string repo_host;
  if (vgConfRepoHostIdGet(guest_id, repo_host) < 0) {
    state = GuestIs::unknown;
    return;
  }
  if (repo_host != local_id || (!host_id.empty() && host_id != local_id)) {
    state = GuestIs::freeze;
    return;
  }
  if (vgConfStateGet(guest_id, state) != 0) state = json::String(json::Member(record, key::state));
  if (state == GuestIs::shutdown) state = GuestIs::freeze;
}

std::string GetHostFreezeState(const std::string& host_id) {
  std::map<std::string, std::string> all;
  std::map<std::string, std::string> reachable;
  VexaCCC::CCCVersionStateGetAllHosts(all, reachable);
  return reachable.contains(host_id) ? VexaCCC::State::Host::running : VexaCCC::State::Host::inaccessible;
}

void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                       const std::string& guest_id, std::string& state, std::string& ui_state, std::string& type,
                       std::string& reason) {
  if (IsFrozen()) {
    GetGuestStateFreeze(record, guest_id, state);
    GetStateType(STATE_CATE_GUEST, state, ui_state, type);
    return;
  }
  GetStateType(STATE_CATE_GUEST, state, ui_state, type);
  const std::string repo_id = json::String(json::Member(record, key::repository_id));
  std::string repo_state;
  if (Dashboard(DashCate::Repository, repo_id).Get(repo_state, key::state) != 0) {
    repo_state.clear();
  } else {
    if (repo_state == VexaCCC::State::Repo::inaccessible || repo_state == VexaCCC::State::Repo::crashed) {
      state = repo_state == VexaCCC::State::Repo::crashed ? GuestIs::crashed : GuestIs::inaccessible;
      GetStateType(STATE_CATE_GUEST, state, ui_state, type, reason);
    }
    // No reason is added for a lost guest, provided that the repository could be read.
    if (IsLost(state)) return;
  }
  if (state == GuestIs::shutdown) {
    ApplyShutdownRules(record, json::String(json::Member(record, key::host_id)), repo_state, type, reason);
  } else if (VexaCCC::Utils::IsGuestStateOnline(state) && !IsConnected(connected, guest_id)) {
    type = "warning";
    reason = "network_unconnectable";
  }
}

void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                       const std::string& guest_id, std::string& state, std::string& ui_state, std::string& type) {
  std::string reason;
  GetGuestStateType(record, connected, guest_id, state, ui_state, type, reason);
}

void GetGuestStateType(const Json::Value& record, const std::map<std::string, int>& connected,
                       const std::string& guest_id, std::string& ui_state, std::string& type) {
  std::string state = json::String(json::Member(record, key::state));
  GetGuestStateType(record, connected, guest_id, state, ui_state, type);
}

}  // namespace VexaVirtualization
