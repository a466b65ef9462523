// The library's functions in the process of one host, about every host of a cluster of three.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <functional>
#include <set>
#include <thread>

#include "host/store/key.h"
#include "json/readers.h"
#include "tests/system/transport_cluster.h"
#include "tests/system/transport_test_support.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

constexpr const char* kGuest = "0b7e9d6c-7a53-4a29-9f0e-3d1f5c2b8a11";
constexpr const char* kDisk = "1c8fae7d-8b64-4b3a-8a1f-4e2a6d3c9b22";
constexpr const char* kNic = "2d90bf8e-9c75-4c4b-9b2a-5f3b7e4dac33";
constexpr const char* kRepository = "3ea1c09f-ad86-4d5c-8c3b-6a4c8f5ebd44";
constexpr const char* kMac = "02:00:00:00:00:07";
constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;

class LibraryCluster : public TransportCluster {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(TransportCluster::SetUp());
    const std::string image = folder_.File("disk.img");
    const int fd = ::open(image.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, 64 * kMiB), 0);
    const std::string written(kMiB, 'x');
    ASSERT_EQ(::write(fd, written.data(), written.size()), static_cast<ssize_t>(written.size()));
    ASSERT_EQ(::fsync(fd), 0);
    ::close(fd);
    Put("guest", kGuest,
        R"({"name":"web","vcpu_num":1,"vram_size":16,"host_id":")" + IdOf(1) + R"(","repository_id":")" + kRepository +
            R"(","vdisks":[")" + kDisk + R"("],"vnics":[")" + kNic + R"("]})");
    Put("vdisk", kDisk, R"({"name":"vda","driver":"raw","vdisk_mode":1,"size":64,"path":")" + image + "\"}");
    Put("vnic", kNic, R"({"guest_id":")" + std::string(kGuest) + R"(","vnic_type":1,"mac_address":")" + kMac + "\"}");
    Put("repository", kRepository,
        R"({"state":")" + std::string(VexaCCC::State::Repo::online) + R"(","host_id":")" + IdOf(1) + "\"}");
  }

  void Put(const std::string& category, const std::string& id, const std::string& record) {
    ASSERT_TRUE(database().Commit({{}, {{store::MakeKey({"dash", category, id, "object"}), record}}}).ok());
  }

  static Json::Value About(const std::string& host_id) {
    Json::Value arguments(Json::objectValue);
    arguments["host_id"] = host_id;
    return arguments;
  }

  // What `function` gives on host 0 about every host, itself among them.
  void ForEveryHost(const std::string& function, Json::Value arguments,
                    const std::function<void(const Json::Value& answer)>& expect) {
    for (int host = 0; host < kHosts; ++host) {
      json::EnsureObject(arguments)["host_id"] = IdOf(host);
      const Json::Value answer = Library(0, function, arguments);
      SCOPED_TRACE(function + " of host " + std::to_string(host) + ": " + json::ToText(answer));
      expect(answer);
    }
  }
};

