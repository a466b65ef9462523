// Edits in a cluster of three hosts, each a process: which host carries one out, for which user, and what the others
// see.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/system/transport_cluster.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;

constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";

class GuestSetCluster : public TransportCluster {
 protected:
  void PutRecords() override {
    for (int host = 0; host < kHosts; ++host) std::filesystem::create_directories(Folder(host) + "/images");
    PutRepository(kRepository, 1);
    Put("guest", kGuest,
        R"({"name":"web-1","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],"repository_id":")" +
            std::string(kRepository) + R"(","host_id":")" + IdOf(1) + "\"}");
  }

  Json::Value Record(const char* category, const std::string& id) {
    const std::string text = Stored({"dash", category, id, "object"});
    return text.empty() ? Json::Value() : Require(ParseJson(text));
  }
  Json::Value Set(int host, const std::string& members) {
    return Call(host, "VEXA.Virtualization.Guest/set",
                R"({"guest_id":")" + std::string(kGuest) + "\"," + members + "}");
  }
  std::size_t Files(int host) const {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(Folder(host) + "/images")) {
      if (entry.is_regular_file()) ++count;
    }
    return count;
  }
  static std::string Disks(int count) {
    std::string text = R"("vdisks_add":[{"vdisk_size":1})";
    for (int i = 1; i < count; ++i) text += R"(,{"vdisk_size":1})";
    return text + "]";
  }
};

// The host that is called stores the edit, and the one that runs the guest changes its machine.
TEST_F(GuestSetCluster, Set_GuestRunsOnAnotherHost_ChangesItsMachine) {
  const auto pending = [&](int host) {
    const Json::Value status =
        Call(host, "VEXA.Virtualization.Guest/status", R"({"guest_id":")" + std::string(kGuest) + "\"}");
    const Json::Value& data = json::Member(status, "data");
    return json::ToText(data.isMember("pending") ? data["pending"] : data["pending_reason"]);
  };
  const auto vcpus = [&] { return Require(ParseJson(Stored({"run", kGuest})))["vcpus"].asInt(); };
  ASSERT_EQ(CodeOf(Call(1, "VEXA.Virtualization.Guest.Action/pwr_ctl",
                        R"({"action":"poweron","guest_id":")" + std::string(kGuest) + "\"}")),
            0);
  EXPECT_EQ(pending(2), "[]");
  const Json::Value edited = Set(0, R"("vcpu_num":2)");
  ASSERT_EQ(CodeOf(edited), 0) << json::ToText(edited);
  EXPECT_EQ(vcpus(), 2);
  EXPECT_EQ(pending(2), "[]");
  // What waits goes on waiting when something else is edited.
  ASSERT_EQ(CodeOf(Set(0, R"("vcpu_num":3,"apply":"next_start")")), 0);
  ASSERT_EQ(CodeOf(Set(2, R"("video_card":"qxl")")), 0);
  EXPECT_EQ(vcpus(), 2);
  EXPECT_EQ(pending(0), R"([{"property":"vcpu_num","recorded":3,"running":2},)"
                        R"({"property":"video_card","recorded":"qxl","running":"cirrus"}])");
  EXPECT_NE(CodeOf(Set(0, R"("vcpu_num":4,"video_card":"vga","apply":"now")")), 0);
  EXPECT_EQ(Record("guest", kGuest)["video_card"], "qxl");
  ASSERT_EQ(CodeOf(Set(0, R"("vcpu_num":1,"apply":"now")")), 0);
  EXPECT_EQ(vcpus(), 1);
  EXPECT_EQ(CodeOf(Set(0, R"("vcpu_num":1,"apply":"soon")")), 401);
}

