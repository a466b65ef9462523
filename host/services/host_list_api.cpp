#include "host/services/host_list_api.h"

#include <chrono>
#include <string>
#include <utility>

#include "host/services/gone_host.h"
#include "host/services/rows.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/json.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Host;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;
using webapi::Call;

// A host whose record cannot be read is listed all the same, without a name: that it is there is worth knowing.
Json::Value Describe(const std::string& id) {
  Json::Value record;
  const bool readable = Dashboard(DashCate::Host, id).Get(record, keys::object) == 0;
  const std::string state = readable ? json::String(json::Member(record, keys::state)) : std::string();
  Json::Value host(Json::objectValue);
  host["host_id"] = id;
  host["name"] = json::String(json::Member(record, keys::name));
  host["state"] = std::string(HostStateWord(state));
  ShowLife(LifeOrAlive(id), std::chrono::system_clock::now(), std::chrono::seconds(0), host);
  return host;
}

void List(const Call& call) {
  std::vector<std::string> ids;
  if (DashCate::Host.List(ids) != 0) return Fail(call, kErrorUnreadable);
  Json::Value data(Json::objectValue);
  data["hosts"] = Json::Value(Json::arrayValue);
  for (const std::string& id : ids) data["hosts"].append(Describe(id));
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
           .handler = List,
           .summary = "The hosts of the cluster: id, name and state.",
           .parameters = {},
           .errors = {kErrorUnreadable}}};
}

}  // namespace vexa::services
