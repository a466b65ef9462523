#include "bench/daemon_client.h"

#include <fmt/format.h>

#include "bench/bench_util.h"
#include "bench/http_bench_data.h"
#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa::bench {

test::HttpClient ClientOn(const std::string& socket, const std::string& token) {
  test::HttpTarget target;
  target.url = "http://localhost";
  target.unix_socket = socket;
  test::HttpClient client(target);
  client.SetTimeout(std::chrono::minutes(2));
  if (!token.empty()) client.SetHeader("Authorization", "Bearer " + token);
  return client;
}

std::string Login(test::HttpClient& client, const std::string& user) {
  namespace json = VexaVirtualization::json;
  const test::HttpReply reply = client.PostJson("/webapi/VEXA.Core.Session/login",
                                                fmt::format(R"({{"user":"{}","password":"{}"}})", user, kPassword));
  const Json::Value body = Require(ParseJson(reply.body));
  return json::String(json::Member(json::Member(body, "data"), "token"));
}

}  // namespace vexa::bench
