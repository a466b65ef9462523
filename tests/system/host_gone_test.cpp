// Three hosts: the states of one that was killed and of one that hangs, and what a copy of a host can do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

#include "host/accounts/account_password.h"
#include "host/base/files.h"
#include "host/cluster/account_store.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/system/transport_cluster.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kGuests[] = {"0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c210", "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211",
                                   "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c212"};
constexpr const char* kRepositories[] = {"3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f0", "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f1",
                                         "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f2"};

// One running guest a host, each in a repository of the host.
class HostGone : public TransportCluster {
 protected:
  void PutRecords() override {
    for (int host = 0; host < kHosts; ++host) {
      const auto index = static_cast<std::size_t>(host);
      PutRepository(kRepositories[index], host);
      Put("guest", kGuests[index],
          R"({"name":"web-)" + std::to_string(host) + R"(","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],)" +
              R"("repository_id":")" + kRepositories[index] + R"(","host_id":")" + IdOf(host) + "\"}");
      ASSERT_EQ(Power(host, host, "poweron"), 0);
    }
  }
  void TearDown() override {
    for (const auto& host : hosts_) host->Signal(SIGCONT);
  }

  static std::string GuestParameter(int guest, const std::string& more = "") {
    return R"({"guest_id":")" + std::string(kGuests[static_cast<std::size_t>(guest)]) + "\"" + more + "}";
  }
  int Power(int asked, int guest, const std::string& action) {
    return CodeOf(Call(asked, "VEXA.Virtualization.Guest.Action/pwr_ctl",
                       GuestParameter(guest, R"(,"action":")" + action + "\"")));
  }
  std::string Shown(int asked, int guest) {
    const Json::Value reply = Call(asked, "VEXA.Virtualization.Guest/status", GuestParameter(guest));
    const Json::Value& data = json::Member(reply, "data");
    return json::String(json::Member(data, "status")) + " " + json::String(json::Member(data, "status_type"));
  }
  std::string HostState(int asked, int host) {
    const Json::Value reply = Call(asked, "VEXA.Virtualization.Host/list", "{}");
    for (const Json::Value& entry : json::Elements(json::Member(json::Member(reply, "data"), "hosts"))) {
      if (json::String(json::Member(entry, "host_id")) == IdOf(host)) return json::String(json::Member(entry, "state"));
    }
    return "absent";
  }
  // Waits until the host and its guest are shown so: 15 s by the promise, and a busy machine.
  void AwaitShown(int asked, int host, const std::string& state, const std::string& guest) {
    const auto begin = Clock::now();
    while ((HostState(asked, host) != state || Shown(asked, host) != guest) && Clock::now() - begin < 30s) {
      std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(HostState(asked, host), state);
    EXPECT_EQ(Shown(asked, host), guest);
  }
  void ExpectCopyRefused(int host) {
    const std::string copy = folder_.File("copy");
    fs::create_directory(copy);
    for (const auto& entry : fs::directory_iterator(Folder(host))) {
      if (entry.is_socket()) continue;
      fs::copy(entry.path(), fs::path(copy) / entry.path().filename(), fs::copy_options::recursive);
    }
    const std::string record = Stored({"dash", "host", IdOf(host), "object"});
    const std::string claim = Stored({"host_claim", IdOf(host)});
    const ProcessResult result =
        RunProcess({.argv = {TRANSPORT_HOST_PROGRAM, "--data", copy, "--store", folder_.File("store"), "--socket",
                             copy + "/s", "--listen", "none", "--log", "stderr"}});
    EXPECT_NE(result.exit_code, 0);
    EXPECT_THAT(result.errors, HasSubstr("and this data folder is a copy of that machine's"));
    EXPECT_EQ(Stored({"dash", "host", IdOf(host), "object"}), record) << "its address is the first one's";
    EXPECT_EQ(Stored({"host_claim", IdOf(host)}), claim);
    EXPECT_THAT(Stored({"run", kGuests[static_cast<std::size_t>(host)]}), HasSubstr(IdOf(host)));
  }
  int Recover(int asked, int guest, const std::string& more) {
    return CodeOf(Call(asked, "VEXA.Virtualization.Guest/recover", GuestParameter(guest, more)));
  }
  int Forget(int asked, int host, const std::string& more) {
    return CodeOf(Call(asked, "VEXA.Virtualization.Host/forget", R"({"host_id":")" + IdOf(host) + "\"" + more + "}"));
  }
};

