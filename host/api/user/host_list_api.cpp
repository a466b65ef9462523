#include "host/api/user/host_list_api.h"

#include <chrono>
#include <map>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/gone_host.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Host;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using webapi::Call;

std::string VersionWord(const std::string& state) {
  if (state.empty() || state == VexaCCC::State::Version::unknown) return "unknown";
  VexaVirtualization::UIState shown;
  VexaVirtualization::GetStateType(VexaVirtualization::STATE_CATE_VERSION, state, shown);
  return shown.state;
}

// What is shown for the host: a running host whose version differs from the others' is shown by its version.
void PutShown(const std::string& state, const std::string& version_state, Json::Value& host) {
  const bool is_by_version =
      VexaVirtualization::GetHostStateCate(state, version_state) == VexaVirtualization::STATE_CATE_VERSION;
  VexaVirtualization::UIState shown;
  VexaVirtualization::GetStateType(
      is_by_version ? VexaVirtualization::STATE_CATE_VERSION : VexaVirtualization::STATE_CATE_HOST,
      is_by_version ? version_state : state, shown);
  host["status_of"] = is_by_version ? "version" : "host";
  host["status"] = is_by_version ? shown.state : std::string(HostStateWord(state));
  host["status_type"] = shown.type;
}

// A host whose record cannot be read is still listed, without a name: its existence is worth knowing.
Json::Value Describe(const std::string& id, const std::string& version_state) {
  Json::Value record;
  const bool readable = Dashboard(DashCate::Host, id).Get(record, keys::object) == 0;
  const std::string state = readable ? json::String(json::Member(record, keys::state)) : std::string();
  Json::Value host(Json::objectValue);
  host["host_id"] = id;
  host["name"] = json::String(json::Member(record, keys::name));
  host["state"] = std::string(HostStateWord(state));
  ShowLife(LifeOrAlive(id), std::chrono::system_clock::now(), std::chrono::seconds(0), host);
  host["version_state"] = VersionWord(version_state);
  PutShown(state, version_state, host);
  return host;
}

void ListHosts(const Call& call) {
  std::vector<std::string> ids;
  if (DashCate::Host.List(ids) != 0) return Fail(call, kErrorUnreadable);
  std::map<std::string, std::string> versions;
  std::map<std::string, std::string> reachable;
  // Without them the hosts are listed with unknown versions.
  (void)VexaCCC::CCCVersionStateGetAllHosts(versions, reachable);
  Json::Value data(Json::objectValue);
  data["hosts"] = Json::Value(Json::arrayValue);
  for (const std::string& id : ids) data["hosts"].append(Describe(id, versions[id]));
  call.response->SetSuccess(data);
}

}  // namespace

std::string_view HostStateWord(std::string_view state) {
  const std::pair<const char*, std::string_view> words[] = {{states::running, "running"},
                                                            {states::inaccessible, "inaccessible"},
                                                            {states::network_warn, "network_warn"},
                                                            {states::control_unavail, "control_unavail"}};
  for (const auto& [known, word] : words) {
    if (state == known) return word;
  }
  return "unknown";
}

std::vector<webapi::ApiRow> HostListRows() {
  return {{.api = "VEXA.Virtualization.Host",
           .method = "list",
           .version = 1,
           .access = webapi::Access::kUser,
           .lane = webapi::LaneKind::kQuick,
           .handler = ListHosts,
           .summary = "The hosts of the cluster: id, name, state, version state, and displayed state.",
           .parameters = {},
           .errors = {kErrorUnreadable}}};
}

}  // namespace vexa::services
