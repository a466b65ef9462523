#include <algorithm>
#include <string>
#include <vector>

#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_network.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/etcd.h"
#include "webapi/utils/log.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

// Log monitors match this position; it must not change.
constexpr int kNoAddressPosition = 1737;

constexpr int kDefaultVnicType = 1;

bool ListNics(Dashboard& host, std::vector<std::string>& ids) { return host.Ls(ids, key::nics) >= 0; }

bool ReadNic(Dashboard& host, const std::string& id, Json::Value& record) {
  return host.Get(record, VexaETCD::Path{key::nics, id}) == 0;
}

// Appends the elements of `interfaces` with exactly this name, including a virtual switch's prefix.
void AppendMatchingInterfaces(const Json::Value& interfaces, const std::string& name, const std::string& nic_id,
                              const std::string& host_id, Json::Value& out) {
  for (const Json::Value& interface : json::Elements(interfaces)) {
    if (!interface.isObject() || json::String(json::Member(interface, "ifname")) != name) continue;
    Json::Value& appended = json::EnsureArray(out).append(interface);
    appended["interface_id"] = nic_id;
    appended["host_id"] = host_id;
  }
}

void AppendInterfacesOf(const std::string& host_id, const Json::Value& interfaces, Json::Value& out) {
  Dashboard host(DashCate::Host, host_id);
  std::vector<std::string> nic_ids;
  if (!ListNics(host, nic_ids)) return;
  for (const std::string& nic_id : nic_ids) {
    Json::Value record;
    if (!ReadNic(host, nic_id, record)) continue;
    const Json::Value* name = json::FindMember(record, key::name);
    if (name) AppendMatchingInterfaces(interfaces, json::String(*name), nic_id, host_id, out);
  }
}

}  // namespace

void GetAllInterfaceInfo(Json::Value& out) {
  const VexaDRCore::Request request = transport::NewRequest("VEXA.Core.Network.Interface", "list");
  const VexaCCC::MultiResponse responses = VexaCCC::MultiSender::allHosts().process(request);
  for (const std::string& host_id : responses.getHostList()) {
    const VexaDRCore::Response response = responses.getResponse(host_id);
    if (transport::IsCompleteReply(response)) AppendInterfacesOf(host_id, response.getData(), out);
  }
}

bool GetInterfaceNameById(const std::string& host_id, const std::string& interface_id, std::string& name) {
  Dashboard host(DashCate::Host, host_id);
  std::vector<std::string> nic_ids;
  if (!ListNics(host, nic_ids)) return false;
  if (std::find(nic_ids.begin(), nic_ids.end(), interface_id) == nic_ids.end()) return false;
  Json::Value record;
  if (!ReadNic(host, interface_id, record)) return false;
  name = VexaCCC::Utils::TrimOVSPrefix(json::String(json::Member(record, key::name)));
  return true;
}

int MacAddrCheck(const std::string& mac, Json::Value& err) {
  std::string guest_id;
  if (VexaCCC::VNicMacAddrCheck(mac, &guest_id) == 0) return 0;
  err = Json::Value(Json::objectValue);
  err["mac_addr"] = mac;
  std::string guest_name;
  if (VexaCCC::Utils::GetNameById(DashCate::Guest, guest_id, guest_name) == 0) err["guest_name"] = guest_name;
  return -1;
}

int GetDefaultVnic(Json::Value& vnics) {
  std::string mac;
  if (VexaCCC::VNicMacAddrGen(mac) != 0) {
    VEXA_LOG_AT(LOG_ERR, "utils", kNoAddressPosition, "Failed to gen mac");
    return -1;
  }
  Json::Value vnic(Json::objectValue);
  vnic["prefer_sriov"] = false;
  vnic["vnic_type"] = kDefaultVnicType;
  vnic["type"] = "add";
  vnic["mac"] = mac;
  // Not yet attached to a network.
  vnic["network_id"] = "";
  json::EnsureArray(vnics).append(vnic);
  return 0;
}

}  // namespace VexaVirtualization