TEST_F(HostGone, KilledHost_AfterTimeout_IsInaccessibleWithItsGuest) {
  EXPECT_EQ(Shown(0, 1), "running healthy");
  hosts_[1]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[1]->Wait(30s));
  AwaitShown(0, 1, "inaccessible", "inaccessible error");
  EXPECT_EQ(HostState(2, 1), "inaccessible");
  EXPECT_EQ(HostState(0, 2), "running") << "the others live";
  EXPECT_EQ(Shown(0, 2), "running healthy");
}

TEST_F(HostGone, HungHost_IsInaccessibleUntilItResumes) {
  Suspend(2);
  AwaitShown(0, 2, "inaccessible", "inaccessible error");
  Resume(2);
  AwaitShown(0, 2, "running", "running healthy");
}

TEST_F(HostGone, CopiedHost_Start_IsRefusedAndChangesNothing) {
  ExpectCopyRefused(0);
  EXPECT_EQ(Shown(1, 0), "running healthy");
  EXPECT_EQ(Power(1, 0, "reboot"), 0) << "it is reached where it was";
}

TEST_F(HostGone, Recover_GuestOfKilledHost_StartsElsewhere) {
  // Its disks are not on the host that goes.
  Put("guest", kGuests[1],
      R"({"name":"web-1","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],"repository_id":")" +
          std::string(kRepositories[0]) + R"(","host_id":")" + IdOf(1) + "\"}");
  EXPECT_EQ(Recover(0, 1, R"(,"machine_is_off":true)"), 971) << "it is alive";
  EXPECT_EQ(Forget(0, 1, R"(,"machine_is_off":true)"), 971);
  hosts_[1]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[1]->Wait(30s));
  AwaitShown(0, 1, "inaccessible", "inaccessible error");
  EXPECT_EQ(Recover(0, 1, ""), 972);
  EXPECT_EQ(Forget(0, 1, R"(,"machine_is_off":true)"), 973);
  EXPECT_EQ(Recover(0, 1, R"(,"machine_is_off":"yes")"), 401);
  EXPECT_EQ(Recover(0, 1, R"(,"machine_is_off":true)"), 0);
  EXPECT_EQ(Stored({"run", kGuests[1]}), "");
  EXPECT_EQ(Power(0, 1, "poweron"), 0);
  EXPECT_THAT(Stored({"run", kGuests[1]}), HasSubstr(IdOf(0)));
  EXPECT_EQ(Shown(2, 1), "running healthy");
  EXPECT_EQ(Forget(0, 1, R"(,"machine_is_off":true)"), 0);
  EXPECT_EQ(HostState(0, 1), "absent");
  const std::string log = json::ToText(Call(0, "VEXA.Virtualization.Log/list", "{}"));
  EXPECT_THAT(log, HasSubstr("The virtual machine [web-1] has been recovered from its host, which is inaccessible."));
  EXPECT_THAT(log, HasSubstr("Failed to recover the virtual machine [web-1] from its host, which is inaccessible."));
  EXPECT_THAT(log, HasSubstr("has been removed from the cluster."));
}

