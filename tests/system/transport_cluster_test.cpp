// Requests between three hosts that are three processes.
#include <signal.h>

#include "json/readers.h"
#include "tests/support/http_client.h"
#include "tests/system/transport_cluster.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;

TEST_F(TransportCluster, Call_BetweenAllHosts_IdentifiesCallerAndTarget) {
  for (int from = 0; from < kHosts; ++from) {
    for (int to = 0; to < kHosts; ++to) {
      const Json::Value reply = Relay(from, to, "whoami");
      EXPECT_EQ(reply["success"], Json::Value(true)) << json::ToText(reply);
      EXPECT_EQ(reply["data"]["host"], Json::Value(IdOf(to)));
      EXPECT_EQ(reply["data"]["caller"], Json::Value(IdOf(from)));
      EXPECT_EQ(reply["has_fail"], Json::Value(true)) << "extra members arrive, and cannot pose as others";
    }
  }
}

TEST_F(TransportCluster, AllHosts_Called_Answer) {
  const Json::Value data = json::Member(Ask(1, "relay_to_all", R"({"method":"whoami"})"), "data");
  for (int i = 0; i < kHosts; ++i) {
    EXPECT_EQ(json::Member(json::Member(json::Member(data, IdOf(i)), "data"), "host"), Json::Value(IdOf(i)));
  }
}

TEST_F(TransportCluster, Call_LocalOrRemote_HasSameReply) {
  for (const int to : {0, 1}) {
    EXPECT_EQ(CodeOf(Relay(0, to, "no_such_method")), 507) << to;
    EXPECT_EQ(CodeOf(Relay(0, to, "user")), 104) << "a host is not a user" << to;
    EXPECT_EQ(CodeOf(Relay(0, to, "throws")), 100) << to;
    EXPECT_EQ(Relay(0, to, "slow", 20, R"({"milliseconds":50})")["data"], Json::Value("done")) << to;
    Json::Value slow;
    const double took = SecondsOf([&] { slow = Relay(0, to, "slow", 1, R"({"milliseconds":6000})"); });
    EXPECT_EQ(CodeOf(slow), 102) << to;
    EXPECT_NE(slow["error"]["message"].asString().find("in time"), std::string::npos);
    EXPECT_LT(took, 5.5) << to;
  }
}

// Returns what `whoami` reported somewhere inside {"success", "data", "request_id"}.
void ExpectOrigin(const Json::Value& told, const Json::Value& asked, const std::string& user) {
  EXPECT_EQ(json::Member(told, "acts_for"), Json::Value(user));
  EXPECT_EQ(json::Member(told, "request_id"), json::Member(asked, "request_id"));
}

TEST_F(TransportCluster, Call_LocalAndRemote_ForwardsUserAndRequestId) {
  for (const int to : {0, 1}) {
    const Json::Value asked = Ask(0, "relay", R"({"method":"whoami","host_id":")" + IdOf(to) + "\"}");
    const Json::Value& reply = json::Member(asked, "data");
    ExpectOrigin(json::Member(reply, "data"), asked, "root");
    if (to == 1) {
      EXPECT_EQ(json::Member(reply, "request_id"), json::Member(asked, "request_id"));
    }
  }
  const Json::Value asked = Ask(0, "relay_to_all", R"({"method":"whoami"})");
  for (int i = 0; i < kHosts; ++i) {
    ExpectOrigin(json::Member(json::Member(json::Member(asked, "data"), IdOf(i)), "data"), asked, "root");
  }
}

TEST_F(TransportCluster, CompoundRequest_Items_RunOnBehalfOfItsUser) {
  std::string items;
  for (int i = 0; i < 16; ++i)
    items += std::string(i == 0 ? "" : ",") + R"({"api":"VEXA.Test.Host","method":"whoami"})";
  for (const int to : {0, 1}) {
    const Json::Value asked = Ask(0, "relay",
                                  R"({"api":"VEXA.Entry.Request","method":"request","host_id":")" + IdOf(to) +
                                      R"(","parameters":{"compound":[)" + items + "]}}");
    const Json::Value results = asked["data"]["data"]["result"];
    ASSERT_EQ(results.size(), 16u) << json::ToText(asked);
    for (const Json::Value& result : results) ExpectOrigin(json::Member(result, "data"), asked, "root");
  }
}

// A client with header lines of its own.
HttpReply PostWith(HttpTarget target, const std::string& method, const std::vector<std::string>& fields,
                   const std::string& body) {
  HttpClient client(std::move(target));
  std::vector<std::string> lines = fields;
  lines.emplace_back("Content-Type: application/json");
  return client.Send("POST", "/webapi/VEXA.Test.Host/" + method, lines, body);
}

constexpr const char* kForeignId = "0123456789abcdef";

