#include "host/api/openapi.h"

#include <fmt/format.h>

#include <map>
#include <set>

#include "host/base/error_table.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

const char* SchemaType(ParameterType type) {
  // In the order of the enumerators.
  constexpr const char* kTypes[] = {"string", "integer", "boolean", "array", "object"};
  return kTypes[static_cast<std::size_t>(type)];
}

Json::Value ParametersSchema(const ApiRow& row) {
  Json::Value schema(Json::objectValue);
  schema["type"] = "object";
  for (const Parameter& parameter : row.parameters) {
    Json::Value& property = schema["properties"][std::string(parameter.name)];
    property["type"] = SchemaType(parameter.type);
    property["description"] = std::string(parameter.description);
    if (parameter.type == ParameterType::kArray) property["items"] = Json::Value(Json::objectValue);
    if (parameter.max_items > 0) property["maxItems"] = Json::UInt64{parameter.max_items};
    if (parameter.necessity == Necessity::kRequired) schema["required"].append(std::string(parameter.name));
  }
  return schema;
}

// The codes that a method can return: its own, and those of its access.
std::set<int> CodesOf(const ApiRow& row) {
  std::set<int> codes(row.errors.begin(), row.errors.end());
  codes.insert({user_error::kInternal, user_error::kMalformed, user_error::kHostBusy, user_error::kNotJson,
                user_error::kBodyTooLarge, user_error::kHttpMethodNotAllowed, user_error::kRequestTimeout});
  if (row.access.value == Access::kAnyone) return codes;
  codes.insert({user_error::kNotLoggedIn, user_error::kDenied, user_error::kBadCsrfToken});
  return codes;
}

Json::Value Responses(const ApiRow& row) {
  Json::Value responses(Json::objectValue);
  responses["200"]["description"] = "Success; the result is in \"data\".";
  responses["200"]["content"]["application/json"]["schema"]["$ref"] = "#/components/schemas/Success";
  std::map<int, std::string> by_status;
  for (const int code : CodesOf(row)) {
    const ErrorRow* error = FindError(code, AudienceOf(row.access.value));
    if (!error) continue;
    std::string& text = by_status[error->http_status];
    text += fmt::format("{}{}: {}", text.empty() ? "" : " ", code, error->sentence);
  }
  for (const auto& [status, text] : by_status) {
    Json::Value& response = responses[std::to_string(status)];
    response["description"] = text;
    response["content"]["application/json"]["schema"]["$ref"] = "#/components/schemas/Failure";
  }
  return responses;
}

Json::Value Operation(const ApiRow& row) {
  Json::Value operation(Json::objectValue);
  operation["operationId"] = fmt::format("{}.{}", row.api, row.method);
  operation["tags"].append(std::string(row.api));
  operation["summary"] = std::string(row.summary);
  operation["x-vexa-access"] = std::string(AccessName(row.access.value));
  operation["x-vexa-lane"] = std::string(LaneName(row.lane.value));
  operation["requestBody"]["required"] = false;
  operation["requestBody"]["content"]["application/json"]["schema"] = ParametersSchema(row);
  operation["responses"] = Responses(row);
  Json::Value version(Json::objectValue);
  version["name"] = "version";
  version["in"] = "query";
  version["description"] = "The method's version.";
  version["schema"]["type"] = "integer";
  version["schema"]["default"] = 1;
  version["schema"]["enum"].append(row.version);
  operation["parameters"].append(version);
  if (row.access.value == Access::kAnyone) {
    operation["security"] = Json::Value(Json::arrayValue);
  }
  return operation;
}

Json::Value Schemas() {
  Json::Value schemas(Json::objectValue);
  Json::Value& success = schemas["Success"];
  success["type"] = "object";
  success["properties"]["success"]["type"] = "boolean";
  success["properties"]["data"] = Json::Value(Json::objectValue);
  success["properties"]["request_id"]["type"] = "string";
  success["required"].append("success");
  success["required"].append("data");
  success["required"].append("request_id");
  Json::Value& failure = schemas["Failure"];
  failure["type"] = "object";
  failure["properties"]["success"]["type"] = "boolean";
  Json::Value& error = failure["properties"]["error"];
  error["type"] = "object";
  error["properties"]["code"]["type"] = "integer";
  error["properties"]["message"]["type"] = "string";
  error["properties"]["details"] = Json::Value(Json::objectValue);
  error["required"].append("code");
  error["required"].append("message");
  failure["properties"]["request_id"]["type"] = "string";
  failure["required"].append("success");
  failure["required"].append("error");
  failure["required"].append("request_id");
  return schemas;
}

}  // namespace

std::string MakeOpenApi(const ApiTable& table) {
  Json::Value document(Json::objectValue);
  document["openapi"] = "3.0.3";
  document["info"]["title"] = "VEXA Virtualization";
  document["info"]["version"] = VEXA_VERSION;
  document["info"]["description"] =
      "Call a method with POST and its parameters as a JSON object. On the Unix socket the caller is the user of the "
      "process; on the network, it is the user of a session from VEXA.Core.Session login.";
  document["components"]["schemas"] = Schemas();
  Json::Value& schemes = document["components"]["securitySchemes"];
  schemes["token"]["type"] = "http";
  schemes["token"]["scheme"] = "bearer";
  schemes["cookie"]["type"] = "apiKey";
  schemes["cookie"]["in"] = "cookie";
  schemes["cookie"]["name"] = "vexa_session";
  Json::Value token(Json::objectValue);
  token["token"] = Json::Value(Json::arrayValue);
  Json::Value cookie(Json::objectValue);
  cookie["cookie"] = Json::Value(Json::arrayValue);
  document["security"].append(token);
  document["security"].append(cookie);
  for (const ApiRow& row : table.rows()) {
    document["paths"][fmt::format("/webapi/{}/{}", row.api, row.method)]["post"] = Operation(row);
  }
  return VexaVirtualization::json::ToText(document);
}

}  // namespace vexa::api
