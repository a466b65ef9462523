#include "tests/support/test_daemon.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <stdexcept>

#include "host/base/json_parse.h"
#include "host/records/guest_admin.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/test_row.h"

namespace vexa::test {
namespace {

using api::Access;
using api::Call;
using api::LaneKind;

void Succeed(const Call& call) { call.response->SetSuccess(Json::Value("done")); }

api::ApiRow Row(std::string_view method, Access access, LaneKind lane, api::Handler handler) {
  return TestRow("VEXA.Test", method, access, lane, std::move(handler));
}

store::Operation PutObject(const char* category, const std::string& id, const std::string& text) {
  return {store::MakeKey({"dash", category, id, "object"}), text};
}

std::string GuestAdmin(const char* level, bool granted) {
  return std::string("{\"authlevel\":\"") + level + "\",\"guests\":{" +
         (granted ? std::string("\"") + kTestGuest + "\":true" : "") + "}}";
}

std::shared_ptr<store::Store> StoreOf(const daemon::Config& config) {
  store::LmdbOptions options;
  options.directory = config.store_directory.empty() ? config.data_directory + "/store" : config.store_directory;
  return Require(store::OpenLmdbStore(options));
}

}  // namespace

struct TestDaemon::Stall {
  std::mutex mutex;
  std::condition_variable changed;
  int waiting = 0;
  int released = 0;  // calls that came before this many releases return
};

TestDaemon::TestDaemon(void (*adjust)(daemon::Config&)) : stall_(std::make_shared<Stall>()) {
  config_.data_directory = folder_.File("data");
  config_.socket = folder_.File("s");
  config_.listen = {"127.0.0.1:0"};
  config_.hypervisor = "none";
  if (adjust) adjust(config_);
  PutRecords();
  daemon_ = Require(daemon::Daemon::Start(config_, Rows()));
}

TestDaemon::~TestDaemon() {
  ReleaseStalled();
  if (!daemon_->Stop(std::chrono::seconds(30))) {
    std::fprintf(stderr, "the daemon did not stop\n");
    std::abort();
  }
}

std::unique_ptr<cluster::AccountStore> TestDaemon::Accounts() const {
  return std::make_unique<cluster::AccountStore>(StoreOf(config_));
}

void TestDaemon::PutRecords() {
  ::mkdir(config_.data_directory.c_str(), 0700);
  const auto store = StoreOf(config_);
  const auto accounts = Accounts();
  store::Transaction transaction;
  transaction.operations = {
      PutObject("guest", kTestGuest,
                R"({"name":"web","repository_id":"r","vcpu_num":2,"vram_size":1024,"cpu_passthru":false,
                    "use_ovmf":false,"vdisks":["d1"],"vnics":["n1"]})"),
      PutObject("vdisk", "d1", R"({"format":2,"type":2,"size":20480})"),
      PutObject("vnic", "n1",
                R"({"network_group_id":"net","prefer_sriov":false,"mac_address":"02:00:00:00:00:01","vnic_type":1})")};
  const auto add = [&](const char* name, std::vector<std::string> groups) {
    cluster::AccountStore::NewUser user;
    user.name = name;
    user.password = kTestPassword;
    user.groups = std::move(groups);
    Require(accounts->AddUser(user));
    return Require(accounts->FindUser(name));
  };
  const auto grant = [&](std::string_view kind, std::uint32_t id, const std::string& text) {
    transaction.operations.push_back({records::GuestAdminKey(records::GuestAdminIdentifier(kind, id)), text});
  };
  add("admin", {"administrators"});
  add("mallory", {});
  grant("users", add("adam", {}).uid, GuestAdmin("advanced", false));
  grant("users", add("grace", {}).uid, GuestAdmin("user", true));
  for (const accounts::Group& group : add("carol", {"operators"}).groups) {
    if (group.name == "operators") grant("groups", group.gid, GuestAdmin("user", true));
  }
  (void)Require(store->Commit(transaction));
}