// A guest that a killed host was creating would have its name forever, and one that it was editing could not start.
TEST_F(HostGone, Forget_HostWithJobs_FreesItsGuests) {
  constexpr char kHalf[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c219";
  const auto job = [&](const std::string& stage) {
    return R"({"host_id":")" + IdOf(1) + R"(","user":"bob","request_id":"r","since":1,"stage":")" + stage +
           R"(","made":[],"hidden":[],"grown":[]})";
  };
  Put("guest", kGuests[1],
      R"({"name":"web-1","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],"repository_id":")" +
          std::string(kRepositories[0]) + R"(","host_id":")" + IdOf(1) + "\"}");
  hosts_[1]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[1]->Wait(30s));
  AwaitShown(0, 1, "inaccessible", "inaccessible error");
  Put("guest", kHalf,
      R"({"name":"half","state":"guest_creating","vdisks":[],"vnics":[],"repository_id":")" +
          std::string(kRepositories[1]) + R"(","host_id":")" + IdOf(1) + "\"}");
  PutStored({"creation", kHalf}, job("making"));
  PutStored({"edit", kGuests[1]}, job("doing"));
  const std::string creation = R"({"name":"half","repository":")" + std::string(kRepositories[0]) + "\"}";
  EXPECT_EQ(CodeOf(Call(2, "VEXA.Virtualization.Guest/create", creation)), 406);
  EXPECT_EQ(Forget(0, 1, R"(,"machine_is_off":true,"recover_guests":true)"), 0);
  EXPECT_EQ(Stored({"creation", kHalf}), "");
  EXPECT_EQ(Stored({"edit", kGuests[1]}), "");
  EXPECT_EQ(Power(2, 1, "poweron"), 0);
  EXPECT_EQ(CodeOf(Call(2, "VEXA.Virtualization.Guest/create", creation)), 0);
}

// Accounts that were made on each host by itself, with the same ids.
class ThreeHosts : public HostGone {
 protected:
  void Prepare(int host) override {
    if (host > 1) return;
    const std::string user = host == 0 ? "alice" : "bob";
    const std::string text =
        R"({"version":1,"groups":[{"name":"administrators","gid":1900000000},{"name":"users","gid":1900000001}],"users":[
           {"name":")" +
        user + R"(","uid":1900000002,"gid":1900000001,"password":")" + Require(accounts::HashPassword(kPassword)) +
        R"(","groups":[]}]})";
    Require(WriteFileAtomically(Folder(host) + "/accounts.json", text, 0600));
  }
  void SetUp() override {
    HostGone::SetUp();
    if (HasFatalFailure()) return;
    const cluster::AccountStore accounts(std::shared_ptr<store::Store>(&database(), [](store::Store*) {}));
    const std::uint32_t alice = Require(accounts.FindUser("alice")).uid;
    const std::uint32_t bob = Require(accounts.FindUser("bob")).uid;
    EXPECT_NE(alice, bob);
    PutGrants(alice, {kGuests[0]});
    PutGrants(bob, {kGuests[1], kGuests[2]});
    for (const char* user : {"alice", "bob"}) tokens_[user] = Login(0, user);
    tokens_["root"] = "";
  }
  void PutGrants(std::uint32_t uid, const std::vector<std::string>& guests) {
    Json::Value record(Json::objectValue);
    record["authlevel"] = "user";
    for (const std::string& guest : guests) record["guests"][guest] = true;
    Put("guest_admin", "users-" + std::to_string(uid), json::ToText(record));
  }
  std::string Login(int host, const std::string& user) {
    const Json::Value reply = Call(host, "VEXA.Core.Session/login",
                                   R"({"user":")" + user + R"(","password":")" + std::string(kPassword) + "\"}");
    const std::string token = json::String(json::Member(json::Member(reply, "data"), "token"));
    EXPECT_NE(token, "") << json::ToText(reply);
    return token;
  }
  // The guests in the user's list on the first host: "running healthy|-|inaccessible error", "-" for one that is not
  // in it. No list waits for a host.
  std::string Listed(const std::string& user) {
    const auto begin = Clock::now();
    const Json::Value reply = Call(0, "VEXA.Virtualization.Guest/list", "{}", tokens_[user]);
    EXPECT_LT(Clock::now() - begin, 8s) << "1 s by the promise, and a busy machine";
    std::map<std::string, std::string> shown;
    for (const Json::Value& guest : json::Elements(json::Member(json::Member(reply, "data"), "guests"))) {
      shown[json::String(json::Member(guest, "guest_id"))] =
          json::String(json::Member(guest, "status")) + " " + json::String(json::Member(guest, "status_type"));
      EXPECT_LE(json::Int(json::Member(guest, "age_s")), 25) << json::ToText(guest);
    }
    std::string text;
    for (const char* guest : kGuests) {
      text += (text.empty() ? "" : "|") + (shown.contains(guest) ? shown[guest] : std::string("-"));
    }
    return text;
  }
  std::array<std::string, kHosts> ListedStatePerGuest(const std::string& user) {
    std::array<std::string, kHosts> parts;
    std::istringstream text(Listed(user));
    for (std::string& part : parts) std::getline(text, part, '|');
    return parts;
  }
  int Reboot(const std::string& user, int guest) {
    return CodeOf(Call(0, "VEXA.Virtualization.Guest.Action/pwr_ctl", GuestParameter(guest, R"(,"action":"reboot")"),
                       tokens_[user]));
  }

  static constexpr const char* kPassword = "correct horse";
  std::map<std::string, std::string> tokens_;
};

