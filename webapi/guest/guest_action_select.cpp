#include <algorithm>
#include <string>

#include "json/readers.h"
#include "webapi/guest/guest_action.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/log.h"
#include "webapi/utils/transport.h"

namespace VexaVirtualization {
namespace {

constexpr char kBestStorage[] = "best_io";

bool HasBestStorage(const Json::Value& host) {
  const Json::Value& tags = json::Elements(json::Member(host, "status"));
  return std::any_of(tags.begin(), tags.end(),
                     [](const Json::Value& tag) { return json::String(tag) == kBestStorage; });
}

// The id of the first available host with the best storage access, otherwise (intentionally) of the last available one.
// Empty when no host is available or the chosen one has no id.
std::string ChooseHost(const Json::Value& hosts) {
  std::string chosen;
  if (!hosts.isArray() && !hosts.isObject()) return chosen;
  for (const Json::Value& host : hosts) {
    if (!json::Bool(json::Member(host, "available"))) continue;
    chosen = json::String(json::Member(host, "host_id"));
    if (HasBestStorage(host)) break;
  }
  return chosen;
}

}  // namespace

int GuestAction::AutoSelectHost(const std::string& guest_id) {
  VexaCCC::Sender sender = VexaCCC::Sender::localhost();
  VexaDRCore::Request request = transport::NewRequest("VEXA.Virtualization.Guest.Action", "check_host_resource");
  request.addParam("guest_id", guest_id);
  request.addParam("type", "poweron");
  VexaDRCore::Response reply = sender.process(request);
  if (!reply.isSuccess()) {
    transport::LogBadResponse(LOG_ERR, __LINE__, reply, request, "guest_action");
    return -1;
  }
  const std::string chosen = ChooseHost(reply.getDataField("hosts"));
  if (chosen.empty()) {
    VEXA_LOG("guest_action", "Failed to find a available host to poweron guest[%s]", guest_id.c_str());
    return -1;
  }
  request = transport::NewRequest("VEXA.CCC.Guest", "hostset");
  request.addParam("guest_id", guest_id);
  request.addParam("host_id", chosen);
  reply = sender.process(request);
  if (!reply.isSuccess()) {
    transport::LogBadResponse(LOG_ERR, __LINE__, reply, request, "guest_action");
    return -1;
  }
  // Log monitors match this spelling.
  VEXA_LOG("guest_action", "Succeccfully auto select host[%s] to poweron guest[%s]", chosen.c_str(), guest_id.c_str());
  return 0;
}

}  // namespace VexaVirtualization
