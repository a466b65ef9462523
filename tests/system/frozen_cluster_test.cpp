// The folder of the cluster database is unmounted under three running hosts, and mounted again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "host/base/files.h"
#include "host/cluster/account_store.h"
#include "host/records/guest_admin.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/http_client.h"
#include "tests/support/require.h"
#include "tests/support/waiting.h"
#include "tests/system/transport_cluster.h"
#include "tests/system/transport_test_support.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

namespace states = VexaCCC::State;
using namespace std::chrono_literals;

constexpr char kRunning[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";  // on host 1, as its repository
constexpr char kOff[] = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";      // on host 0, as its repository
constexpr char kPassword[] = "correct horse";

class FrozenCluster : public TransportCluster {
 protected:
  void PutRecords() override {
    for (int host = 0; host < 2; ++host) {
      PutRepository("repository-" + std::to_string(host), host);
    }
    PutGuest(kRunning, 1);
    PutGuest(kOff, 0);
    AddUser();
    ASSERT_EQ(Power(0, kRunning, "poweron"), 0);
    ASSERT_TRUE(Within(20s, [&] { return Status(0, kRunning) == "running"; })) << Status(0, kRunning);
    std::this_thread::sleep_for(1s);  // the copies are behind by less
  }

  void PutGuest(const std::string& id, int host) {
    const std::string disk = "disk-" + std::to_string(host);
    const std::string image = Folder(host) + "/images/" + disk + ".img";
    std::filesystem::create_directories(Folder(host) + "/images");
    std::ofstream(image) << "a disk";
    Put("vdisk", disk,
        R"({"guest_id":")" + id + R"(","name":"vda","driver":"raw","vdisk_mode":1,"size":1,"path":")" + image + "\"}");
    Put("guest", id,
        R"({"name":"guest-)" + std::to_string(host) + R"(","vcpu_num":1,"vram_size":16,"vdisks":[")" + disk +
            R"("],"vnics":[],"state":")" + std::string(states::Guest::shutdown) + R"(","repository_id":"repository-)" +
            std::to_string(host) + R"(","host_id":")" + IdOf(host) + "\"}");
  }
  // Who may use kOff, and is logged in on host 0.
  void AddUser() {
    cluster::AccountStore accounts(std::shared_ptr<store::Store>(&database(), [](store::Store*) {}));
    cluster::AccountStore::NewUser user;
    user.name = "grace";
    user.password = kPassword;
    Require(accounts.AddUser(user));
    const std::string identifier = records::GuestAdminIdentifier("users", Require(accounts.FindUser("grace")).uid);
    (void)Require(database().Commit({{},
                                     {{records::GuestAdminKey(identifier),
                                       R"({"authlevel":"user","guests":{")" + std::string(kOff) + "\":true}}"}}}));
    const Json::Value login =
        Call(0, "VEXA.Core.Session/login", R"({"user":"grace","password":")" + std::string(kPassword) + "\"}");
    token_ = json::String(json::Member(json::Member(login, "data"), "token"));
    ASSERT_FALSE(token_.empty()) << json::ToText(login);
  }

  template <class Condition>
  static bool Within(std::chrono::milliseconds limit, const Condition& is_so) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!is_so()) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(50ms);
    }
    return true;
  }
  void MoveAway() { std::filesystem::rename(folder_.File("store"), folder_.File("away")); }
  void MoveBack() { std::filesystem::rename(folder_.File("away"), folder_.File("store")); }

  Json::Value AskAsGrace(const std::string& method, const std::string& body) {
    HttpTarget target;
    target.url = "http://localhost";
    target.unix_socket = Folder(0) + "/s";
    HttpClient client(target);
    client.SetHeader("Authorization", "Bearer " + token_);
    return Parse(client.PostJson("/webapi/VEXA.Virtualization.Guest/" + method, body).body);
  }
  int Health(int host) {
    HttpTarget target;
    target.url = "http://localhost";
    target.unix_socket = Folder(host) + "/s";
    return HttpClient(target).Get("/healthz").status;
  }
  static std::string Of(const std::string& guest) { return R"({"guest_id":")" + guest + "\"}"; }
  // What a host shows for a guest; the error's code when it shows nothing.
  std::string Status(int host, const std::string& guest) {
    const Json::Value reply = Call(host, "VEXA.Virtualization.Guest/status", Of(guest));
    if (CodeOf(reply) != 0) return std::to_string(CodeOf(reply));
    return json::String(json::Member(json::Member(reply, "data"), "status"));
  }
  std::string Listed(const Json::Value& reply, const std::string& guest) {
    for (const Json::Value& entry : json::Elements(json::Member(json::Member(reply, "data"), "guests"))) {
      if (json::String(json::Member(entry, "guest_id")) == guest) return json::String(json::Member(entry, "status"));
    }
    return "not listed, " + std::to_string(CodeOf(reply));
  }
  // "<kRunning>, <kOff>" as a host lists them, and as it shows each.
  std::string Shown(int host) {
    const Json::Value list = Call(host, "VEXA.Virtualization.Guest/list", "{}");
    return Listed(list, kRunning) + ", " + Listed(list, kOff) + "; " + Status(host, kRunning) + ", " +
           Status(host, kOff);
  }
  void ExpectShown(const std::string (&expected)[kHosts], std::chrono::steady_clock::time_point since) {
    for (int host = 0; host < kHosts; ++host) {
      const auto left = since + 3s - std::chrono::steady_clock::now();
      EXPECT_TRUE(Within(std::chrono::duration_cast<std::chrono::milliseconds>(left),
                         [&] { return Shown(host) == expected[host]; }))
          << "host " << host << " shows " << Shown(host);
    }
  }
  Json::Value PowerReply(int host, const std::string& guest, const std::string& action) {
    return Call(host, "VEXA.Virtualization.Guest.Action/pwr_ctl",
                R"({"guest_id":")" + guest + R"(","action":")" + action + "\"}");
  }
  int Power(int host, const std::string& guest, const std::string& action) {
    return CodeOf(PowerReply(host, guest, action));
  }
  Json::Value Rename(int host, const std::string& guest, const std::string& name) {
    return Call(host, "VEXA.Virtualization.Guest/set", R"({"guest_id":")" + guest + R"(","name":")" + name + "\"}");
  }
  void ExpectRefused(const Json::Value& reply) {
    EXPECT_NE(CodeOf(reply), 0);
    EXPECT_THAT(json::String(json::Member(json::Member(reply, "error"), "details")),
                HasSubstr("The cluster database cannot be reached"))
        << json::ToText(reply);
  }

  std::string token_;
};