struct UserRow {
  const char* moment;
  const char* user;
  const char* listed;
  int reboot_first;   // the code of rebooting the first host's guest
  int reboot_second;  // and the second host's
};

TEST_F(ThreeHosts, Hosts_KilledHungAndCloned_UsersSeeCorrectStates) {
  const UserRow rows[] = {
      {"all is well", "root", "running healthy|running healthy|running healthy", 0, 0},
      {"all is well", "alice", "running healthy|-|-", 0, 409},
      {"all is well", "bob", "-|running healthy|running healthy", 409, 0},
      {"15 s later", "root", "running healthy|inaccessible error|inaccessible error", 0, 905},
      {"15 s later", "alice", "running healthy|-|-", 0, 409},
      {"15 s later", "bob", "-|inaccessible error|inaccessible error", 409, 905},
      {"recovered", "root", "running healthy|running healthy|inaccessible error", 0, 0},
      {"recovered", "alice", "running healthy|-|-", 0, 409},
      {"recovered", "bob", "-|running healthy|inaccessible error", 409, 0},
      {"goes on", "root", "running healthy|running healthy|running healthy", 0, 0},
      {"goes on", "alice", "running healthy|-|-", 0, 409},
      {"goes on", "bob", "-|running healthy|running healthy", 409, 0},
  };
  const auto expect = [&](const std::string& moment) {
    for (const UserRow& row : rows) {
      if (moment != row.moment) continue;
      EXPECT_EQ(Listed(row.user), row.listed) << moment << ", " << row.user;
      EXPECT_EQ(Reboot(row.user, 0), row.reboot_first) << moment << ", " << row.user;
      EXPECT_EQ(Reboot(row.user, 1), row.reboot_second) << moment << ", " << row.user;
    }
  };
  // The second host's guest can be started elsewhere.
  Put("guest", kGuests[1],
      R"({"name":"web-1","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],"repository_id":")" +
          std::string(kRepositories[0]) + R"(","host_id":")" + IdOf(1) + "\"}");
  expect("all is well");
  hosts_[1]->Signal(SIGKILL);
  Suspend(2);
  const auto begin = Clock::now();
  ExpectCopyRefused(0);
  // Second by second: each guest is as it was until it is shown inaccessible, and then stays so.
  std::array<std::string, kHosts> before;
  before.fill("running healthy");
  for (auto now = begin; now - begin < 15s; now = Clock::now()) {
    const std::array<std::string, kHosts> listed = ListedStatePerGuest("root");
    EXPECT_EQ(listed[0], "running healthy");
    for (std::size_t i = 1; i < listed.size(); ++i) {
      const bool is_possible = listed[i] == before[i] || listed[i] == "inaccessible error";
      EXPECT_TRUE(is_possible) << i << ": " << before[i] << " became " << listed[i];
    }
    before = listed;
    std::this_thread::sleep_for(1s);
  }
  expect("15 s later");
  EXPECT_EQ(Recover(0, 1, R"(,"machine_is_off":true,"host_id":")" + IdOf(0) + "\""), 0);
  EXPECT_EQ(Power(0, 1, "poweron"), 0);
  expect("recovered");
  Resume(2);
  AwaitShown(0, 2, "running", "running healthy");
  expect("goes on");
}

}  // namespace
}  // namespace vexa::test
