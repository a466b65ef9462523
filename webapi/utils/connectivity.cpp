#include <map>
#include <string>
#include <utility>
#include <vector>

#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

// Prefix of private bridges, which need no host port.
constexpr const char* kPrivateBridgePrefix = "PN";

// The size of a guest's bit mask of connected interfaces.
constexpr Json::ArrayIndex kBits = 32;

// Which ports of the hosts have a link. Guests share few ports, so each port is looked up once.
class PortLinks {
 public:
  explicit PortLinks(const VexaCCC::MultiResponse& responses) {
    for (const std::string& host_id : responses.getHostList()) {
      const VexaDRCore::Response response = responses.getResponse(host_id);
      if (!response.isSuccess() || !response.hasData()) continue;
      const Json::Value data = response.getData();
      for (const Json::Value& interface : json::Elements(data)) {
        links_[host_id + "_" + json::String(json::Member(interface, "ifname"))] =
            json::String(json::Member(interface, "status")) == "connected";
      }
    }
  }

  // Whether the port has a link; it is looked up by its name with the "ovs_" prefix.
  bool IsUp(const std::string& host_id, const std::string& nic_id) {
    const auto [cached, is_new] = cache_.try_emplace({host_id, nic_id}, false);
    if (is_new) cached->second = Find(host_id, nic_id);
    return cached->second;
  }

 private:
  bool Find(const std::string& host_id, const std::string& nic_id) const {
    std::string name;
    if (!GetInterfaceNameById(host_id, nic_id, name)) return false;
    const auto link = links_.find(host_id + "_ovs_" + name);
    return link != links_.end() && link->second;
  }

  std::map<std::string, bool> links_;                          // by "<host id>_<interface name>"
  std::map<std::pair<std::string, std::string>, bool> cache_;  // by host id and port id
};

// Whether a guest's interface is connected on this host, according to its entry for the host.
bool IsConnectedOn(const std::string& host_id, const Json::Value& host_entry, PortLinks& links) {
  const Json::Value* bridge = json::FindMember(host_entry, key::bridge_name);
  if (!bridge) return false;
  if (json::String(*bridge).starts_with(kPrivateBridgePrefix)) return true;
  const Json::Value* port = json::FindMember(host_entry, key::nic_id);
  return port && links.IsUp(host_id, json::String(*port));
}

// Sets the bit at the interface's position in its guest's list, if the list has the interface.
void MarkConnected(const std::string& guest_id, const Json::Value& vnic_id, std::map<std::string, int>& connected) {
  Json::Value guest;
  if (Dashboard(DashCate::Guest, guest_id).Get(guest, key::object) != 0) return;
  Json::ArrayIndex position = 0;
  for (const Json::Value& listed : json::Elements(json::Member(guest, key::vnics))) {
    if (listed == vnic_id) {
      int& bits = connected[guest_id];
      bits = static_cast<int>(static_cast<unsigned int>(bits) | 1u << position % kBits);
      return;
    }
    ++position;
  }
}

void AddVnic(const std::string& vnic_id, PortLinks& links, std::map<std::string, int>& connected) {
  Json::Value vnic;
  if (Dashboard(DashCate::vNic, vnic_id).Get(vnic, key::object) != 0) return;
  const Json::Value* guest_id = json::FindMember(vnic, key::guest_id);
  const Json::Value* host_entries = json::FindMember(vnic, key::running);
  if (!guest_id || !host_entries) return;
  for (const std::string& host_id : json::MemberNames(*host_entries)) {
    if (IsConnectedOn(host_id, json::Member(*host_entries, host_id), links)) {
      MarkConnected(json::String(*guest_id), Json::Value(vnic_id), connected);
    }
  }
}

}  // namespace

bool GetGuestsConnectedMap(std::map<std::string, int>& connected) {
  connected.clear();
  std::vector<std::string> host_ids;
  std::vector<std::string> guest_ids;
  std::vector<std::string> vnic_ids;
  // Unlike elsewhere, a category that was never created is a failure.
  if (DashCate::Host.List(host_ids) != 0 || DashCate::Guest.List(guest_ids) != 0 ||
      DashCate::vNic.List(vnic_ids) != 0) {
    return false;
  }
  for (const std::string& guest_id : guest_ids) connected.emplace_hint(connected.end(), guest_id, 0);
  const VexaDRCore::Request request = transport::NewRequest("VEXA.Core.Network.Interface", "list");
  PortLinks links(VexaCCC::MultiSender(host_ids).process(request));
  for (const std::string& vnic_id : vnic_ids) AddVnic(vnic_id, links, connected);
  return true;
}

}  // namespace VexaVirtualization