TEST_F(FrozenCluster, StoreFolder_Unmounted_ShowsGuestsFrozenUntilMounted) {
  auto since = std::chrono::steady_clock::now();
  MoveAway();
  // A host's own guests live while it runs them; the others keep their last known state, which cannot be verified.
  ExpectShown({"freeze, freeze; freeze, freeze", "running, freeze; running, freeze", "freeze, freeze; freeze, freeze"},
              since);
  for (int host = 0; host < kHosts; ++host) EXPECT_TRUE(Eventually([&] { return Health(host) == 503; })) << host;

  const Json::Value own = AskAsGrace("list", "{}");
  EXPECT_EQ(Listed(own, kOff), "freeze") << json::ToText(own);
  EXPECT_EQ(Listed(own, kRunning), "not listed, 0") << "grants hold as they were";
  EXPECT_EQ(CodeOf(AskAsGrace("get", Of(kOff))), 0);
  EXPECT_EQ(CodeOf(AskAsGrace("get", Of(kRunning))), 409);

  for (int host = 0; host < kHosts; ++host) {
    ExpectRefused(PowerReply(host, kRunning, "poweroff"));
    ExpectRefused(PowerReply(host, kOff, "poweron"));
    ExpectRefused(Rename(host, kOff, "renamed"));
    ExpectRefused(Call(host, "VEXA.Virtualization.Guest/delete", Of(kOff)));
  }

  since = std::chrono::steady_clock::now();
  MoveBack();
  const std::string normal = "running, shutdown; running, shutdown";
  ExpectShown({normal, normal, normal}, since);
  for (int host = 0; host < kHosts; ++host) EXPECT_TRUE(Eventually([&] { return Health(host) == 200; })) << host;
  EXPECT_EQ(CodeOf(Rename(2, kOff, "renamed")), 0);
  EXPECT_EQ(Power(2, kRunning, "poweroff"), 0);
  EXPECT_EQ(Power(1, kOff, "poweron"), 0);
  EXPECT_TRUE(std::filesystem::exists(Folder(0) + "/images/disk-0.img"));
}

// An empty database would be made in the folder that its storage is to be mounted on.
TEST_F(FrozenCluster, HostStart_StoreFolderMissing_IsReportedAndNotCreated) {
  MoveAway();
  hosts_[2].reset();
  ProcessOptions options;
  options.argv = {TRANSPORT_HOST_PROGRAM, "--data",   Folder(2), "--store",
                  folder_.File("store"),  "--listen", "none",    "--socket",
                  Folder(2) + "/s",       "--log",    "stderr"};
  const ProcessResult host = RunProcess(options);
  EXPECT_EQ(host.exit_code, 1);
  EXPECT_THAT(host.errors, HasSubstr("does not contain a database, although this host used one there before"));
  EXPECT_FALSE(std::filesystem::exists(folder_.File("store") + "/data.mdb"));
}

}  // namespace
}  // namespace vexa::test
