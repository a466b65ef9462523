#include "host/api/openapi.h"

#include <fmt/format.h>

#include <map>
#include <set>

#include "host/api/console.h"
#include "host/api/upload.h"
#include "host/base/byte_text.h"
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

void AddFailures(Json::Value& responses, const std::set<int>& codes, Audience audience) {
  std::map<int, std::string> by_status;
  for (const int code : codes) {
    const ErrorRow* error = FindError(code, audience);
    if (!error) continue;
    std::string& text = by_status[error->http_status];
    text += fmt::format("{}{}: {}", text.empty() ? "" : " ", code, error->sentence);
  }
  for (const auto& [status, text] : by_status) {
    Json::Value& response = responses[std::to_string(status)];
    response["description"] = text;
    response["content"]["application/json"]["schema"]["$ref"] = "#/components/schemas/Failure";
  }
}

Json::Value Responses(const ApiRow& row) {
  Json::Value responses(Json::objectValue);
  responses["200"]["description"] = "Success; the result is in \"data\".";
  responses["200"]["content"]["application/json"]["schema"]["$ref"] = "#/components/schemas/Success";
  AddFailures(responses, CodesOf(row), AudienceOf(row.access.value));
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

Json::Value TextParameter(const char* name, const char* place, const char* description) {
  Json::Value parameter(Json::objectValue);
  parameter["name"] = name;
  parameter["in"] = place;
  parameter["description"] = description;
  parameter["schema"]["type"] = "string";
  return parameter;
}

// GET /console/<guest id>, as users call it.
Json::Value ConsoleOperation() {
  using namespace user_error;
  Json::Value operation(Json::objectValue);
  operation["operationId"] = "console";
  operation["tags"].append("VEXA.Virtualization.Guest");
  operation["summary"] =
      "Open the screen or the serial line of a running guest: changes the connection to WebSocket (binary messages) or "
      "to vexa-tunnel (plain bytes). For administrators, and users to whom the guest was granted with its console. The "
      "caller has a session, with the CSRF token beside a cookie, or a ticket from console_ticket.";
  Json::Value guest = TextParameter("guest_id", "path", "The guest's id, a UUID.");
  guest["required"] = true;
  guest["schema"]["format"] = "uuid";
  Json::Value type = TextParameter("type", "query", "\"vnc\", the screen (RFC 6143), or \"serial\", the serial line.");
  type["required"] = true;
  type["schema"]["enum"].append(std::string(kScreenType));
  type["schema"]["enum"].append(std::string(kSerialType));
  Json::Value upgrade = TextParameter("Upgrade", "header", "Together with \"Connection: Upgrade\".");
  upgrade["required"] = true;
  upgrade["schema"]["enum"].append("websocket");
  upgrade["schema"]["enum"].append(std::string(http::kRawTunnel));
  operation["parameters"].append(guest);
  operation["parameters"].append(type);
  operation["parameters"].append(TextParameter("ticket", "query", "In place of a session: good once, for 30 s."));
  operation["parameters"].append(upgrade);
  Json::Value& responses = operation["responses"];
  responses["101"]["description"] = "The connection carries the console.";
  AddFailures(responses,
              {kInternal, kMalformed, kNotLoggedIn, kDenied, kBadCsrfToken, kHttpMethodNotAllowed, kHostBusy,
               kRequestTimeout, kNoSuchAddress, kBadParameter, kNotPermitted, kNotFoundOrUnreadable, kActionFailed,
               kNotRunning, kGuestBusy, kUnavailable, kUnreachable},
              Audience::kUsers);
  for (const char* scheme : {"token", "cookie"}) {
    Json::Value way(Json::objectValue);
    way[scheme] = Json::Value(Json::arrayValue);
    operation["security"].append(way);
  }
  operation["security"].append(Json::Value(Json::objectValue));  // a ticket
  return operation;
}

// PUT /upload/<upload id>.
Json::Value UploadOperation() {
  using namespace user_error;
  Json::Value operation(Json::objectValue);
  operation["operationId"] = "upload";
  operation["tags"].append("VEXA.Virtualization.Image");
  operation["summary"] = fmt::format(
      "Send a piece of at most {} of an image whose upload was begun with upload_begin. For administrators.",
      ByteText(kMaxPieceBytes));
  operation["x-vexa-access"] = std::string(AccessName(Access::kAdministrator));
  operation["x-vexa-lane"] = std::string(LaneName(LaneKind::kLong));
  Json::Value id = TextParameter("upload_id", "path", "The upload's id, a UUID.");
  id["required"] = true;
  id["schema"]["format"] = "uuid";
  Json::Value range = TextParameter(
      "Content-Range", "header",
      "Which bytes of the file the body has, both included, and the size of the file: \"bytes FIRST-LAST/TOTAL\".");
  range["required"] = true;
  range["schema"]["pattern"] = "^bytes [0-9]+-[0-9]+/[0-9]+$";
  operation["parameters"].append(id);
  operation["parameters"].append(range);
  operation["parameters"].append(
      TextParameter("X-Vexa-CSRF", "header", "The session's CSRF token, which a cookie needs."));
  Json::Value& body = operation["requestBody"];
  body["required"] = true;
  body["content"]["application/octet-stream"]["schema"]["type"] = "string";
  body["content"]["application/octet-stream"]["schema"]["format"] = "binary";
  Json::Value& success = operation["responses"]["200"];
  success["description"] = "The piece is on disk; \"received\" in \"data\" says how many bytes there are now.";
  success["content"]["application/json"]["schema"]["$ref"] = "#/components/schemas/Success";
  AddFailures(operation["responses"],
              {kInternal, kMalformed, kNotLoggedIn, kDenied, kBadCsrfToken, kHttpMethodNotAllowed, kHostBusy,
               kRequestTimeout, kNoSuchAddress, kBodyTooLarge, kBadParameter, kNotFoundOrUnreadable, kUnavailable,
               kRecordFailed, kUploadOffset, kNoRoom},
              Audience::kUsers);
  operation["responses"]["409"]["description"] = operation["responses"]["409"]["description"].asString() +
                                                 " The error's details say in \"received\" where the upload continues.";
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
  document["paths"][std::string(kConsolePath) + "{guest_id}"]["get"] = ConsoleOperation();
  document["paths"][std::string(kUploadPath) + "{upload_id}"]["put"] = UploadOperation();
  return VexaVirtualization::json::ToText(document);
}

}  // namespace vexa::api
