#include "host/api/user/host_list_api.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/unreachable_host.h"
#include "host/base/certificate_times.h"
#include "host/records/host_membership.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

namespace states = VexaCCC::State::Host;
using VexaCCC::DB::DashCate;

// A certificate is renewed after two thirds of its lifetime, so one that is close to its end has not been.
constexpr std::chrono::hours kExpiryWarning{24 * 14};

std::string VersionStateName(const std::string& state) {
  if (state.empty() || state == VexaCCC::State::Version::unknown) return "unknown";
  VexaVirtualization::UIState displayed;
  VexaVirtualization::GetStateType(VexaVirtualization::STATE_CATE_VERSION, state, displayed);
  return displayed.state;
}

// The displayed state of a running host whose version differs from the others' is that of its version.
void AddDisplayedState(const std::string& state, const std::string& version_state, Json::Value& host) {
  const bool uses_version =
      VexaVirtualization::GetHostStateCate(state, version_state) == VexaVirtualization::STATE_CATE_VERSION;
  VexaVirtualization::UIState displayed;
  VexaVirtualization::GetStateType(
      uses_version ? VexaVirtualization::STATE_CATE_VERSION : VexaVirtualization::STATE_CATE_HOST,
      uses_version ? version_state : state, displayed);
  host["status_of"] = uses_version ? "version" : "host";
  host["status"] = uses_version ? displayed.state : std::string(HostStateName(state));
  host["status_type"] = displayed.type;
}

std::string_view CertificateState(const records::Reader& reader, const std::string& id, const CertificateTimes& times) {
  using std::chrono::system_clock;
  const auto membership = records::MembershipOf(reader, id);
  if (membership && !membership->Accepts(times.not_before)) return "revoked";
  const auto now = system_clock::now();
  if (times.HasExpired(now)) return "expired";
  const system_clock::duration lifetime = times.not_after - times.not_before;
  const auto margin = std::min<system_clock::duration>(kExpiryWarning, lifetime / 10 * 3);
  return times.not_after - now < margin ? "expiring" : "ok";
}

void AddCertificate(const records::Reader& reader, const std::string& id, const Json::Value& record,
                    Json::Value& host) {
  const Json::Value& certificate = json::Member(record, "certificate");
  const Json::Value& expires = json::Member(certificate, "expires");
  if (!expires.isInt64()) return;  // it has none, or its version does not publish it
  const CertificateTimes times{records::TimeFromJson(json::Member(certificate, "issued")),
                               records::TimeFromJson(expires)};
  host["certificate"] = std::string(CertificateState(reader, id, times));
  host["certificate_expires"] = expires;
}

// A host whose record cannot be read is still listed, without a name: its existence is worth knowing.
Json::Value Describe(const records::Reader& reader, const std::string& id, const std::string& version_state) {
  const auto found = records::ReadMember(reader, DashCate::Host, id, keys::object);
  const Json::Value& record = found && *found ? **found : Json::Value::nullSingleton();
  const std::string state = json::String(json::Member(record, keys::state));
  Json::Value host(Json::objectValue);
  host["host_id"] = id;
  host["name"] = json::String(json::Member(record, keys::name));
  host["state"] = std::string(HostStateName(state));
  AddLiveness(LivenessOrAlive(reader, id), std::chrono::system_clock::now(), std::chrono::seconds(0), host);
  host["version_state"] = VersionStateName(version_state);
  AddDisplayedState(state, version_state, host);
  AddCertificate(reader, id, record, host);
  return host;
}

void ListHosts(const Call& call) {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return FailUnreadable(call, reader.error());
  const auto ids = (*reader)->Children(records::CategoryKey(DashCate::Host.name()));
  if (!ids) return FailUnreadable(call, ids.error());
  std::map<std::string, std::string> versions;
  std::map<std::string, std::string> reachable;
  // When this fails, the hosts are listed with unknown versions.
  (void)VexaCCC::CCCVersionStateGetAllHosts(versions, reachable);
  Json::Value data(Json::objectValue);
  data["hosts"] = Json::Value(Json::arrayValue);
  for (const std::string& id : *ids) data["hosts"].append(Describe(**reader, id, versions[id]));
  call.response->SetSuccess(data);
}

}  // namespace

std::string_view HostStateName(std::string_view state) {
  const std::pair<const char*, std::string_view> names[] = {{states::running, "running"},
                                                            {states::inaccessible, "inaccessible"},
                                                            {states::network_warn, "network_warn"},
                                                            {states::control_unavail, "control_unavail"}};
  for (const auto& [known, name] : names) {
    if (state == known) return name;
  }
  return "unknown";
}

std::vector<ApiRow> HostListRows() {
  return {UserRow("VEXA.Virtualization.Host", "list", LaneKind::kQuick, ListHosts,
                  "The hosts of the cluster: id, name, state, version state, displayed state, and certificate.", {},
                  {user_error::kNotFoundOrUnreadable})};
}

}  // namespace vexa::api
