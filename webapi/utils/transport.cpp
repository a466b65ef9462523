#include "webapi/utils/transport.h"

#include <string>

#include "json/readers.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {

bool HasFail(const VexaDRCore::Response& response) {
  return response.hasField("has_fail") && json::Bool(response.getField("has_fail"));
}

namespace transport {
namespace {

constexpr int kVersion = 1;

}  // namespace

VexaDRCore::Request NewRequest(const char* api, const char* method) {
  VexaDRCore::Request request;
  request.setAPI(api);
  request.setVersion(kVersion);
  request.setMethod(method);
  return request;
}

Json::Value NewItem(const char* api, const char* method) {
  Json::Value item(Json::objectValue);
  item["api"] = api;
  item["version"] = kVersion;
  item["method"] = method;
  return item;
}

Json::Value NewItem(const char* api, const char* method, std::initializer_list<const char*> resources) {
  Json::Value item = NewItem(api, method);
  Json::Value& names = item["resource"] = Json::Value(Json::arrayValue);
  for (const char* name : resources) names.append(name);
  return item;
}

VexaDRCore::Request NewCompoundRequest(const Json::Value& items) {
  VexaDRCore::Request request = NewRequest("VEXA.Entry.Request", "request");
  request.addParam("compound", items);
  request.addParam("mode", "parallel");
  return request;
}

const Json::Value& ItemData(const Json::Value& data, Json::ArrayIndex index) {
  return json::Member(json::Element(json::Member(data, "result"), index), "data");
}

bool IsCompleteReply(const VexaDRCore::Response& response) {
  return response.isSuccess() && !HasFail(response) && response.hasData();
}

void LogBadResponse(int priority, int position, const VexaDRCore::Response& response,
                    const VexaDRCore::Request& request, const char* unit) {
  const std::string reply_text = json::ToText(response.toJson());
  const std::string request_text = json::ToText(request.toJson());
  VEXA_LOG_AT(priority, unit, position, "Bad response [%s]/ request [%s]", reply_text.c_str(), request_text.c_str());
}

}  // namespace transport
}  // namespace VexaVirtualization