TEST_F(LibraryCluster, Utilization_MatchesMachine) {
  ForEveryHost("GetSysUtilization", Parse(R"({"resource":["cpu","disk","network"]})"), [](const Json::Value& answer) {
    EXPECT_EQ(answer["result"], Json::Value(true));
    const Json::Value& cpu = answer["out"]["cpu"];
    EXPECT_THAT(cpu["user_load"].asInt() + cpu["system_load"].asInt() + cpu["other_load"].asInt(),
                testing::AllOf(testing::Ge(0), testing::Le(102)));
    EXPECT_THAT(answer["out"]["memory"]["memory_size"].asUInt64(), testing::Gt(100'000u)) << "KiB";
    EXPECT_TRUE(answer["out"]["network"].isArray());
  });
  // Without naming what is wanted it was the memory alone.
  ForEveryHost("GetSysUtilization", Json::Value(), [](const Json::Value& answer) {
    EXPECT_EQ(answer["result"], Json::Value(true));
    for (const char* part : {"cpu", "memory", "network"}) EXPECT_FALSE(answer["out"][part].empty()) << part;
  });
  ForEveryHost("GetSysInfo", Json::Value(), [](const Json::Value& answer) {
    EXPECT_EQ(answer["result"], Json::Value(true));
    EXPECT_THAT(answer["out"]["cpu"]["cores"].asInt(), testing::Gt(0));
    EXPECT_THAT(answer["out"]["memory"].asUInt64(), testing::Gt(100'000u));
    EXPECT_THAT(answer["out"]["uptime"].asUInt64(), testing::Gt(0u));
  });
  ForEveryHost("GetVolumeInfo", Parse(R"({"volume_path":"/"})"), [](const Json::Value& answer) {
    EXPECT_EQ(answer["result"], Json::Value(true));
    EXPECT_THAT(answer["out"]["volume"]["size_total_byte"].asUInt64(), testing::Gt(kMiB));
    EXPECT_EQ(answer["out"]["volume"]["status"], Json::Value("normal"));
  });
}

TEST_F(LibraryCluster, DiskUsage_GuestsDisks_MatchesFileSizes) {
  Json::Value arguments(Json::objectValue);
  arguments["guest_id"] = kGuest;
  ForEveryHost("GetVdiskUsage", arguments, [](const Json::Value& answer) {
    EXPECT_EQ(answer["out"]["total_size"].asUInt64(), 64 * kMiB);
    EXPECT_THAT(answer["out"]["total_used"].asUInt64(), testing::AllOf(testing::Ge(kMiB), testing::Lt(64 * kMiB)));
    EXPECT_EQ(answer["out"][kDisk]["size"].asUInt64(), 64 * kMiB);
    EXPECT_EQ(answer["out"][kDisk]["used"], answer["out"]["total_used"]);
  });
}

TEST_F(LibraryCluster, Interfaces_OfEachHost_HaveIdNameAndLink) {
  const Json::Value all = Library(0, "GetAllInterfaceInfo")["out"];
  std::set<std::string> hosts;
  for (const Json::Value& interface : all) {
    const std::string host_id = interface["host_id"].asString();
    const std::string name = interface["ifname"].asString();
    hosts.insert(host_id);
    Json::Value arguments = About(host_id);
    arguments["interface_id"] = interface["interface_id"];
    const Json::Value named = Library(2, "GetInterfaceNameById", arguments);
    EXPECT_EQ(named["result"], Json::Value(true));
    EXPECT_EQ(named["out"], Json::Value(name.starts_with("ovs_") ? name.substr(4) : name));
    if (interface["type"] != "ethernet") continue;
    arguments["ifname"] = name;
    const Json::Value link = Library(0, "GetNetStat", arguments);
    EXPECT_EQ(link["result"], Json::Value(true)) << name;
    EXPECT_EQ(link["out"]["status"], interface["status"]) << name;
  }
  EXPECT_EQ(hosts, (std::set<std::string>{IdOf(0), IdOf(1), IdOf(2)})) << json::ToText(all);
  Json::Value arguments = About(IdOf(1));
  arguments["ifname"] = "no-such0";
  EXPECT_EQ(Library(0, "GetNetStat", arguments)["result"], Json::Value(false));
}

TEST_F(LibraryCluster, Resources_EveryHost_AreReturnedWithItsRecord) {
  const Json::Value answer = Library(1, "GetHostResourceInfo");
  EXPECT_EQ(answer["result"], Json::Value(0));
  ASSERT_EQ(answer["out"].size(), static_cast<Json::ArrayIndex>(kHosts)) << json::ToText(answer);
  for (int host = 0; host < kHosts; ++host) {
    const Json::Value& resources = answer["out"][IdOf(host)];
    EXPECT_TRUE(resources["https_enable"].asBool()) << json::ToText(resources);
    EXPECT_THAT(resources["cpu_usage"].asInt(), testing::AllOf(testing::Ge(0), testing::Le(101)));
    EXPECT_THAT(resources["free_cpu_ghz"].asDouble(), testing::Ge(0.0));
    EXPECT_THAT(resources["free_ram_size"].asInt(), testing::Gt(0));
    EXPECT_EQ(resources["total_ram_size"].asInt(),
              Library(2, "GetHostTotalMemory", About(IdOf(host)))["result"].asInt());
  }
}

TEST_F(LibraryCluster, Resources_HostDied_OmitsIt) {
  hosts_[2]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[2]->Wait(std::chrono::seconds(20)));
  const Json::Value answer = Library(0, "GetHostResourceInfo");
  EXPECT_EQ(answer["result"], Json::Value(0));
  EXPECT_EQ(answer["out"].getMemberNames(), (std::vector<std::string>{IdOf(0), IdOf(1)}));
  EXPECT_EQ(Library(0, "GetSysInfo", About(IdOf(2)))["result"], Json::Value(false));
}

TEST_F(LibraryCluster, RunningGuest_OnlyItsHost_ReportsIt) {
  Json::Value arguments(Json::objectValue);
  arguments["guest_id"] = kGuest;
  const Json::Value started = Call(0, "VEXA.Virtualization.Guest.Action/pwr_ctl",
                                   R"({"guest_id":")" + std::string(kGuest) + R"(","action":"poweron"})");
  ASSERT_EQ(CodeOf(started), 0) << json::ToText(started) << hosts_[1]->errors();
  for (int host = 0; host < kHosts; ++host) {
    const Json::Value answer = Library(host, "GetInformation", arguments);
    EXPECT_EQ(answer["result"], Json::Value(true)) << host;
    EXPECT_EQ(answer["out"]["has_agent"], Json::Value(false)) << host;
    EXPECT_EQ(answer["out"]["ip"].size(), 1u) << json::ToText(answer) << ": the test driver invents one an interface";
    EXPECT_LT(std::stoi(json::String(answer["out"]["uptime"])), 100) << host;
    // Its repository is on the host that runs it.
    const Json::Value check = Library(host, "CheckGuestRepoCap", arguments);
    EXPECT_EQ(check["result"], Json::Value(0)) << host;
    EXPECT_EQ(check["out"], Json::Value(host == 1 ? 100 : 304)) << host;
  }
}

TEST_F(LibraryCluster, ClearPollTask_EveryHost_Succeeds) {
  ForEveryHost("ClearPollTaskOnHost", Parse(R"({"task_id":"task-1"})"),
               [](const Json::Value& answer) { EXPECT_EQ(answer["result"], Json::Value(0)); });
}

TEST_F(LibraryCluster, MacCheck_UsedAddress_EveryHostReportsIt) {
  Json::Value arguments(Json::objectValue);
  arguments["mac"] = kMac;
  for (int host = 0; host < kHosts; ++host) {
    const Json::Value answer = Library(host, "MacAddrCheck", arguments);
    EXPECT_EQ(answer["result"], Json::Value(-1));
    EXPECT_EQ(json::ToText(answer["out"]), R"({"guest_name":"web","mac_addr":")" + std::string(kMac) + "\"}");
  }
}

TEST_F(LibraryCluster, NewMacs_ConcurrentHosts_AreUnique) {
  constexpr int kEach = 25;
  std::vector<std::vector<std::string>> made(kHosts);
  std::vector<std::thread> threads;
  for (int host = 0; host < kHosts; ++host) {
    threads.emplace_back([this, host, &made] {
      for (int i = 0; i < kEach; ++i) {
        const Json::Value answer = Library(host, "GetDefaultVnic");
        made[static_cast<std::size_t>(host)].push_back(
            json::String(json::Member(json::Element(answer["out"], 0), "mac")));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> distinct;
  for (const auto& of_one : made) distinct.insert(of_one.begin(), of_one.end());
  EXPECT_EQ(distinct.size(), static_cast<std::size_t>(kHosts * kEach));
  EXPECT_FALSE(distinct.contains(""));
}

}  // namespace
}  // namespace vexa::test