TEST_F(GuestSetCluster, Set_Disks_IsDoneByRepositoryHost) {
  const Json::Value reply = Set(0, Disks(1) + R"(,"name":"web-2","boot_from":"iso")");
  ASSERT_EQ(CodeOf(reply), 0) << json::ToText(reply);
  const Json::Value guest = Record("guest", kGuest);
  ASSERT_EQ(guest["vdisks"].size(), 1u);
  EXPECT_EQ(guest["name"], "web-2");
  const Json::Value disk = Record("vdisk", json::String(guest["vdisks"][0]));
  EXPECT_EQ(disk["size"], 1024);
  EXPECT_THAT(json::String(disk["path"]), HasSubstr(Folder(1) + "/images/"));
  EXPECT_TRUE(std::filesystem::exists(json::String(disk["path"])));
  EXPECT_EQ(Files(0), 0u);
  EXPECT_EQ(Files(2), 0u);
  // The entry is written by the host that the user called.
  const Json::Value entry = NewestEntry(2);
  EXPECT_EQ(entry["text"], "The virtual machine [web-1] has been successfully edited and renamed to [web-2].");
  EXPECT_EQ(entry["host_id"], IdOf(0));
  EXPECT_EQ(entry["user"], "root");
  EXPECT_EQ(entry["request_id"], reply["request_id"]);
  // And away again, by yet another.
  EXPECT_EQ(CodeOf(Set(2, R"("vdisks_del":[{"vdisk_id":)" + json::ToText(guest["vdisks"][0]) + "}]")), 0);
  EXPECT_EQ(Files(1), 0u);
}

TEST_F(GuestSetCluster, EditRecord_ForwardedRequest_NamesUserAndRequest) {
  // The record is there while files are made, so there must be time to see it.
  Json::Value seen;
  Json::Value reply;
  for (int attempt = 0; attempt < 20 && seen.isNull(); ++attempt) {
    std::atomic<bool> is_done = false;
    std::jthread edit([&] {
      reply = Set(0, Disks(60));
      is_done = true;
    });
    while (!is_done && seen.isNull()) {
      const std::string text = Stored({"edit", kGuest});
      if (!text.empty()) seen = Require(ParseJson(text));
    }
    edit.join();
    ASSERT_EQ(CodeOf(reply), 0) << json::ToText(reply);
    if (!seen.isNull()) break;
    std::string gone;
    for (const Json::Value& id : Record("guest", kGuest)["vdisks"]) {
      gone += (gone.empty() ? "" : ",") + std::string(R"({"vdisk_id":)") + json::ToText(id) + "}";
    }
    ASSERT_EQ(CodeOf(Set(0, R"("vdisks_del":[)" + gone + "]")), 0);
  }
  ASSERT_FALSE(seen.isNull()) << "no edit was seen under way";
  EXPECT_EQ(seen["host_id"], IdOf(1));
  EXPECT_EQ(seen["user"], "root");
  EXPECT_EQ(seen["request_id"], reply["request_id"]);
  EXPECT_EQ(Stored({"edit", kGuest}), "");
  EXPECT_EQ(Files(1), 60u);
}

TEST_F(GuestSetCluster, Set_RepositoryHostDown_KeepsDisksAndEditsRest) {
  EXPECT_EQ(CodeOf(Set(0, Disks(1) + R"(,"name":"other")")), 0);
  const std::string before = Stored({"dash", "guest", kGuest, "object"});
  hosts_[1]->Signal(SIGKILL);
  EXPECT_TRUE(hosts_[1]->Wait(30s));
  EXPECT_EQ(CodeOf(Set(0, Disks(1) + R"(,"name":"changed")")), 909);
  EXPECT_EQ(Stored({"dash", "guest", kGuest, "object"}), before) << "all or nothing";
  EXPECT_EQ(NewestEntry(0)["text"], "Failed to edit the virtual machine [other] due to internal read/write error.");
  EXPECT_EQ(NewestEntry(0)["priority"], 1);
  EXPECT_EQ(CodeOf(Set(0, R"("desc":"without it","vdisks_add":[])")), 0);
  EXPECT_EQ(Record("guest", kGuest)["desc"], "without it");
}