std::vector<api::ApiRow> TestDaemon::Rows() {
  const auto stall = stall_;
  return {
      Row("anyone", Access::kAnyone, LaneKind::kQuick, Succeed),
      Row("user", Access::kUser, LaneKind::kQuick, Succeed),
      Row("admin", Access::kAdministrator, LaneKind::kQuick, Succeed),
      Row("host", Access::kHost, LaneKind::kQuick, Succeed),
      Row("throws", Access::kUser, LaneKind::kQuick, [](const Call&) { throw std::runtime_error("a fault"); }),
      Row("silent", Access::kUser, LaneKind::kQuick, [](const Call&) {}),
      Row("stall", Access::kUser, LaneKind::kLong,
          [stall](const Call& call) {
            std::unique_lock lock(stall->mutex);
            const int mine = stall->released;
            ++stall->waiting;
            stall->changed.wait(lock, [&] { return stall->released > mine; });
            --stall->waiting;
            call.response->SetSuccess(Json::Value("released"));
          }),
  };
}

HttpClient TestDaemon::Tcp() const {
  HttpTarget target;
  target.url = "http://127.0.0.1:" + std::to_string(daemon_->port(0));
  return HttpClient(target);
}

HttpClient TestDaemon::Unix() const {
  HttpTarget target;
  target.url = "http://localhost";
  target.unix_socket = config_.socket;
  return HttpClient(target);
}

std::string TestDaemon::Login(const std::string& user) const {
  HttpClient client = Tcp();
  const HttpReply reply = client.PostJson("/webapi/VEXA.Core.Session/login",
                                          "{\"user\":\"" + user + "\",\"password\":\"" + kTestPassword + "\"}");
  const Json::Value body = JsonBody(reply);
  const std::string token = json::String(json::Member(json::Member(body, "data"), "token"));
  if (token.empty()) {
    std::fprintf(stderr, "the login failed: %s\n", reply.body.c_str());
    std::abort();
  }
  return token;
}

HttpClient TestDaemon::TcpAs(const std::string& user) const {
  HttpClient client = Tcp();
  client.SetHeader("Authorization", "Bearer " + Login(user));
  return client;
}

void TestDaemon::ActAsOnUnixSocket(const std::string& role) {
  const auto accounts = Accounts();
  cluster::AccountStore::NewUser me;
  me.name = "me";
  me.password = kTestPassword;
  me.uid = ::geteuid();
  if (role == "admin") me.groups = {"administrators"};
  if (role == "carol") me.groups = {"operators"};
  // The same account in each role: an id is never assigned twice.
  Require(accounts->FindUser("me").ok() ? accounts->SetGroups("me", me.groups) : accounts->AddUser(me));
  const auto store = StoreOf(config_);
  const std::string key = records::GuestAdminKey(records::GuestAdminIdentifier("users", ::geteuid()));
  (void)Require(store->Commit({{}, {{key, GuestAdmin(role == "adam" ? "advanced" : "user", role == "grace")}}}));
}

void TestDaemon::ReleaseStalled() {
  const std::lock_guard lock(stall_->mutex);
  ++stall_->released;
  stall_->changed.notify_all();
}

int TestDaemon::stalled() const {
  const std::lock_guard lock(stall_->mutex);
  return stall_->waiting;
}

Json::Value JsonBody(const HttpReply& reply) {
  EXPECT_TRUE(reply.arrived()) << reply.transport_error;
  auto parsed = ParseJson(reply.body);
  EXPECT_TRUE(parsed.ok()) << reply.body;
  return parsed.ok() ? *parsed : Json::Value();
}

int ErrorCode(const HttpReply& reply) {
  const Json::Value body = JsonBody(reply);
  if (json::Bool(json::Member(body, "success"))) return 0;
  const Json::Value& code = json::Member(json::Member(body, "error"), "code");
  return code.isInt() ? json::Int(code) : -1;
}

}  // namespace vexa::test
