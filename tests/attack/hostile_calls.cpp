#include "tests/attack/hostile_calls.h"

#include <fmt/format.h>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/attack/attack.h"
#include "tests/support/require.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

// Values that no parameter should have, or that lead elsewhere.
std::vector<std::string> HostileValues() {
  const std::string dots = "../../../../../../etc/passwd";
  std::vector<std::string> values{"null",
                                  "true",
                                  "0",
                                  "1",
                                  "-1",
                                  "4294967296",
                                  "9223372036854775807",
                                  "-9223372036854775808",
                                  "18446744073709551615",
                                  "18446744073709551616",
                                  "1e308",
                                  "-0.5",
                                  "\"\"",
                                  "\"x\"",
                                  "\"\\u0000\"",
                                  "\"a\\u0000b\"",
                                  "\"\\u202e\\u2028\\u009b2J\"",
                                  "\"'\\\"<>&;|`$(x)%s%n\\\\\"",
                                  "\"" + dots + "\"",
                                  "\"/etc/passwd\"",
                                  "\"/dev/zero\"",
                                  "\"/proc/self/mem\"",
                                  "\".\"",
                                  "\"%2e%2e%2f\"",
                                  "[]",
                                  "[null]",
                                  "[[[]]]",
                                  "[\"" + dots + "\"]",
                                  "[1,\"1\",{},[],null,true]",
                                  "{}",
                                  "{\"\":{}}",
                                  "{\"id\":\"" + dots + "\"}",
                                  "[{\"vdisk_id\":\"" + dots + "\",\"size\":-1,\"vnic_id\":5,\"mac\":\"zz\"}]",
                                  "[{\"api\":\"VEXA.Entry.Request\",\"method\":\"request\",\"version\":1}]",
                                  "\"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\"",
                                  "\"8F14E45F-CEEA-467F-A9D1-0F2B6C1E4A01\"",
                                  "\"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01/../x\"",
                                  "[\"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01\"]"};
  values.push_back("\"" + std::string(100'000, 'x') + "\"");
  values.push_back("\"" + std::string(4'000, '/') + "\"");
  values.push_back(std::string(60, '[') + std::string(60, ']'));
  std::string many = "[0";
  for (int i = 0; i < 1'500; ++i) many += ",\"x\"";
  values.push_back(many + "]");
  return values;
}

// Bodies that are not an object of parameters.
std::vector<std::string> HostileBodies() {
  std::string nested;
  for (int i = 0; i < 5'000; ++i) nested += "{\"a\":";
  std::string many = "{\"a\":[0";
  for (int i = 0; i < 3'000; ++i) many += ",0";
  return {"[]",
          "null",
          "\"x\"",
          "{",
          "{} {}",
          "{\"a\":1,\"a\":2}",
          "{\"guest_id\":\"\xff\"}",
          "\xef\xbb\xbf{}",
          std::string("{\"a\":\"\0\"}", 9),
          "{\"a\":\"\\ud800\"}",
          nested,
          std::string(15'000, '['),
          many + "]}"};
}

// A value of the right kind that names nobody and nothing but the first guest.
std::string OrdinaryValue(const std::string& name, const Json::Value& schema) {
  const std::string type = json::StringMember(schema, "type");
  if (name == "guest_id") return "\"" + AttackedHost::GuestId(0) + "\"";
  if (name.ends_with("_id")) return fmt::format("\"{}\"", kStranger);
  if (name == "action") return "\"shutdown\"";
  if (name == "kind") return "\"user\"";
  if (type == "integer") return "1";
  if (type == "boolean") return "false";
  if (type == "array") return "[]";
  if (type == "object") return "{}";
  return "\"nobody-here\"";
}

}  // namespace

std::vector<Method> MethodsOf(const AttackedHost& host) {
  HttpClient client = host.Network(kPatience);
  const Json::Value document = Require(ParseJson(client.Get("/openapi.json").body));
  std::vector<Method> methods;
  const Json::Value& paths = json::Member(document, "paths");
  for (const std::string& path : json::MemberNames(paths)) {
    if (!path.starts_with("/webapi/")) continue;
    const Json::Value& post = json::Member(json::Member(paths, path.c_str()), "post");
    Method method{path, json::StringMember(post, "x-vexa-access"), {}, {}};
    const Json::Value& content = json::Member(json::Member(post, "requestBody"), "content");
    method.parameters = json::Member(json::Member(json::Member(content, "application/json"), "schema"), "properties");
    for (const std::string& status : json::MemberNames(json::Member(post, "responses"))) {
      method.statuses.insert(std::stoi(status));
    }
    methods.push_back(std::move(method));
  }
  return methods;
}

std::string HostileBody(const Method& method, const std::string& hostile, std::mt19937& random) {
  static const std::vector<std::string> kValues = HostileValues();
  std::string body = fmt::format("{{\"{}\":{}", hostile, kValues[random() % kValues.size()]);
  for (const std::string& name : json::MemberNames(method.parameters)) {
    // Optional parameters make others meaningless, so they are not always there.
    if (name == hostile || random() % 3 == 0) continue;
    body += fmt::format(",\"{}\":{}", name, OrdinaryValue(name, json::Member(method.parameters, name.c_str())));
  }
  return body + "}";
}

std::string HostileText(std::mt19937& random) {
  static const std::vector<std::string> kBodies = HostileBodies();
  return kBodies[random() % kBodies.size()];
}

}  // namespace vexa::test
