// Guests are started, stopped and deleted in a cluster of three hosts that are three processes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/system/transport_cluster.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

namespace states = VexaCCC::State::Guest;
using namespace std::chrono_literals;

constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kOther[] = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";
constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";

class GuestPowerCluster : public TransportCluster {
 protected:
  void PutRecords() override {
    PutRepository(kRepository, 1);
    PutGuest(IdOf(1));
  }

  // One that has a disk with the host of its repository.
  void PutGuest(const std::string& host_id) {
    std::filesystem::create_directories(Folder(1) + "/images");
    std::ofstream(Image()) << "a disk";
    Put("vdisk", "disk-1",
        R"({"guest_id":")" + std::string(kGuest) + R"(","name":"vda","driver":"raw","vdisk_mode":1,"size":1,"path":")" +
            Image() + "\"}");
    Put("guest", kGuest,
        R"({"name":"web-1","vcpu_num":1,"vram_size":16,"vdisks":["disk-1"],"vnics":[],"state":")" +
            std::string(states::shutdown) + R"(","repository_id":")" + kRepository + R"(","host_id":")" + host_id +
            "\"}");
  }
  std::string Image() const { return Folder(1) + "/images/disk-1.img"; }

  // The error code of the answer, 0 for a success.
  int Power(int host, const std::string& action) {
    return CodeOf(Call(host, "VEXA.Virtualization.Guest.Action/pwr_ctl",
                       R"({"guest_id":")" + std::string(kGuest) + R"(","action":")" + action + "\"}"));
  }
  int Delete(int host) {
    return CodeOf(Call(host, "VEXA.Virtualization.Guest/delete", R"({"guest_id":")" + std::string(kGuest) + "\"}"));
  }

  std::string State() { return Stored({"dash", "guest", kGuest, "state"}); }
  void ExpectState(const char* state) {
    const std::string text = json::ToText(state);
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (State() != text && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(5ms);
    EXPECT_EQ(State(), text);
  }
  std::string HostName(int host) {
    const Json::Value reply = Call(0, "VEXA.Virtualization.Host/list", "{}");
    for (const Json::Value& entry : json::Elements(json::Member(json::Member(reply, "data"), "hosts"))) {
      if (json::String(json::Member(entry, "host_id")) == IdOf(host)) return json::String(json::Member(entry, "name"));
    }
    return "?";
  }
};

TEST_F(GuestPowerCluster, Actions_GuestOfOtherHost_AreCarriedOutThere) {
  EXPECT_EQ(Power(0, "poweron"), 0);
  ExpectState(states::running);
  EXPECT_THAT(Stored({"run", kGuest}), HasSubstr(IdOf(1)));
  const Json::Value entry = NewestEntry(2);
  EXPECT_EQ(entry["text"], Json::Value("Powering on the virtual machine [web-1] on the host [" + HostName(1) + "]."));
  EXPECT_EQ(entry["priority"], Json::Value(3));
  EXPECT_EQ(entry["user"], Json::Value("root"));
  EXPECT_EQ(entry["host_id"], Json::Value(IdOf(0)));
  EXPECT_EQ(Power(2, "poweron"), 939);
  EXPECT_EQ(NewestEntry(0)["text"], Json::Value("Failed to power on the virtual machine [web-1] on the host [" +
                                                HostName(1) + "] since VM is already running."));
  EXPECT_EQ(Power(2, "reboot"), 0);
  EXPECT_EQ(NewestEntry(0)["text"], Json::Value("Rebooting the virtual machine [web-1]."));
  // A running guest is not deleted, neither by its repository's host nor by the one that was asked.
  EXPECT_EQ(Delete(0), 901);
  EXPECT_TRUE(std::filesystem::exists(Image()));
  EXPECT_EQ(Power(0, "shutdown"), 0);
  EXPECT_EQ(NewestEntry(0)["text"], Json::Value("Shutting down the virtual machine [web-1]."));
  ExpectState(states::shutdown);
  EXPECT_EQ(Power(0, "poweroff"), 904);
  EXPECT_EQ(Delete(0), 0);
  EXPECT_EQ(NewestEntry(0)["text"], Json::Value("The virtual machine [web-1] has been successfully deleted."));
  EXPECT_FALSE(std::filesystem::exists(Image()));
  EXPECT_EQ(Stored({"dash", "guest", kGuest, "object"}), "");
  EXPECT_EQ(State(), "");
}

