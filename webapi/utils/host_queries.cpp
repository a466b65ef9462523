#include <syslog.h>

#include <string>

#include "json/readers.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/transport.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

using VexaCCC::Sender;
using VexaDRCore::Request;
using VexaDRCore::Response;

// Log monitors match these positions; they must not change.
constexpr int kUtilizationPosition = 256;
constexpr int kSystemPosition = 297;
constexpr int kVolumePosition = 323;
constexpr int kDiskUsagePosition = 352;

// Sends the request to `host` and sets `out` to the data of the reply.
bool QueryData(const std::string& host, const Request& request, int log_position, Json::Value& out) {
  const Response response = Sender(host).process(request);
  if (!response.isSuccess() || !response.hasData()) {
    transport::LogBadResponse(LOG_ERR, log_position, response, request);
    return false;
  }
  out = response.getData();
  return true;
}

}  // namespace

bool GetSysUtilization(const std::string& host, const Json::Value& params, Json::Value& out) {
  Json::Value utilization = transport::NewItem("VEXA.Core.System.Utilization", "get");
  utilization["resource"] = json::Member(params, "resource");
  Json::Value items(Json::arrayValue);
  items.append(utilization);
  items.append(transport::NewItem("VEXA.CCC.Cluster.Member", "utilization_get", {"memory"}));
  const Request request = transport::NewCompoundRequest(items);
  Json::Value data;
  if (!QueryData(host, request, kUtilizationPosition, data)) return false;
  // A reply without entries is a success without data.
  out = transport::ItemData(data, 0);
  json::EnsureObject(out)["memory"] = json::Member(transport::ItemData(data, 1), "memory");
  return true;
}

bool GetSysInfo(const std::string& host, Json::Value& out) {
  return QueryData(host, transport::NewRequest("VEXA.Core.System", "info"), kSystemPosition, out);
}

bool GetVolumeInfo(const std::string& host, const Json::Value& params, Json::Value& out) {
  Request request = transport::NewRequest("VEXA.Core.Storage.Volume", "get");
  request.addParam(params);
  return QueryData(host, request, kVolumePosition, out);
}

void GetVdiskUsage(const std::string& guest_id, const std::string& host, Json::Value& out) {
  Request request = transport::NewRequest("VEXA.CCC.VDisk", "list");
  request.addParam("guest_id", guest_id);
  const Response response = Sender(host).process(request);
  json::EnsureObject(out);
  Json::UInt64 total_size = 0;
  Json::UInt64 total_used = 0;
  if (response.isSuccess() && response.hasDataField("vdisks")) {
    const Json::Value disks = response.getDataField("vdisks");
    for (const Json::Value& disk : json::Elements(disks)) {
      const Json::UInt64 size = json::UInt64(json::Member(disk, "total_size"));
      const Json::UInt64 used = json::UInt64(json::Member(disk, "used_size"));
      total_size += size;
      total_used += used;
      Json::Value& usage = out[json::String(json::Member(disk, "vdisk_id"))] = Json::Value(Json::objectValue);
      usage["size"] = size;
      usage["used"] = used;
    }
  } else {
    transport::LogBadResponse(LOG_DEBUG, kDiskUsagePosition, response, request);
  }
  out["total_size"] = total_size;
  out["total_used"] = total_used;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the declaration is fixed.
bool GetNetStat(std::string host, std::string ifname, Json::Value& out) {
  const char* api = "VEXA.Core.Network.Ethernet";
  if (ifname.find("bond") != std::string::npos) {
    api = "VEXA.Core.Network.Bond";
    if (ifname.find("ovs_") == std::string::npos) ifname.insert(0, "ovs_");
  }
  Request request = transport::NewRequest(api, "get");
  request.addParam("ifname", ifname);
  const Response response = Sender(host).process(request);
  if (!response.isSuccess() || !response.hasDataField("speed") || !response.hasDataField("status")) return false;
  json::EnsureObject(out);
  out["speed"] = response.getDataField("speed");
  out["status"] = response.getDataField("status");
  return true;
}

}  // namespace VexaVirtualization
