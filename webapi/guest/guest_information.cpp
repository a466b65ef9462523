#include <string>

#include "json/readers.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/transport.h"

namespace VexaVirtualization {

bool Guest::GetInformation(const std::string& guest_id, const Json::Value& record, Json::Value& info) {
  namespace key = VexaCCC::DB::_k;
  // Read first, because `info` may alias `record`.
  const std::string host_id = json::String(json::Member(record, key::host_id));
  const std::string state = json::String(json::Member(record, key::state));
  json::EnsureObject(info);
  info["ip"] = Json::Value(Json::arrayValue);
  info["uptime"] = "0";
  info["has_agent"] = false;
  if (state != VexaCCC::State::Guest::running) return false;

  VexaDRCore::Request request = transport::NewRequest("VEXA.CCC.Guest", "get_info");
  request.addParam("guest_id", guest_id);
  const VexaDRCore::Response response = VexaCCC::Sender(host_id).process(request);
  if (!response.isSuccess()) return false;
  if (response.hasDataField("ip")) info["ip"] = response.getDataField("ip");
  // Intentional: rendered as JSON, so a string keeps its quotes.
  if (response.hasDataField("uptime")) info["uptime"] = json::ToText(response.getDataField("uptime"));
  if (response.hasDataField("has_agent")) info["has_agent"] = response.getDataField("has_agent");
  return true;
}

}  // namespace VexaVirtualization