// The host that has the guest decides, not the one that is asked.
TEST_F(GuestPowerCluster, Answer_AboutGuestOfOtherHost_IsMarkedAsSimulatedByThatHost) {
  const std::string poweron = R"({"guest_id":")" + std::string(kGuest) + R"(","action":"poweron"})";
  const Json::Value marked = Call(0, "VEXA.Virtualization.Guest.Action/pwr_ctl", poweron);
  EXPECT_EQ(json::Member(marked, "simulated"), Json::Value(true)) << json::ToText(marked);
  EXPECT_EQ(Power(0, "poweroff"), 0);
  ExpectState(states::shutdown);
  Json::Value record = *ParseJson(Stored({"dash", "host", IdOf(1), "object"}));
  EXPECT_EQ(record["simulated"], Json::Value(true));
  record["simulated"] = false;
  Put("host", IdOf(1), json::ToText(record));
  const Json::Value plain = Call(0, "VEXA.Virtualization.Guest.Action/pwr_ctl", poweron);
  EXPECT_EQ(json::Member(plain, "success"), Json::Value(true)) << json::ToText(plain);
  EXPECT_FALSE(json::FindMember(plain, "simulated")) << json::ToText(plain);
}

TEST_F(GuestPowerCluster, GuestInfo_RunningOnOtherHost_ComesFromThatHost) {
  EXPECT_EQ(Power(0, "poweron"), 0);
  const Json::Value answer = Library(2, "GetInformation", [] {
    Json::Value arguments;
    arguments["guest_id"] = kGuest;
    return arguments;
  }());
  EXPECT_TRUE(answer["out"].isMember("uptime") || answer["out"].isMember("has_agent")) << json::ToText(answer);
}

TEST_F(GuestPowerCluster, PowerOn_GuestWithoutHost_UsesRepositoryHost) {
  PutGuest("");
  EXPECT_EQ(Power(2, "poweron"), 0);
  EXPECT_THAT(Stored({"run", kGuest}), HasSubstr(IdOf(1)));
  EXPECT_THAT(Stored({"dash", "guest", kGuest, "object"}), HasSubstr("\"host_id\":\"" + IdOf(1)));
}

TEST_F(GuestPowerCluster, SelectHost_NoHostFits_AssignsNone) {
  PutGuest("");
  std::string record = Stored({"dash", "guest", kGuest, "object"});
  record.replace(record.find("\"vram_size\":16"), 14, "\"vram_size\":2000000");
  Put("guest", kGuest, record);
  EXPECT_EQ(Power(2, "poweron"), 932);
  EXPECT_THAT(Stored({"dash", "guest", kGuest, "object"}), HasSubstr("\"host_id\":\"\""));
}

TEST_F(GuestPowerCluster, HighAvailability_FencesOnAllHosts) {
  EXPECT_EQ(Power(0, "poweron"), 0);
  const Json::Value reply = Call(0, "VEXA.Virtualization.Guest.Action/pwr_ctl",
                                 R"({"action":"poweroff_by_ha","guest_id":")" + std::string(kGuest) +
                                     R"(","host_ids":[")" + IdOf(2) + "\",\"" + IdOf(1) + R"(","no-such-host"]})");
  const Json::Value& results = json::Member(reply, "data");
  ASSERT_EQ(results.size(), 3u) << json::ToText(reply);
  EXPECT_EQ(results[0]["host_id"], Json::Value(IdOf(2)));
  EXPECT_EQ(results[0]["success"], Json::Value(true));
  EXPECT_EQ(results[1]["success"], Json::Value(true));
  EXPECT_EQ(results[2]["success"], Json::Value(false));
  EXPECT_EQ(results[2]["errcode"], Json::Value(102));
  ExpectState(states::shutdown);
}

