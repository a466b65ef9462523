#include <string>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

// The positions of the items in the compound request, and of the entries in its replies.
enum Item : Json::ArrayIndex { kWeb, kInterfaces, kLoad, kMemory };

enum class IncludeUsage { kNo, kYes };

// Hosts can report any numbers. Sums and differences wrap around at 32 bits; computed unsigned, since signed overflow
// is undefined.
int WrappingSum(int a, int b) { return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b)); }
int WrappingDifference(int a, int b) {
  return static_cast<int>(static_cast<unsigned int>(a) - static_cast<unsigned int>(b));
}

VexaDRCore::Request ResourceRequest(IncludeUsage usage) {
  Json::Value items(Json::arrayValue);
  items.append(transport::NewItem("VEXA.Core.Web.Orla", "get"));
  items.append(transport::NewItem("VEXA.Core.Network.Interface", "list"));
  if (usage == IncludeUsage::kYes) {
    items.append(transport::NewItem("VEXA.Core.System.Utilization", "get", {"cpu"}));
    items.append(transport::NewItem("VEXA.CCC.Cluster.Member", "utilization_get", {"memory"}));
  }
  return transport::NewCompoundRequest(items);
}

void AddWebService(const Json::Value& web, const Json::Value& record, Json::Value& host) {
  host["http_port"] = json::Member(web, "http_port");
  host["https_port"] = json::Member(web, "https_port");
  host["https_enable"] = json::Member(web, "enable_https");
  host["https_redirect"] = json::Member(web, "enable_https_redirect");
  if (const Json::Value* ip = json::FindMember(record, key::prefer_connect_ip)) host["prefer_connect_ip"] = *ip;
}

bool IsUsable(const Json::Value& interface) {
  return json::String(json::Member(interface, "status")) != "disconnected" &&
         json::String(json::Member(interface, "type")) != "wificlient";
}

void AddAddresses(const Json::Value& interfaces, Json::Value& host) {
  for (const Json::Value& interface : json::Elements(interfaces)) {
    if (!IsUsable(interface)) continue;
    const Json::Value& ip = json::Member(interface, "ip");
    if (!json::String(ip).empty()) json::EnsureArray(host["ipList"]).append(ip);
  }
}

void AddUsage(const Json::Value& load, const Json::Value& memory, const Json::Value& record, Json::Value& host) {
  const int usage = GetCpuUsage(load);
  const int cores = json::Int(json::Member(record, key::cpu_cores));
  const double clock_mhz = json::Double(json::Member(record, key::cpu_clock_speed));
  host["cpu_usage"] = usage;
  // Intentional: without data the usage is -1, and 101 percent are free.
  host["free_cpu_ghz"] = WrappingDifference(100, usage) * (cores * (clock_mhz / 1000.0)) / 100.0;
  host["free_ram_size"] = GetFreeRamSize(memory);
  host["total_ram_size"] = json::Member(json::Member(memory, "memory"), "memory_size");
}

}  // namespace

int GetHostResourceInfo(bool with_usage, Json::Value& out) {
  const IncludeUsage usage = with_usage ? IncludeUsage::kYes : IncludeUsage::kNo;
  const VexaCCC::MultiResponse responses = VexaCCC::MultiSender::allHosts().process(ResourceRequest(usage));
  for (const std::string& host_id : responses.getHostList()) {
    const VexaDRCore::Response response = responses.getResponse(host_id);
    if (!transport::IsCompleteReply(response)) continue;
    Json::Value record;
    if (Dashboard(DashCate::Host, host_id).Get(record, key::object) != 0) return user_error::kNotFoundOrUnreadable;
    const Json::Value data = response.getData();
    Json::Value& host = json::EnsureObject(json::EnsureObject(out)[host_id]);
    AddWebService(transport::ItemData(data, kWeb), record, host);
    AddAddresses(transport::ItemData(data, kInterfaces), host);
    if (usage == IncludeUsage::kYes) {
      AddUsage(transport::ItemData(data, kLoad), transport::ItemData(data, kMemory), record, host);
    }
  }
  return 0;
}

int GetCpuUsage(const Json::Value& utilization) {
  if (!VexaCCC::Utils::jsChkMemberInDepth(utilization, {"cpu", "system_load"}) ||
      !VexaCCC::Utils::jsChkMemberInDepth(utilization, {"cpu", "user_load"})) {
    return -1;
  }
  const Json::Value& cpu = json::Member(utilization, "cpu");
  return WrappingSum(json::Int(json::Member(cpu, "system_load")), json::Int(json::Member(cpu, "user_load")));
}

int GetFreeRamSize(const Json::Value& utilization) {
  const Json::Value& memory = json::Member(utilization, "memory");
  int sum = json::Int(json::Member(memory, "avail_real"));
  sum = WrappingSum(sum, json::Int(json::Member(memory, "buffer")));
  return WrappingSum(sum, json::Int(json::Member(memory, "cached")));
}

int GetHostTotalMemory(const std::string& host_id) {
  Json::Value record;
  // Not found is positive: the empty record has no memory either.
  if (Dashboard(DashCate::Host, host_id).Get(record, key::object) < 0) return 0;
  return json::Int(json::Member(record, "ram_size"));
}

}  // namespace VexaVirtualization
