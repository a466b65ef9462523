#include "host/api/openapi.h"

#include <fmt/format.h>

#include <cctype>
#include <map>
#include <set>

#include "host/api/console.h"
#include "host/api/openapi_pages.h"
#include "host/api/schema_example.h"
#include "host/api/upload.h"
#include "host/base/error_table.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

constexpr char kSchemas[] = "#/components/schemas/";

// "VirtualizationGuestList" of VEXA.Virtualization.Guest list.
std::string NameOf(const ApiRow& row) {
  const std::string_view api = row.api.starts_with("VEXA.") ? row.api.substr(5) : row.api;
  std::string name;
  bool is_first = true;
  for (const char c : fmt::format("{}.{}", api, row.method)) {
    const bool is_separator = c == '.' || c == '_';
    if (!is_separator) name += is_first ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c;
    is_first = is_separator;
  }
  return name;
}

Json::Value Reference(const std::string& schema) {
  Json::Value reference(Json::objectValue);
  reference["$ref"] = kSchemas + schema;
  return reference;
}

// The codes that a method can return: its own, and those of its access.
std::set<int> CodesOf(const ApiRow& row) {
  std::set<int> codes(row.errors.begin(), row.errors.end());
  codes.insert({user_error::kInternal, user_error::kMalformed, user_error::kHostBusy, user_error::kNotJson,
                user_error::kBodyTooLarge, user_error::kHttpMethodNotAllowed, user_error::kRequestTimeout});
  // For members that the method does not know.
  if (row.access.value != Access::kHost) codes.insert(user_error::kBadParameter);
  if (row.access.value == Access::kAnyone) return codes;
  codes.insert({user_error::kNotLoggedIn, user_error::kDenied, user_error::kBadCsrfToken});
  return codes;
}

Json::Value RequestSchema(const ApiRow& row) {
  Json::Value schema = ToJsonSchema(row.request);
  // Hosts of a newer version may send more to each other than this one knows.
  if (row.access.value != Access::kHost) schema["additionalProperties"] = false;
  return schema;
}

Json::Value Body(const ApiRow& row) {
  Json::Value body(Json::objectValue);
  bool is_required = false;
  for (const SchemaMember& member : row.request.members) {
    is_required = is_required || member.necessity == Necessity::kRequired;
  }
  body["required"] = is_required;
  Json::Value& content = body["content"]["application/json"];
  content["schema"] = RequestSchema(row);
  content["example"] = ExampleOf(row.request, Optionals::kRequiredOnly);
  return body;
}

Json::Value ExampleReply(const ApiRow& row) {
  Json::Value example(Json::objectValue);
  example["success"] = true;
  example["data"] = ExampleOf(*row.reply, Optionals::kAll);
  example["request_id"] = "5f0c1a2b3d4e5f60";
  return example;
}

Json::Value Responses(const ApiRow& row) {
  Json::Value responses(Json::objectValue);
  responses["200"]["description"] = "Success; the result is in \"data\".";
  Json::Value& content = responses["200"]["content"]["application/json"];
  content["schema"] = SuccessSchema(row.reply ? Reference(NameOf(row) + "Data") : Json::Value(Json::objectValue));
  if (row.reply) content["example"] = ExampleReply(row);
  AddFailures(responses, CodesOf(row), AudienceOf(row.access.value));
  return responses;
}

// One of the ways to be identified, as an element of "security".
Json::Value Way(const char* scheme) {
  Json::Value way(Json::objectValue);
  way[scheme] = Json::Value(Json::arrayValue);
  return way;
}

Json::Value Operation(const ApiRow& row) {
  Json::Value operation(Json::objectValue);
  operation["operationId"] = fmt::format("{}.{}", row.api, row.method);
  operation["tags"].append(std::string(row.api));
  operation["summary"] = std::string(row.summary);
  operation["x-vexa-access"] = std::string(AccessName(row.access.value));
  operation["x-vexa-lane"] = std::string(LaneName(row.lane.value));
  operation["requestBody"] = Body(row);
  operation["responses"] = Responses(row);
  Json::Value version(Json::objectValue);
  version["name"] = "version";
  version["in"] = "query";
  version["description"] = "The method's version.";
  version["schema"]["type"] = "integer";
  version["schema"]["default"] = 1;
  version["schema"]["enum"].append(row.version);
  operation["parameters"].append(version);
  if (row.access.value == Access::kAnyone) operation["security"] = Json::Value(Json::arrayValue);
  if (row.access.value == Access::kHost) operation["security"].append(Way("certificate"));
  return operation;
}

Json::Value Described(const char* type, const char* description) {
  Json::Value schema(Json::objectValue);
  if (*type != '\0') schema["type"] = type;
  schema["description"] = description;
  return schema;
}

Json::Value FailureSchema() {
  Json::Value failure(Json::objectValue);
  failure["type"] = "object";
  failure["properties"]["success"] = Described("boolean", "false");
  failure["properties"]["success"]["const"] = false;
  Json::Value& error = failure["properties"]["error"];
  error["type"] = "object";
  error["properties"]["code"] = Described("integer", "What went wrong, for programs.");
  error["properties"]["message"] = Described("string", "What went wrong: the sentence of the code.");
  error["properties"]["reason"] = Described("string", "What the host has found that acted: one or more sentences.");
  error["properties"]["hint"] = Described("string", "What helps: a sentence.");
  error["properties"]["details"] = Described("", "More about it, where the method says so.");
  error["required"].append("code");
  error["required"].append("message");
  failure["properties"]["request_id"] = Described("string", "The request's id, as in the logs.");
  for (const char* name : {"success", "error", "request_id"}) failure["required"].append(name);
  return failure;
}