TEST_F(TransportCluster, OriginHeaders_FromUser_AreIgnored) {
  HttpTarget target;
  target.url = "http://localhost";
  target.unix_socket = Folder(0) + "/s";
  const std::vector<std::string> fields{"X-Vexa-Acts-For: eve", std::string("X-Vexa-Request-Id: ") + kForeignId};
  const Json::Value direct = Parse(PostWith(target, "user", fields, "{}").body);
  EXPECT_EQ(direct["data"]["acts_for"], Json::Value(""));
  EXPECT_NE(direct["data"]["request_id"], Json::Value(kForeignId));
  const HttpReply reply = PostWith(target, "relay", fields, R"({"method":"whoami","host_id":")" + IdOf(1) + "\"}");
  const Json::Value relayed = Parse(reply.body);
  ExpectOrigin(relayed["data"]["data"], relayed, "root");
  EXPECT_NE(relayed["request_id"], Json::Value(kForeignId));
  EXPECT_EQ(reply.headers.at("x-request-id"), json::String(relayed["request_id"]));
}

TEST_F(TransportCluster, OriginHeaders_FromHostCertificate_AreAcceptedWhenWellFormed) {
  const std::string address = AddressOfHost(0);
  const std::string port = address.substr(address.rfind(':'));
  // As host 1. The whole reply, with its header.
  const auto call = [&](const std::string& acts_for, const std::string& id) {
    const auto result = RunProcess({.argv = {"curl",
                                             "-sS",
                                             "-i",
                                             "--noproxy",
                                             "*",
                                             "--connect-to",
                                             "::" + address,
                                             "--cacert",
                                             folder_.File("authority/authority.pem"),
                                             "--cert",
                                             folder_.File("authority/" + IdOf(1) + ".pem"),
                                             "--key",
                                             folder_.File("authority/" + IdOf(1) + ".key"),
                                             "-H",
                                             "Content-Type: application/json",
                                             "-H",
                                             "X-Vexa-Acts-For: " + acts_for,
                                             "-H",
                                             "X-Vexa-Request-Id: " + id,
                                             "-d",
                                             "{}",
                                             "https://" + IdOf(0) + port + "/webapi/VEXA.Test.Host/whoami"}});
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    return result.output;
  };
  const auto body = [](const std::string& reply) { return Parse(reply.substr(reply.find("\r\n\r\n") + 4)); };
  const std::string good = call("J%C3%BCrgen", kForeignId);
  const Json::Value told = body(good);
  EXPECT_EQ(told["data"]["acts_for"], Json::Value("J\xc3\xbcrgen"));
  EXPECT_EQ(told["data"]["request_id"], Json::Value(kForeignId));
  EXPECT_EQ(told["request_id"], Json::Value(kForeignId));
  EXPECT_NE(good.find(std::string("X-Request-Id: ") + kForeignId + "\r\n"), std::string::npos) << good;
  const Json::Value odd = body(call("a%0Ab", "0123456789ABCDEF"));
  EXPECT_EQ(odd["data"]["acts_for"], Json::Value(""));
  EXPECT_EQ(json::String(odd["data"]["request_id"]).size(), 16u) << "an id of the host's own";
  EXPECT_NE(odd["data"]["request_id"], Json::Value("0123456789ABCDEF"));
}

TEST_F(TransportCluster, Call_HostGone_IsUnreachableAndOthersAnswer) {
  EXPECT_EQ(CodeOf(Relay(0, 2, "whoami")), 0);
  hosts_[2]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[2]->Wait(seconds(20)));
  const Json::Value data = json::Member(Ask(0, "relay_to_all", R"({"method":"whoami"})"), "data");
  EXPECT_EQ(CodeOf(json::Member(data, IdOf(2))), 102);
  EXPECT_EQ(CodeOf(json::Member(data, IdOf(1))), 0);
}

TEST_F(TransportCluster, HostMethods_UserWithoutCertificate_AreRefused) {
  HttpTarget target;
  target.url = "https://" + AddressOfHost(0);
  target.ca_file = folder_.File("authority/authority.pem");
  HttpClient client(target);
  EXPECT_FALSE(client.PostJson("/webapi/VEXA.Test.Host/whoami", "{}").status == 200);
  EXPECT_NE(CodeOf(Ask(0, "whoami", "{}")), 0) << "nor is the administrator on the Unix socket";
}

TEST_F(TransportCluster, LocalCall_OutlivesTimeout_IsAwaitedAtStop) {
  EXPECT_EQ(CodeOf(Relay(0, 0, "slow", 1, R"({"milliseconds":3000})")), 102);
  hosts_[0]->Signal(SIGTERM);
  const auto ended = hosts_[0]->Wait(seconds(60));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 0) << hosts_[0]->errors();
}

}  // namespace
}  // namespace vexa::test
