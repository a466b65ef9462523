// Requests between three hosts that are three processes.
#include <signal.h>

#include "tests/support/http_client.h"
#include "tests/system/transport_cluster.h"
#include "tests/system/transport_test_support.h"
#include "webapi/utils/json.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;
using std::chrono::seconds;

TEST_F(TransportCluster, EveryHost_ReachesEveryHostAsItself) {
  for (int from = 0; from < kHosts; ++from) {
    for (int to = 0; to < kHosts; ++to) {
      const Json::Value reply = Relay(from, to, "whoami");
      EXPECT_EQ(reply["success"], Json::Value(true)) << json::ToText(reply);
      EXPECT_EQ(reply["data"]["host"], Json::Value(IdOf(to)));
      EXPECT_EQ(reply["data"]["caller"], Json::Value(IdOf(from)));
      EXPECT_EQ(reply["has_fail"], Json::Value(true)) << "further members arrive, and cannot pose as others";
    }
  }
}

TEST_F(TransportCluster, AllHosts_Answer) {
  const Json::Value data = json::Member(Ask(1, "relay_to_all", R"({"method":"whoami"})"), "data");
  for (int i = 0; i < kHosts; ++i) {
    EXPECT_EQ(json::Member(json::Member(json::Member(data, IdOf(i)), "data"), "host"), Json::Value(IdOf(i)));
  }
}

TEST_F(TransportCluster, LocalAndRemoteHost_AnswerAlike) {
  for (const int to : {0, 1}) {
    EXPECT_EQ(CodeOf(Relay(0, to, "no_such_method")), 507) << to;
    EXPECT_EQ(CodeOf(Relay(0, to, "user")), 104) << "a host is no user" << to;
    EXPECT_EQ(CodeOf(Relay(0, to, "throws")), 100) << to;
    EXPECT_EQ(Relay(0, to, "slow", 20, R"({"milliseconds":50})")["data"], Json::Value("done")) << to;
    Json::Value slow;
    const double took = SecondsOf([&] { slow = Relay(0, to, "slow", 1, R"({"milliseconds":3000})"); });
    EXPECT_EQ(CodeOf(slow), 102) << to;
    EXPECT_NE(slow["error"]["message"].asString().find("in time"), std::string::npos);
    EXPECT_LT(took, 2.9) << to;
  }
}

TEST_F(TransportCluster, HostThatIsGone_IsUnreachableAndTheOthersAnswer) {
  EXPECT_EQ(CodeOf(Relay(0, 2, "whoami")), 0);
  hosts_[2]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[2]->Wait(seconds(20)));
  const Json::Value data = json::Member(Ask(0, "relay_to_all", R"({"method":"whoami"})"), "data");
  EXPECT_EQ(CodeOf(json::Member(data, IdOf(2))), 102);
  EXPECT_EQ(CodeOf(json::Member(data, IdOf(1))), 0);
}

TEST_F(TransportCluster, UserWithoutACertificate_IsNoHost) {
  HttpTarget target;
  target.url = "https://" + AddressOfHost(0);
  target.ca_file = folder_.File("authority/authority.pem");
  HttpClient client(target);
  EXPECT_FALSE(client.PostJson("/webapi/VEXA.Test.Host/whoami", "{}").status == 200);
  EXPECT_NE(CodeOf(Ask(0, "whoami", "{}")), 0) << "nor is the administrator on the Unix socket";
}

TEST_F(TransportCluster, CallThatOutlivesItsTimeout_DoesNoHarmAndIsWaitedForAtTheStop) {
  EXPECT_EQ(CodeOf(Relay(0, 0, "slow", 1, R"({"milliseconds":3000})")), 102);
  hosts_[0]->Signal(SIGTERM);
  const auto ended = hosts_[0]->Wait(seconds(60));
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->code, 0) << hosts_[0]->errors();
}

}  // namespace
}  // namespace vexa::test
