#include "tests/system/transport_cluster.h"

#include <signal.h>

#include <future>

#include "host/base/files.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/http_client.h"
#include "tests/support/require.h"
#include "tests/system/transport_test_support.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {

using std::chrono::seconds;

std::string TransportCluster::IdOf(int host) { return "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a0" + std::to_string(host); }

std::string TransportCluster::Folder(int host) const { return folder_.File("host" + std::to_string(host)); }

void TransportCluster::SetUp() {
  authority_ = std::make_unique<TestAuthority>(folder_.File("authority"));
  for (int i = 0; i < kHosts; ++i) ASSERT_NO_FATAL_FAILURE(StartHost(MakeFiles(*authority_, i), i));
  store::LmdbOptions options;
  options.directory = folder_.File("store");
  auto store = store::OpenLmdbStore(options);
  ASSERT_TRUE(store.ok()) << store.error().ToString();
  database_ = std::move(*store);
  for (int i = 0; i < kHosts; ++i) {
    const auto snapshot = database_->Read();
    ASSERT_TRUE(snapshot.ok());
    const auto record = (*snapshot)->Get(store::MakeKey({"dash", "host", IdOf(i), "object"}));
    ASSERT_TRUE(record.ok() && *record) << "a host that serves has registered itself";
    EXPECT_EQ(json::Member(Parse(std::string((*record)->text)), "cluster_address"), Json::Value(AddressOfHost(i)));
  }
  ASSERT_NO_FATAL_FAILURE(PutRecords());
}

void TransportCluster::StartHost(const transport::TlsFiles& tls, int host) {
  const std::string data = Folder(host);
  ASSERT_TRUE(CreateDirectories(data, 0700).ok());
  ASSERT_TRUE(WriteFileAtomically(data + "/host-id", IdOf(host) + "\n", 0600).ok());
  tls_.push_back(tls);
  hosts_.push_back(Launch(host));
  ASSERT_TRUE(hosts_.back()->WaitForText("READY ", seconds(60))) << hosts_.back()->errors();
  ASSERT_TRUE(hosts_.back()->WaitForText("\n", seconds(60)));
}

void TransportCluster::Put(const char* category, const std::string& id, const std::string& text) {
  (void)Require(database_->Commit({{}, {{store::MakeKey({"dash", category, id, "object"}), text}}}));
}

void TransportCluster::PutRepository(const std::string& id, int host) {
  Put("repository", id,
      R"({"name":"pool","state":")" + std::string(VexaCCC::State::Repo::online) + R"(","host_id":")" + IdOf(host) +
          "\"}");
}

void TransportCluster::PutStored(std::initializer_list<std::string_view> key, const std::string& text) {
  (void)Require(database_->Commit({{}, {{store::MakeKey(key), text}}}));
}

std::string TransportCluster::Stored(std::initializer_list<std::string_view> key) {
  const auto snapshot = Require(database_->Read());
  const auto value = Require(snapshot->Get(store::MakeKey(key)));
  return value ? std::string(value->text) : "";
}

void TransportCluster::Suspend(int host) {
  Process& process = *hosts_[static_cast<std::size_t>(host)];
  while (true) {
    process.Signal(SIGSTOP);
    auto commit = std::async(std::launch::async, [this] {
      return database_->Commit({{}, {{store::MakeKey({"test", "freeze"}), "{}"}}}).ok();
    });
    if (commit.wait_for(seconds(1)) == std::future_status::ready) return;
    process.Signal(SIGCONT);
  }
}

void TransportCluster::Resume(int host) { hosts_[static_cast<std::size_t>(host)]->Signal(SIGCONT); }

void TransportCluster::Restart(int host) {
  auto& process = hosts_[static_cast<std::size_t>(host)];
  process = Launch(host);
  ASSERT_TRUE(process->WaitForText("READY ", seconds(60))) << process->errors();
  ASSERT_TRUE(process->WaitForText("\n", seconds(60)));
}

std::unique_ptr<Process> TransportCluster::Launch(int host) {
  const std::string data = Folder(host);
  Prepare(host);
  ProcessOptions options;
  options.argv = {TRANSPORT_HOST_PROGRAM, "--data", data,    "--store", folder_.File("store"), "--socket", data + "/s",
                  "--stop-timeout",       "6",      "--log", "stderr"};
  for (std::string& flag : NetworkFlags(host)) options.argv.push_back(std::move(flag));
  return std::make_unique<Process>(options);
}

std::vector<std::string> TransportCluster::NetworkFlags(int host) {
  return {"--listen",
          "none",
          "--cluster-listen",
          "127.0.0.1:0",
          "--cluster-certificate",
          tls(host).certificate,
          "--cluster-key",
          tls(host).key,
          "--cluster-authority",
          tls(host).authority,
          "--tls-certificate",
          tls(host).certificate,
          "--tls-key",
          tls(host).key};
}

std::string TransportCluster::AddressOfHost(int host) const {
  const std::string output = hosts_[static_cast<std::size_t>(host)]->output();
  return output.substr(6, output.find('\n') - 6);
}

Json::Value TransportCluster::Ask(int host, const std::string& method, const std::string& body) {
  return Call(host, "VEXA.Test.Host/" + method, body);
}

Json::Value TransportCluster::Call(int host, const std::string& api_and_method, const std::string& body,
                                   const std::string& token) {
  HttpTarget target;
  target.url = "http://localhost";
  target.unix_socket = Folder(host) + "/s";
  HttpClient client(target);
  client.SetTimeout(seconds(60));
  if (!token.empty()) client.SetHeader("Authorization", "Bearer " + token);
  const HttpReply reply = client.PostJson("/webapi/" + api_and_method, body);
  EXPECT_TRUE(reply.arrived()) << reply.transport_error;
  return Parse(reply.body);
}

Json::Value TransportCluster::Relay(int from, int to, const std::string& method, int timeout_s,
                                    const std::string& parameters) {
  return json::Member(Ask(from, "relay",
                          "{\"host_id\":\"" + IdOf(to) + "\",\"method\":\"" + method +
                              "\",\"timeout\":" + std::to_string(timeout_s) + ",\"parameters\":" + parameters + "}"),
                      "data");
}

Json::Value TransportCluster::Library(int host, const std::string& function, Json::Value arguments) {
  json::EnsureObject(arguments)["function"] = function;
  const Json::Value reply = Ask(host, "library", json::ToText(arguments));
  EXPECT_EQ(CodeOf(reply), 0) << json::ToText(reply);
  return json::Member(reply, "data");
}

int TransportCluster::CodeOf(const Json::Value& reply) {
  return json::Int(json::Member(json::Member(reply, "error"), "code"));
}

Json::Value TransportCluster::NewestEntry(int host) {
  const Json::Value reply = Call(host, "VEXA.Virtualization.Log/list", R"({"limit":1})");
  return json::Element(json::Member(json::Member(reply, "data"), "entries"), 0);
}

}  // namespace vexa::test