TEST_F(GuestPowerCluster, DeadHost_GuestCannotStartElsewhereUntilHostReturns) {
  EXPECT_EQ(Power(0, "poweron"), 0);
  hosts_[1]->Signal(SIGKILL);
  EXPECT_TRUE(hosts_[1]->Wait(30s));
  EXPECT_EQ(Power(0, "poweroff"), 904);
  // The repository's host is away, so the local one is asked to delete: the guest is still another's.
  EXPECT_EQ(Delete(0), 901);
  EXPECT_THAT(Stored({"run", kGuest}), HasSubstr(IdOf(1)));
  EXPECT_TRUE(std::filesystem::exists(Image()));
}

// The host that was asked does not do what the host that has the files has refused.
TEST_F(GuestPowerCluster, Delete_LiveRepositoryHostRefuses_NoOtherHostDeletes) {
  std::ofstream(Folder(1) + "/images/.vexa-deleted-" + kGuest + "-0") << "in the way";
  EXPECT_EQ(Delete(0), 901);
  EXPECT_NE(Stored({"dash", "guest", kGuest, "object"}), "");
  EXPECT_NE(Stored({"dash", "vdisk", "disk-1", "object"}), "");
  EXPECT_EQ(Stored({"leftover", IdOf(1), kGuest}), "");
  EXPECT_EQ(Stored({"deletion", kGuest}), "");
  EXPECT_TRUE(std::filesystem::exists(Image()));
}

TEST_F(GuestPowerCluster, Delete_RepositoryHostDown_LeavesFilesToThatHost) {
  hosts_[1]->Signal(SIGKILL);
  EXPECT_TRUE(hosts_[1]->Wait(30s));
  EXPECT_EQ(Delete(0), 901) << "a moment ago it was alive";
  EXPECT_NE(Stored({"dash", "guest", kGuest, "object"}), "");
  // Its last heartbeat is long ago.
  (void)Require(database().Commit({{}, {{store::MakeKey({"dash", "host", IdOf(1), "seen"}), R"({"time":1})"}}}));
  EXPECT_EQ(Delete(0), 0);
  EXPECT_EQ(Stored({"dash", "guest", kGuest, "object"}), "");
  EXPECT_TRUE(std::filesystem::exists(Image()));
  EXPECT_THAT(Stored({"leftover", IdOf(1), kGuest}), HasSubstr("disk-1.img"));
}

TEST_F(GuestPowerCluster, Release_GuestOfOtherHost_IsDoneThere) {
  const std::string parameters = R"({"guest_id":")" + std::string(kGuest) + "\"}";
  EXPECT_EQ(CodeOf(Call(0, "VEXA.Virtualization.Guest/discard_saved", parameters)), 911) << "it is not saved";
  EXPECT_EQ(Power(0, "poweron"), 0);
  EXPECT_EQ(CodeOf(Call(0, "VEXA.Virtualization.Guest/release", parameters)), 910) << "it runs";
  EXPECT_EQ(Power(0, "poweroff"), 0);
  EXPECT_EQ(CodeOf(Call(0, "VEXA.Virtualization.Guest/release", parameters)), 0);
  EXPECT_EQ(Stored({"dash", "guest", kGuest, "object"}), "");
  EXPECT_EQ(Stored({"dash", "vdisk", "disk-1", "object"}), "");
  EXPECT_TRUE(std::filesystem::exists(Image())) << "files stay";
  EXPECT_EQ(CodeOf(Call(0, "VEXA.Virtualization.Guest/release", parameters)), 403);
  const std::string log = json::ToText(Call(0, "VEXA.Virtualization.Log/list", "{}"));
  EXPECT_THAT(log, HasSubstr("Failed to discard the saved memory of the virtual machine [web-1]."));
  EXPECT_THAT(log, HasSubstr("Failed to release the virtual machine [web-1]."));
  EXPECT_THAT(log, HasSubstr("The virtual machine [web-1] has been released to libvirt."));
}

