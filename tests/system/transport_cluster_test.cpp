// Three hosts as three processes with one database, over TLS.
#include <signal.h>

#include <algorithm>

#include "host/base/files.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "tests/support/http_client.h"
#include "tests/support/process.h"
#include "tests/system/transport_test_support.h"
#include "webapi/utils/json.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;
using std::chrono::seconds;

class TransportCluster : public testing::Test {
 protected:
  static constexpr int kHosts = 3;
  static std::string IdOf(int i) { return "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a0" + std::to_string(i); }
  std::string Folder(int i) const { return folder_.File("host" + std::to_string(i)); }

  void SetUp() override {
    const TestAuthority authority(folder_.File("authority"));
    for (int i = 0; i < kHosts; ++i) StartHost(authority.FilesOf(IdOf(i)), i);
    store::LmdbOptions options;
    options.directory = folder_.File("store");
    const auto store = store::OpenLmdbStore(options);
    ASSERT_TRUE(store.ok()) << store.error().ToString();
    for (int i = 0; i < kHosts; ++i) {
      const std::string record = "{\"cluster_address\":\"" + AddressOfHost(i) + "\"}";
      ASSERT_TRUE((*store)->Commit({{}, {{store::MakeKey({"dash", "host", IdOf(i), "object"}), record}}}).ok());
    }
  }

  void StartHost(const transport::TlsFiles& tls, int i) {
    const std::string data = Folder(i);
    ASSERT_TRUE(CreateDirectories(data, 0700).ok());
    ASSERT_TRUE(WriteFileAtomically(data + "/host-id", IdOf(i) + "\n", 0600).ok());
    ProcessOptions options;
    options.argv = {TRANSPORT_HOST,
                    "--data",
                    data,
                    "--store",
                    folder_.File("store"),
                    "--socket",
                    data + "/s",
                    "--listen",
                    "none",
                    "--cluster-listen",
                    "127.0.0.1:0",
                    "--tls-certificate",
                    tls.certificate,
                    "--tls-key",
                    tls.key,
                    "--client-authority",
                    tls.authority,
                    "--log",
                    "stderr"};
    hosts_.push_back(std::make_unique<Process>(options));
    ASSERT_TRUE(hosts_.back()->WaitForText("READY ", seconds(60))) << hosts_.back()->errors();
    ASSERT_TRUE(hosts_.back()->WaitForText("\n", seconds(60)));
  }

  std::string AddressOfHost(int i) const {
    const std::string output = hosts_[i]->output();
    return output.substr(6, output.find('\n') - 6);
  }

  Json::Value Ask(int host, const std::string& method, const std::string& body) {
    HttpTarget target;
    target.url = "http://localhost";
    target.unix_socket = Folder(host) + "/s";
    HttpClient client(target);
    client.SetTimeout(seconds(60));
    const HttpReply reply = client.PostJson("/webapi/VEXA.Test.Host/" + method, body);
    EXPECT_TRUE(reply.arrived()) << reply.transport_error;
    return Parse(reply.body);
  }

  // What `from` gets from `to` for a method of VEXA.Test.Host.
  Json::Value Relay(int from, int to, const std::string& method, int timeout_s = 0,
                    const std::string& parameters = "{}") {
    return json::Member(Ask(from, "relay",
                            "{\"host_id\":\"" + IdOf(to) + "\",\"method\":\"" + method +
                                "\",\"timeout\":" + std::to_string(timeout_s) + ",\"parameters\":" + parameters + "}"),
                        "data");
  }

  static int CodeOf(const Json::Value& reply) { return json::Int(json::Member(json::Member(reply, "error"), "code")); }

  TempDir folder_;
  std::vector<std::unique_ptr<Process>> hosts_;
};

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