Json::Value Schemas(const ApiTable& table) {
  Json::Value schemas(Json::objectValue);
  schemas["Failure"] = FailureSchema();
  for (const ApiRow& row : table.rows()) {
    if (row.reply) schemas[NameOf(row) + "Data"] = ToJsonSchema(*row.reply);
  }
  return schemas;
}

Json::Value SecuritySchemes() {
  Json::Value schemes(Json::objectValue);
  schemes["token"]["type"] = "http";
  schemes["token"]["scheme"] = "bearer";
  schemes["token"]["description"] = "The token of VEXA.Core.Session login.";
  schemes["cookie"]["type"] = "apiKey";
  schemes["cookie"]["in"] = "cookie";
  schemes["cookie"]["name"] = "vexa_session";
  schemes["cookie"]["description"] = "Of VEXA.Core.Session login with \"cookie\". Calls need the header X-Vexa-CSRF.";
  schemes["certificate"]["type"] = "mutualTLS";
  schemes["certificate"]["description"] = "That of another host of the cluster.";
  return schemes;
}

Json::Value Tags(const ApiTable& table) {
  std::set<std::string> names;
  for (const ApiRow& row : table.rows()) names.emplace(row.api);
  names.insert({"VEXA.Virtualization.Guest", "VEXA.Virtualization.Image", "pages"});
  Json::Value tags(Json::arrayValue);
  for (const std::string& name : names) tags.append(Json::objectValue)["name"] = name;
  return tags;
}

Json::Value Servers() {
  Json::Value servers(Json::arrayValue);
  Json::Value& server = servers.append(Json::objectValue);
  server["url"] = "/";
  server["description"] =
      "The host that this description comes from: one of its addresses in the setting \"listen\", or its Unix socket.";
  return servers;
}

Json::Value RetryAfterHeader() {
  Json::Value header(Json::objectValue);
  header["description"] = fmt::format("In how many seconds to try again. Only with {} and {}.",
                                      user_error::kTooManyLogins, user_error::kHostBusy);
  header["schema"]["type"] = "integer";
  header["schema"]["minimum"] = 1;
  return header;
}

}  // namespace

void AddFailures(Json::Value& responses, const std::set<int>& codes, Audience audience) {
  struct Failures {
    std::string text;
    Json::Value codes{Json::arrayValue};
    bool says_when = false;  // to try again
  };
  std::map<int, Failures> by_status;
  for (const int code : codes) {
    const ErrorRow* error = FindError(code, audience);
    if (!error) continue;
    Failures& failures = by_status[error->http_status];
    failures.text += fmt::format("{}{}: {}", failures.text.empty() ? "" : " ", code, error->sentence);
    failures.codes.append(code);
    failures.says_when = failures.says_when || code == user_error::kHostBusy || code == user_error::kTooManyLogins;
  }
  for (const auto& [status, failures] : by_status) {
    Json::Value& response = responses[std::to_string(status)];
    response["description"] = failures.text;
    if (failures.says_when) response["headers"]["Retry-After"] = RetryAfterHeader();
    Json::Value with_codes(Json::objectValue);
    with_codes["type"] = "object";
    with_codes["properties"]["error"]["type"] = "object";
    with_codes["properties"]["error"]["properties"]["code"]["enum"] = failures.codes;
    Json::Value& schema = response["content"]["application/json"]["schema"];
    schema["allOf"].append(Reference("Failure"));
    schema["allOf"].append(with_codes);
  }
}

Json::Value SuccessSchema(const Json::Value& data) {
  Json::Value schema(Json::objectValue);
  schema["type"] = "object";
  schema["properties"]["success"] = Described("boolean", "true");
  schema["properties"]["success"]["const"] = true;
  schema["properties"]["data"] = data;
  schema["properties"]["request_id"] = Described("string", "The request's id, as in the logs.");
  schema["properties"]["simulated"] =
      Described("boolean", "true: guests are only simulated on the host, and nothing runs. Absent otherwise.");
  for (const char* name : {"success", "data", "request_id"}) schema["required"].append(name);
  return schema;
}

std::string MakeOpenApi(const ApiTable& table) {
  Json::Value document(Json::objectValue);
  document["openapi"] = "3.1.0";
  document["info"]["title"] = "VEXA Virtualization";
  document["info"]["version"] = VEXA_VERSION;
  document["info"]["summary"] = "Virtual machines of a cluster of hosts.";
  document["info"]["description"] =
      "Call a method with POST and its parameters as a JSON object; an empty body counts as {}, also without a "
      "Content-Type. On the Unix socket the caller is the user of the process; on the network, it is the user of a "
      "session from VEXA.Core.Session login. Members that a method does not know are refused.";
  document["servers"] = Servers();
  document["tags"] = Tags(table);
  document["components"]["schemas"] = Schemas(table);
  document["components"]["securitySchemes"] = SecuritySchemes();
  document["security"].append(Way("token"));
  document["security"].append(Way("cookie"));
  for (const ApiRow& row : table.rows()) {
    document["paths"][fmt::format("/webapi/{}/{}", row.api, row.method)]["post"] = Operation(row);
  }
  document["paths"][fmt::format("{}{{guest_id}}", kConsolePath)]["get"] = ConsoleOperation();
  document["paths"][fmt::format("{}{{upload_id}}", kUploadPath)]["put"] = UploadOperation();
  document["paths"]["/healthz"]["get"] = PageOperation("healthz", "Whether the host works.", "application/json");
  document["paths"]["/openapi.json"]["get"] = PageOperation("openapi", "This description.", "application/json");
  return VexaVirtualization::json::ToText(document);
}

}  // namespace vexa::api