TEST_F(GuestPowerCluster, SuspendAndSave_GuestOfOtherHost_AreDoneThere) {
  const auto ask = [&](const std::string& method) {
    return CodeOf(Call(0, "VEXA.Virtualization.Guest/" + method, R"({"guest_id":")" + std::string(kGuest) + "\"}"));
  };
  EXPECT_EQ(ask("suspend"), 911) << "it is off";
  EXPECT_EQ(ask("resume"), 911);
  EXPECT_EQ(ask("save"), 911);
  EXPECT_EQ(ask("restore"), 911) << "nothing is saved";
  EXPECT_EQ(Power(0, "poweron"), 0);
  EXPECT_EQ(ask("suspend"), 0);
  ExpectState(states::freeze);
  EXPECT_EQ(Power(0, "poweron"), 939) << "it counts as running";
  EXPECT_EQ(ask("restore"), 910);
  EXPECT_NE(Delete(0), 0);
  EXPECT_EQ(ask("resume"), 0);
  ExpectState(states::running);
  EXPECT_EQ(ask("save"), 0);
  ExpectState(states::saved);
  EXPECT_EQ(ask("restore"), 0);
  ExpectState(states::running);
  const std::string log = json::ToText(Call(0, "VEXA.Virtualization.Log/list", "{}"));
  for (const char* sentence :
       {"Failed to suspend the virtual machine [web-1].", "Failed to resume the virtual machine [web-1].",
        "Failed to save the memory of the virtual machine [web-1].",
        "Failed to restore the virtual machine [web-1] from its saved memory.",
        "The virtual machine [web-1] has been suspended.", "The virtual machine [web-1] has been resumed.",
        "The memory of the virtual machine [web-1] has been saved.",
        "The virtual machine [web-1] has been restored from its saved memory."}) {
    EXPECT_THAT(log, HasSubstr(sentence));
  }
}

TEST_F(GuestPowerCluster, StalledHost_Actions_OtherHostsGuestsAreNotDelayed) {
  EXPECT_EQ(Power(0, "reboot"), 905) << "now there is a connection, over which a call can hang";
  Suspend(1);
  std::thread stuck([&] { EXPECT_EQ(Power(0, "poweron"), 0) << "when it goes on, so does the call"; });
  Put("guest", kOther,
      R"({"name":"free","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],"host_id":")" + IdOf(2) + "\"}");
  EXPECT_EQ(CodeOf(Call(0, "VEXA.Virtualization.Guest.Action/pwr_ctl",
                        R"({"guest_id":")" + std::string(kOther) + R"(","action":"poweron"})")),
            0);
  EXPECT_EQ(Stored({"dash", "guest", kOther, "state"}), json::ToText(states::running));
  EXPECT_EQ(State(), "");
  Resume(1);
  stuck.join();
  ExpectState(states::running);
}

TEST_F(GuestPowerCluster, GracefulStop_OtherHostStalled_DoesNotWait) {
  EXPECT_EQ(Power(0, "reboot"), 905);
  Suspend(1);
  std::atomic<int> code = 0;
  std::thread stuck([&] { code = Power(0, "poweron"); });
  // Until the call has left, which nothing reports.
  std::this_thread::sleep_for(500ms);
  hosts_[0]->Signal(SIGTERM);
  const auto status = hosts_[0]->Wait(60s);
  ASSERT_TRUE(status) << "an hour is the call's own time-out";
  EXPECT_EQ(status->code, 0) << hosts_[0]->errors();
  stuck.join();
  EXPECT_EQ(code, 902) << "the caller gets the error";
  Resume(1);
}

}  // namespace
}  // namespace vexa::test
