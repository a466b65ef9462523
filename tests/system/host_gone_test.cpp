// Three hosts: what is shown of one that was killed, of one that hangs, and what a copy of one can do.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <thread>

#include "host/store/key.h"
#include "tests/support/require.h"
#include "tests/system/transport_cluster.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/json.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
namespace json = VexaVirtualization::json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using ::testing::HasSubstr;

constexpr const char* kGuests[] = {"0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c210", "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211",
                                   "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c212"};
constexpr const char* kRepositories[] = {"3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f0", "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f1",
                                         "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f2"};

// One running guest a host, each in a repository of the host.
class HostGone : public TransportCluster {
 protected:
  void SetUp() override {
    TransportCluster::SetUp();
    if (HasFatalFailure()) return;
    for (int host = 0; host < kHosts; ++host) {
      const auto index = static_cast<std::size_t>(host);
      Put("repository", kRepositories[index],
          R"({"name":"pool","state":")" + std::string(VexaCCC::State::Repo::online) + R"(","host_id":")" + IdOf(host) +
              "\"}");
      Put("guest", kGuests[index],
          R"({"name":"web-)" + std::to_string(host) + R"(","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],)" +
              R"("repository_id":")" + kRepositories[index] + R"(","host_id":")" + IdOf(host) + "\"}");
      ASSERT_EQ(Power(host, host, "poweron"), 0);
    }
  }
  void TearDown() override {
    for (const auto& host : hosts_) host->Signal(SIGCONT);
  }

  void Put(const char* category, const std::string& id, const std::string& text) {
    (void)Require(database().Commit({{}, {{store::MakeKey({"dash", category, id, "object"}), text}}}));
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
  // Waits until the host and its guest are shown so. How long it took.
  std::chrono::duration<double> AwaitShown(int asked, int host, const std::string& state, const std::string& guest) {
    const auto begin = Clock::now();
    while ((HostState(asked, host) != state || Shown(asked, host) != guest) && Clock::now() - begin < 30s) {
      std::this_thread::sleep_for(50ms);
    }
    EXPECT_EQ(HostState(asked, host), state);
    EXPECT_EQ(Shown(asked, host), guest);
    return Clock::now() - begin;
  }
  std::string Stored(std::initializer_list<std::string_view> key) {
    const auto snapshot = Require(database().Read());
    const auto value = Require(snapshot->Get(store::MakeKey(key)));
    return value ? std::string(value->text) : "";
  }
  int Recover(int asked, int guest, const std::string& more) {
    return CodeOf(Call(asked, "VEXA.Virtualization.Guest/recover", GuestParameter(guest, more)));
  }
  int Forget(int asked, int host, const std::string& more) {
    return CodeOf(Call(asked, "VEXA.Virtualization.Host/forget", R"({"host_id":")" + IdOf(host) + "\"" + more + "}"));
  }
};

TEST_F(HostGone, KilledHost_IsShownInaccessibleWithItsGuestInTime) {
  EXPECT_EQ(Shown(0, 1), "running healthy");
  hosts_[1]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[1]->Wait(30s));
  EXPECT_LT(AwaitShown(0, 1, "inaccessible", "inaccessible error"), 15s);
  EXPECT_EQ(HostState(2, 1), "inaccessible");
  EXPECT_EQ(HostState(0, 2), "running") << "the others live";
  EXPECT_EQ(Shown(0, 2), "running healthy");
}

TEST_F(HostGone, HungHost_IsShownInaccessibleUntilItGoesOn) {
  hosts_[2]->Signal(SIGSTOP);
  EXPECT_LT(AwaitShown(0, 2, "inaccessible", "inaccessible error"), 15s);
  hosts_[2]->Signal(SIGCONT);
  EXPECT_LT(AwaitShown(0, 2, "running", "running healthy"), 15s);
}

TEST_F(HostGone, CopyOfAHost_IsRefusedAndChangesNothing) {
  const std::string copy = folder_.File("copy");
  fs::create_directory(copy);
  for (const auto& entry : fs::directory_iterator(Folder(0))) {
    if (!entry.is_socket())
      fs::copy(entry.path(), fs::path(copy) / entry.path().filename(), fs::copy_options::recursive);
  }
  const std::string record = Stored({"dash", "host", IdOf(0), "object"});
  const std::string claim = Stored({"host_claim", IdOf(0)});
  const ProcessResult result = RunProcess({.argv = {TRANSPORT_HOST, "--data", copy, "--store", folder_.File("store"),
                                                    "--socket", copy + "/s", "--listen", "none", "--log", "stderr"}});
  EXPECT_NE(result.exit_code, 0);
  EXPECT_THAT(result.errors, HasSubstr("and this data folder is a copy of its"));
  EXPECT_EQ(Stored({"dash", "host", IdOf(0), "object"}), record) << "its address is the first one's";
  EXPECT_EQ(Stored({"host_claim", IdOf(0)}), claim);
  EXPECT_THAT(Stored({"run", kGuests[0]}), HasSubstr(IdOf(0)));
  EXPECT_EQ(Shown(1, 0), "running healthy");
  EXPECT_EQ(Power(1, 0, "reboot"), 0) << "it is reached where it was";
}

TEST_F(HostGone, GuestOfAKilledHost_IsRecoveredAndStartsElsewhere) {
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

}  // namespace
}  // namespace vexa::test