// Each host is asked at the same time for what no other changes.
TEST_F(GuestSetCluster, Set_ConcurrentHosts_LoseNothing) {
  constexpr int kTurns = 10;
  std::vector<std::jthread> threads;
  for (int host = 0; host < kHosts; ++host) {
    threads.emplace_back([this, host] {
      const char* const names[] = {"vcpu_num", "cpu_weight", "vram_size"};
      for (int turn = 1; turn <= kTurns; ++turn) {
        const std::string number = std::to_string(100 + turn);
        EXPECT_EQ(CodeOf(Set(host, '"' + std::string(names[host]) + "\":" + number)), 0);
      }
    });
  }
  threads.clear();
  const Json::Value guest = Record("guest", kGuest);
  for (const char* name : {"vcpu_num", "cpu_weight", "vram_size"}) EXPECT_EQ(guest[name], 100 + kTurns) << name;
}

TEST_F(GuestSetCluster, Create_RepositoryOfOtherHost_IsDoneThereAndRepeatedAnywhere) {
  const std::string parameters = R"({"name":"fresh","vdisks":[{"size_gib":1}],"request_id":"job-1","start":true})";
  const Json::Value reply = Call(0, "VEXA.Virtualization.Guest/create", parameters);
  ASSERT_EQ(CodeOf(reply), 0) << json::ToText(reply);
  const Json::Value& created = reply["data"];
  const Json::Value guest = Record("guest", json::String(created["guest_id"]));
  EXPECT_EQ(guest["repository_id"], kRepository);
  // The repository's host can start it, so it stays there.
  EXPECT_EQ(created["host_id"], IdOf(1));
  EXPECT_EQ(created["started"], true) << json::ToText(created);
  EXPECT_EQ(Files(1), 1u);
  EXPECT_EQ(Files(0), 0u);
  hosts_[1]->Signal(SIGKILL);
  EXPECT_TRUE(hosts_[1]->Wait(30s));
  Restart(1);
  EXPECT_EQ(Call(2, "VEXA.Virtualization.Guest/create", parameters)["data"], created);
  EXPECT_EQ(Files(1), 1u);
}

TEST_F(GuestSetCluster, Create_RepositoryHostIsFull_GetsAnotherHost) {
  const unsigned all = std::thread::hardware_concurrency() * 8;
  const Json::Value large =
      Call(0, "VEXA.Virtualization.Guest/create",
           R"({"name":"large","vram_size":16,"start":true,"vcpu_num":)" + std::to_string(all) + "}");
  ASSERT_EQ(CodeOf(large), 0) << json::ToText(large);
  ASSERT_EQ(large["data"]["host_id"], IdOf(1));
  ASSERT_EQ(large["data"]["started"], true) << json::ToText(large);
  const Json::Value reply = Call(1, "VEXA.Virtualization.Guest/create",
                                 R"({"name":"small","vram_size":16,"vdisks":[{"size_gib":1}],"start":true})");
  ASSERT_EQ(CodeOf(reply), 0) << json::ToText(reply);
  const Json::Value& host_id = reply["data"]["host_id"];
  EXPECT_TRUE(host_id == IdOf(0) || host_id == IdOf(2)) << json::ToText(reply);
  EXPECT_EQ(reply["data"]["started"], true) << json::ToText(reply);
  EXPECT_EQ(Record("guest", json::String(reply["data"]["guest_id"]))["host_id"], host_id);
  EXPECT_EQ(Files(1), 1u);
}

TEST_F(GuestSetCluster, Create_OtherHostNamed_HasItAndIsDeletedThroughAnyHost) {
  const Json::Value reply = Call(0, "VEXA.Virtualization.Guest/create",
                                 R"({"name":"there","host":")" + IdOf(2) + R"(","vdisks":[{"size_gib":1}]})");
  ASSERT_EQ(CodeOf(reply), 0) << json::ToText(reply);
  EXPECT_EQ(reply["data"]["host_id"], IdOf(2));
  EXPECT_EQ(Record("guest", json::String(reply["data"]["guest_id"]))["host_id"], IdOf(2));
  EXPECT_EQ(Files(1), 1u);
  // Deletable through any host, although it never started.
  const std::string id = R"({"guest_id":)" + json::ToText(reply["data"]["guest_id"]) + "}";
  EXPECT_EQ(CodeOf(Call(0, "VEXA.Virtualization.Guest/delete", id)), 0);
  EXPECT_EQ(Files(1), 0u);
}

}  // namespace
}  // namespace vexa::test
