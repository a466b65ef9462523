// What the rows for other hosts answer: on the real machine, on a scripted one, and to wrong parameters.
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "host/api/user/guest_parts_state.h"
#include "host/api/user/host_list_api.h"
#include "host/base/files.h"
#include "host/daemon/host_state.h"
#include "host/store/key.h"
#include "tests/support/matchers.h"
#include "tests/support/scripted_guests.h"
#include "tests/unit/api/services_fixture.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

using test::Answer;
using test::CallRow;
using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
constexpr const char* kUnknown = "00000000-0000-4000-8000-000000000000";
const std::string kGuestParameters = std::string(R"({"guest_id":")") + kGuest + "\"}";

class Services : public ::testing::Test {
 protected:
  Services() : scripted_(ServiceRows(ScriptedParts())), real_(ServiceRows(RealParts())) {}

  ServiceParts RealParts() {
    ServiceParts parts;
    parts.store = records::CurrentEnvironment()->store;
    parts.web_ports = [] { return WebPorts{8642, 8643, true, false}; };
    return parts;
  }
  ServiceParts ScriptedParts() {
    ServiceParts parts = RealParts();
    parts.machine = files_.machine();
    parts.addresses = [this] { return addresses_; };
    parts.volume_roots = {host_.folder().path()};
    parts.guests = &guests_;
    return parts;
  }

  Answer Scripted(const char* api, const char* method, const std::string& parameters = "{}") {
    return CallTable(scripted_, api, method, parameters);
  }
  Answer Real(const char* api, const char* method, const std::string& parameters = "{}") {
    return CallTable(real_, api, method, parameters);
  }

  void PutGuest(const Json::Value& changes) {
    Json::Value guest = Parsed(R"({"name":"web","state":"guest_running","repository_id":"r1","vdisks":["d1","d2"]})");
    guest["host_id"] = records::CurrentEnvironment()->host_id;
    for (const std::string& name : changes.getMemberNames()) guest[name] = changes[name];
    host_.Put("guest", kGuest, guest);
  }

  test::TestHost host_;
  test::ScriptedMachine files_;
  std::vector<machine::InterfaceAddress> addresses_;
  test::ScriptedGuests guests_;
  ApiTable scripted_;
  ApiTable real_;
};

TEST_F(Services, Rows_Each_IsForHostsAndVersionOne) {
  std::set<std::string> names;
  for (const ApiRow& row : real_.rows()) {
    EXPECT_EQ(row.access.value, Access::kHost) << row.api;
    EXPECT_EQ(row.version, 1);
    names.insert(std::string(row.api) + " " + std::string(row.method));
  }
  EXPECT_THAT(
      names,
      UnorderedElementsAre(
          "VEXA.CCC.Cluster.Member certificate_sign", "VEXA.CCC.Cluster.Member utilization_get",
          "VEXA.CCC.Guest check_repo_cap", "VEXA.CCC.Guest create", "VEXA.CCC.Guest check_resource",
          "VEXA.CCC.Guest apply", "VEXA.CCC.Guest pending", "VEXA.CCC.Guest delete", "VEXA.CCC.Guest discard_saved",
          "VEXA.CCC.Guest get_info", "VEXA.CCC.Guest hostset", "VEXA.CCC.Guest import", "VEXA.CCC.Guest poweroff",
          "VEXA.CCC.Guest poweron", "VEXA.CCC.Guest reboot", "VEXA.CCC.Guest release", "VEXA.CCC.Guest restore",
          "VEXA.CCC.Guest resume", "VEXA.CCC.Guest save", "VEXA.CCC.Guest suspend", "VEXA.CCC.Guest screenshot",
          "VEXA.CCC.Guest set", "VEXA.CCC.Guest shutdown", "VEXA.CCC.Guest type", "VEXA.CCC.VDisk list",
          "VEXA.Core.Network.Bond get", "VEXA.Core.Network.Ethernet get", "VEXA.Core.Network.Interface list",
          "VEXA.Core.Storage.Volume get", "VEXA.Core.System info", "VEXA.Core.System.Utilization get",
          "VEXA.Core.Web.Orla get", "VEXA.Virtualization.Cluster clear_poll_task",
          "VEXA.Virtualization.Guest.Action check_host_resource"));
}

// Every declared parameter with every type that it does not have, and without it when it is required.
TEST_F(Services, WrongTypes_AreBadParameters) {
  const std::vector<std::string> values{"null", "true", "7", "2.5", "\"\"", "[]", "[7]", "[null]", "{}"};
  int checked = 0;
  for (const ApiRow& row : real_.rows()) {
    for (const Parameter& parameter : row.parameters) {
      const std::string name(parameter.name);
      if (parameter.necessity == Necessity::kRequired) {
        EXPECT_EQ(CallRow(row, Parsed("{}")).code, 401) << name;
      }
      for (const std::string& value : values) {
        if (parameter.type == ParameterType::kArray && (value == "[]" || value == "null")) continue;
        EXPECT_EQ(CallRow(row, Parsed("{\"" + name + "\":" + value + "}")).code, 401)
            << row.api << " " << name << " " << value;
        ++checked;
      }
    }
  }
  EXPECT_GE(checked, 70);
}

TEST_F(Services, Utilization_RealMachine_HasAllFigures) {
  const Answer answer = Real("VEXA.Core.System.Utilization", "get");
  ASSERT_EQ(answer.code, 0);
  EXPECT_THAT(answer.data.getMemberNames(), UnorderedElementsAre("cpu", "memory", "disk", "network"));
  for (const char* name : {"user_load", "system_load", "other_load"}) {
    EXPECT_TRUE(answer.data["cpu"][name].isInt()) << name;
    EXPECT_LE(answer.data["cpu"][name].asInt(), 100);
  }
  EXPECT_GT(answer.data["memory"]["memory_size"].asUInt64(), answer.data["memory"]["avail_real"].asUInt64());
  EXPECT_FALSE(answer.data["network"].empty());
}

TEST_F(Services, Utilization_ReturnsOnlyRequestedReadableResources) {
  files_.Put("/proc/meminfo", "MemTotal: 100 kB\nMemFree: 10 kB\n");
  const Answer all = Scripted("VEXA.Core.System.Utilization", "get");
  EXPECT_EQ(all.data, Parsed(R"({"memory":{"memory_size":100,"avail_real":10,"buffer":0,"cached":0}})"));
  const Answer none = Scripted("VEXA.Core.System.Utilization", "get", R"({"resource":["cpu","nonsense",""]})");
  EXPECT_EQ(none.code, 0);
  EXPECT_EQ(none.data, Parsed("{}"));
  const Answer member = Scripted("VEXA.CCC.Cluster.Member", "utilization_get", R"({"resource":["memory"]})");
  EXPECT_EQ(member.data["memory"]["memory_size"], 100);
  EXPECT_EQ(Scripted("VEXA.CCC.Cluster.Member", "utilization_get", R"({"resource":[]})").data, Parsed("{}"));
  std::string many = "\"cpu\"";
  for (int i = 0; i < 64; ++i) many += ",\"cpu\"";
  EXPECT_EQ(Scripted("VEXA.Core.System.Utilization", "get", "{\"resource\":[" + many + "]}").code, 401);
}

// What the shared layer sends when its own caller names no resources.
TEST_F(Services, Utilization_NullResource_MeansEverything) {
  files_.Put("/proc/meminfo", "MemTotal: 100 kB\nMemFree: 10 kB\n");
  for (const char* api : {"VEXA.Core.System.Utilization get", "VEXA.CCC.Cluster.Member utilization_get"}) {
    const std::string name(api);
    const std::size_t space = name.find(' ');
    const auto ask = [&](const char* parameters) {
      return Scripted(name.substr(0, space).c_str(), name.substr(space + 1).c_str(), parameters);
    };
    const Answer null = ask(R"({"resource":null})");
    EXPECT_EQ(null.code, 0) << api;
    EXPECT_EQ(null.data, ask("{}").data) << api;
    EXPECT_TRUE(null.data.isMember("memory")) << api;
  }
  const Answer real = Real("VEXA.Core.System.Utilization", "get", R"({"resource":null})");
  ASSERT_EQ(real.code, 0);
  EXPECT_THAT(real.data.getMemberNames(), UnorderedElementsAre("cpu", "memory", "disk", "network"));
}

TEST_F(Services, Member_RealMachine) {
  const Answer answer = Real("VEXA.CCC.Cluster.Member", "utilization_get", R"({"resource":["memory"]})");
  EXPECT_EQ(answer.code, 0);
  EXPECT_THAT(answer.data["memory"].getMemberNames(),
              UnorderedElementsAre("avail_real", "buffer", "cached", "memory_size"));
}

TEST_F(Services, SystemInfo_RealAndEmptyMachine) {
  const Answer real = Real("VEXA.Core.System", "info");
  ASSERT_EQ(real.code, 0);
  EXPECT_GT(real.data["cpu"]["cores"].asInt(), 0);
  EXPECT_GT(real.data["memory"].asUInt64(), 0u);
  EXPECT_GT(real.data["uptime"].asUInt64(), 0u);
  EXPECT_NE(real.data["version"], "");
  const Answer empty = Scripted("VEXA.Core.System", "info");
  EXPECT_EQ(empty.data, Parsed(R"({"model":"","serial":"","cpu":{"model":"","cores":0,"clock_speed":0.0},
                                   "memory":0,"uptime":0,"version":""})"));
  files_.Put("/sys/class/dmi/id/product_name", "Server \xff\n");
  files_.Put("/sys/class/dmi/id/product_serial", "S-1\n");
  const Answer known = Scripted("VEXA.Core.System", "info");
  EXPECT_EQ(known.data["model"], "Server ?");
  EXPECT_EQ(known.data["serial"], "S-1");
}

bool HasMountPointOfRoot() {
  std::ifstream mounts("/proc/self/mountinfo");
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string point;
    for (int field = 0; field < 5; ++field) fields >> point;
    if (point == "/") return true;
  }
  return false;
}

TEST_F(Services, Volume_RealMachine) {
  const Answer answer = Real("VEXA.Core.Storage.Volume", "get", R"({"volume_path":"/"})");
  ASSERT_EQ(answer.code, 0);
  const Json::Value& volume = answer.data["volume"];
  EXPECT_GT(volume["size_total_byte"].asUInt64(), 0u);
  EXPECT_LE(volume["size_free_byte"].asUInt64(), volume["size_total_byte"].asUInt64());
  // In a changed root the mount point of "/" may lie outside, and its type is unknown.
  EXPECT_EQ(volume["fs_type"] != "", HasMountPointOfRoot());
  EXPECT_EQ(volume["status"], "normal");
  EXPECT_EQ(Real("VEXA.Core.Storage.Volume", "get", R"({"volume_path":"/proc"})").data["volume"]["fs_type"], "proc");
}

TEST_F(Services, Volume_HostilePaths_AreRefused) {
  const std::string root = host_.folder().path();
  ASSERT_EQ(::symlink("/", (root + "/out").c_str()), 0);
  ASSERT_EQ(::mkdir((root + "/..in").c_str(), 0700), 0);
  const auto code = [&](const std::string& path) {
    Json::Value parameters;
    parameters["volume_path"] = path;
    return CallRow(*scripted_.Find("VEXA.Core.Storage.Volume", "get", 1), parameters).code;
  };
  EXPECT_EQ(code(root), 0);
  EXPECT_EQ(code(root + "/..in/"), 0);
  EXPECT_EQ(code(root + "/.."), 401);
  EXPECT_EQ(code(root + "/../x"), 401);
  EXPECT_EQ(code("tmp"), 401);
  EXPECT_EQ(code(root + std::string("\0x", 2)), 401);
  EXPECT_EQ(code("/" + std::string(5000, 'x')), 401);
  EXPECT_EQ(code("/" + std::string(300, 'x')), 403);
  EXPECT_EQ(code("/"), 403) << "above the root";
  EXPECT_EQ(code(root + "x"), 403);
  EXPECT_EQ(code(root + "/out"), 403) << "a symbolic link that leads out";
  EXPECT_EQ(code(root + "/store/data.mdb"), 403) << "a file";
  EXPECT_EQ(code(root + "/missing\n%s"), 403);
}

TEST_F(Services, Volume_NestedMounts_UsesDeepestMountPoint) {
  const std::string root = host_.folder().path();
  const auto type = [&] {
    return Scripted("VEXA.Core.Storage.Volume", "get", "{\"volume_path\":\"" + root + "/a b\"}")
        .data["volume"]["fs_type"];
  };
  ASSERT_EQ(::mkdir((root + "/a b").c_str(), 0700), 0);
  EXPECT_EQ(type(), "");
  files_.Put("/proc/self/mountinfo", "1 1 8:1 / / rw - ext4 /dev/sda rw\n2 1 0:1 / " + root +
                                         "/a rw - wrong x rw\n3 1 0:1 / " + root +
                                         "/a\\040b rw shared:1 - xfs /dev/sdb rw\nbroken\n4 1 0:1 / /\\0 rw -\n");
  EXPECT_EQ(type(), "xfs");
}

TEST_F(Services, Ethernet_RealMachine) {
  const Answer list = Real("VEXA.Core.Network.Interface", "list");
  ASSERT_EQ(list.code, 0);
  ASSERT_TRUE(list.data.isArray());
  ASSERT_FALSE(list.data.empty());
  EXPECT_THAT(list.data[0].getMemberNames(),
              UnorderedElementsAre("ifname", "ip", "mask", "mac", "speed", "status", "type"));
  const std::string name = list.data[0]["ifname"].asString();
  const Answer one = Real("VEXA.Core.Network.Ethernet", "get", "{\"ifname\":\"" + name + "\"}");
  EXPECT_EQ(one.code, 0);
  EXPECT_EQ(one.data["ifname"], name);
  EXPECT_TRUE(one.data["speed"].isInt());
  EXPECT_GE(one.data["speed"].asInt(), 0);
  EXPECT_EQ(Real("VEXA.Core.Network.Ethernet", "get", R"({"ifname":"lo"})").data["status"], "connected");
}

TEST_F(Services, Ethernet_ScriptedFigures) {
  const std::string folder = "/sys/class/net/eth0";
  files_.MakeFolder(folder + "/device");
  const auto get = [this] { return Scripted("VEXA.Core.Network.Ethernet", "get", R"({"ifname":"eth0"})"); };
  EXPECT_EQ(get().data, Parsed(R"({"ifname":"eth0","type":"ethernet","mac":"","speed":0,"status":"disconnected",
                                   "mtu":0,"duplex":"unknown"})"));
  files_.Put(folder + "/address", "02:00:00:00:00:01\n");
  files_.Put(folder + "/speed", "10000\n");
  files_.Put(folder + "/carrier", "1\n");
  files_.Put(folder + "/mtu", "9000\n");
  files_.Put(folder + "/duplex", "full\n");
  EXPECT_EQ(get().data, Parsed(R"({"ifname":"eth0","type":"ethernet","mac":"02:00:00:00:00:01","speed":10000,
                                   "status":"connected","mtu":9000,"duplex":"full"})"));
  for (const char* speed : {"-1\n", "4294967295\n", "", "fast", "99999999999999999999"}) {
    files_.Put(folder + "/speed", speed);
    EXPECT_EQ(get().data["speed"], 0) << speed;
  }
  files_.Put(folder + "/carrier", "0\n");
  files_.Put(folder + "/operstate", "up\n");
  EXPECT_EQ(get().data["status"], "disconnected");
  std::filesystem::remove(files_.root() + folder + "/carrier");
  EXPECT_EQ(get().data["status"], "connected");
}

TEST_F(Services, Interfaces_UnknownAndHostileNames) {
  files_.MakeFolder("/sys/class/net/eth0/device");
  for (const char* api : {"VEXA.Core.Network.Ethernet", "VEXA.Core.Network.Bond"}) {
    EXPECT_EQ(Scripted(api, "get", R"({"ifname":"eth9"})").code, 403);
    EXPECT_EQ(Scripted(api, "get", R"({"ifname":"ovs_eth9"})").code, 403);
    for (const char* name : {"..", ".", "eth0/device", "../net/eth0", "a\\u0000b", "seventeen-bytes-x", "a\\nb"}) {
      EXPECT_EQ(Scripted(api, "get", std::string("{\"ifname\":\"") + name + "\"}").code, 401) << name;
    }
  }
  EXPECT_EQ(Scripted("VEXA.Core.Network.Bond", "get", R"({"ifname":"ovs_.."})").code, 403);
  EXPECT_EQ(Scripted("VEXA.Core.Network.Bond", "get", R"({"ifname":"ovs_fifteen-bytes-x"})").code, 403);
  EXPECT_EQ(Scripted("VEXA.Core.Network.Bond", "get", R"({"ifname":"ovs_sixteen-bytes-xx"})").code, 401);
}

TEST_F(Services, Bond_Name_IsLookedUpThenWithoutPrefix) {
  files_.Put("/sys/class/net/bond0/bonding/slaves", "eth0 eth1\n");
  files_.Put("/sys/class/net/bond0/speed", "2000\n");
  Answer answer = Scripted("VEXA.Core.Network.Bond", "get", R"({"ifname":"ovs_bond0"})");
  ASSERT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data["ifname"], "bond0");
  EXPECT_EQ(answer.data["speed"], 2000);
  EXPECT_EQ(answer.data["slaves"], Parsed(R"(["eth0","eth1"])"));
  files_.Put("/sys/class/net/ovs_bond0/speed", "5\n");
  answer = Scripted("VEXA.Core.Network.Bond", "get", R"({"ifname":"ovs_bond0"})");
  EXPECT_EQ(answer.data["ifname"], "ovs_bond0");
  EXPECT_EQ(answer.data["slaves"], Parsed("[]"));
}

TEST_F(Services, InterfaceList_SeveralAddresses_AreJoined) {
  files_.MakeFolder("/sys/class/net/eth0/device");
  files_.MakeFolder("/sys/class/net/eth1/device");
  addresses_ = {{"eth0", "2001:db8::1", "ffff::", true},
                {"eth0", "192.0.2.1", "255.255.255.0", false},
                {"eth0", "192.0.2.2", "255.0.0.0", false},
                {"other", "192.0.2.3", "255.0.0.0", false},
                {"eth1", "2001:db8::2", "ffff::", true}};
  const Answer answer = Scripted("VEXA.Core.Network.Interface", "list");
  ASSERT_EQ(answer.data.size(), 2u);
  EXPECT_EQ(answer.data[0]["ip"], "192.0.2.1");
  EXPECT_EQ(answer.data[0]["mask"], "255.255.255.0");
  EXPECT_EQ(answer.data[1]["ip"], "2001:db8::2");
  addresses_.clear();
  EXPECT_EQ(Scripted("VEXA.Core.Network.Interface", "list").data[0]["ip"], "");
}

// Guests' connections are looked up under the name with "ovs_" in front.
TEST_F(Services, InterfaceList_GuestPorts_AreRepeatedWithoutAddress) {
  const std::string net = "/sys/class/net/";
  files_.Put(net + "eth0/carrier", "1\n");
  files_.MakeFolder(net + "eth0/device");
  files_.MakeFolder(net + "br0/bridge");
  files_.MakeFolder(net + "br0/lower_eth0");
  files_.Put(net + "br0/carrier", "1\n");
  files_.MakeFolder(net + "docker0/bridge");
  files_.MakeFolder(net + "docker0/lower_veth0");
  files_.Put(net + "veth0/carrier", "1\n");
  files_.Put(net + "ovs_lan/carrier", "1\n");
  files_.MakeFolder(net + "virbr0/bridge");
  addresses_ = {{"br0", "192.0.2.1", "255.255.255.0", false}, {"docker0", "172.17.0.1", "255.255.0.0", false}};
  const auto words = [this] {
    std::vector<std::string> found;
    for (const Json::Value& element : Scripted("VEXA.Core.Network.Interface", "list").data) {
      found.push_back(element["ifname"].asString() + " " + element["type"].asString() + " " +
                      element["status"].asString() + " " + element["ip"].asString());
    }
    return found;
  };
  EXPECT_THAT(words(),
              ElementsAre("br0 bridge connected 192.0.2.1", "eth0 ethernet connected ", "ovs_lan bridge connected ",
                          "ovs_br0 bridge connected ", "ovs_docker0 bridge connected "));
  files_.Put(net + "eth0/carrier", "0\n");
  files_.MakeFolder(net + "ovs_br0");
  EXPECT_THAT(words(), ElementsAre("br0 bridge disconnected 192.0.2.1", "eth0 ethernet disconnected ",
                                   "ovs_br0 bridge disconnected ", "ovs_lan bridge connected ",
                                   "ovs_docker0 bridge connected "));
}

TEST_F(Services, WebService_ReturnsConfiguredPorts) {
  EXPECT_EQ(Real("VEXA.Core.Web.Orla", "get").data,
            Parsed(R"({"http_port":8642,"https_port":8643,"enable_https":true,"enable_https_redirect":false})"));
}

TEST_F(Services, GuestInfo_GuestRunsElsewhere_IsRefused) {
  EXPECT_EQ(Scripted("VEXA.CCC.Guest", "get_info", kGuestParameters).code, 403) << "unknown";
  PutGuest(Parsed("{}"));
  const Answer answer = Scripted("VEXA.CCC.Guest", "get_info", kGuestParameters);
  EXPECT_EQ(answer.code, 0);
  EXPECT_EQ(answer.data, Parsed(R"({"ip":["192.0.2.7"],"uptime":77,"has_agent":true})"));
  EXPECT_EQ(Real("VEXA.CCC.Guest", "get_info", kGuestParameters).data,
            Parsed(R"({"ip":[],"uptime":0,"has_agent":false})"))
      << "nothing more is known";
  guests_.running.reset();
  EXPECT_EQ(Scripted("VEXA.CCC.Guest", "get_info", kGuestParameters).code, 403);
  for (const char* changes : {R"({"state":"guest_shutdown"})", R"({"host_id":"other"})", R"({"state":7})",
                              R"({"host_id":null})", R"({"host_id":["x"]})"}) {
    PutGuest(Parsed(changes));
    EXPECT_EQ(Real("VEXA.CCC.Guest", "get_info", kGuestParameters).code, 403) << changes;
  }
  host_.PutText("guest", kGuest, "damaged");
  EXPECT_EQ(Real("VEXA.CCC.Guest", "get_info", kGuestParameters).code, 403);
}

TEST_F(Services, RepositoryCheck_NeedsThisHostAndAUsableState) {
  EXPECT_EQ(Real("VEXA.CCC.Guest", "check_repo_cap", kGuestParameters).code, 403);
  PutGuest(Parsed("{}"));
  const auto check = [this](const char* repository) {
    host_.PutText("repository", "r1", repository);
    const Answer answer = Real("VEXA.CCC.Guest", "check_repo_cap", kGuestParameters);
    EXPECT_EQ(answer.code, 0);
    EXPECT_EQ(answer.data["repo_usable"].asBool(), answer.data["failed_check"] == 0);
    return answer.data["failed_check"].asInt();
  };
  const std::string here = records::CurrentEnvironment()->host_id;
  const auto repository = [&](const std::string& state) {
    return "{\"host_id\":\"" + here + "\",\"state\":\"" + state + "\"}";
  };
  EXPECT_EQ(check(repository(VexaCCC::State::Repo::online).c_str()), 0);
  EXPECT_EQ(check(repository(VexaCCC::State::Repo::degraded).c_str()), 0);
  EXPECT_EQ(check(repository(VexaCCC::State::Repo::provision_warning).c_str()), 0);
  EXPECT_EQ(check(repository(VexaCCC::State::Repo::full).c_str()), 303);
  EXPECT_EQ(check(repository(VexaCCC::State::Repo::crashed).c_str()), 303);
  EXPECT_EQ(check(repository("").c_str()), 303);
  EXPECT_EQ(check("[]"), 304);
  host_.Remove("repository", "r1");
  EXPECT_EQ(Real("VEXA.CCC.Guest", "check_repo_cap", kGuestParameters).data["repo_usable"], false);
}

// Numbers without a keyword were answered for everything.
TEST_F(Services, RepositoryCheck_OtherHost_ReturnsAccurateCode) {
  host_.PutText("repository", "r1", R"({"host_id":"other","state":"online"})");
  const auto check = [this](const char* changes) {
    PutGuest(Parsed(changes));
    const Answer answer = Real("VEXA.CCC.Guest", "check_repo_cap", kGuestParameters);
    EXPECT_EQ(answer.data["repo_usable"], false);
    EXPECT_TRUE(answer.data["reason"].asString().ends_with('.'));
    return answer.data["failed_check"].asInt();
  };
  EXPECT_EQ(check("{}"), 307) << "the host has no record";
  host_.Put("host", "other", Parsed(R"({"name":"b","state":"host_running","version":"1"})"));
  EXPECT_EQ(check("{}"), 307) << "the host has sent no heartbeat";
  Json::Value seen;
  seen["time"] = static_cast<Json::Int64>(::time(nullptr));
  store::Transaction sign;
  sign.operations.push_back(
      {store::MakeKey({"dash", "host", "other", "seen"}), VexaVirtualization::json::ToText(seen)});
  ASSERT_TRUE(host_.store().Commit(sign).ok());
  EXPECT_EQ(check("{}"), 304) << "the host is alive";
  EXPECT_EQ(check(R"({"use_ovmf":true})"), 311);
}

TEST_F(Services, DiskList_ReturnsSizesInBytes) {
  PutGuest(Parsed("{}"));
  const std::string image = host_.folder().File("image");
  ASSERT_TRUE(WriteFileAtomically(image, std::string(300'000, 'x'), 0600).ok());
  struct stat info {};
  ASSERT_EQ(::stat(image.c_str(), &info), 0);
  host_.PutText("vdisk", "d1", "{\"size\":20480,\"path\":\"" + image + "\"}");
  host_.PutText("vdisk", "d2", R"({"size":18446744073709551615,"path":"/tmp/../etc/passwd"})");
  const Answer answer = Real("VEXA.CCC.VDisk", "list", kGuestParameters);
  ASSERT_EQ(answer.code, 0);
  const Json::Value& disks = answer.data["vdisks"];
  ASSERT_EQ(disks.size(), 2u);
  EXPECT_EQ(disks[0]["vdisk_id"], "d1");
  EXPECT_EQ(disks[0]["total_size"].asUInt64(), 20480ull << 20);
  EXPECT_EQ(disks[0]["used_size"].asUInt64(), static_cast<Json::UInt64>(info.st_blocks) * 512);
  EXPECT_GE(disks[0]["used_size"].asUInt64(), 300'000u);
  EXPECT_EQ(disks[1]["total_size"].asUInt64(), 18446744073709551615u);
  EXPECT_EQ(disks[1]["used_size"].asUInt64(), 0u);
}

TEST_F(Services, DiskList_OddRecords) {
  EXPECT_EQ(Real("VEXA.CCC.VDisk", "list", std::string("{\"guest_id\":\"") + kUnknown + "\"}").code, 403);
  PutGuest(Parsed(R"({"vdisks":[]})"));
  EXPECT_EQ(Real("VEXA.CCC.VDisk", "list", kGuestParameters).data, Parsed(R"({"vdisks":[]})"));
  PutGuest(Parsed(R"({"vdisks":"d1"})"));
  EXPECT_EQ(Real("VEXA.CCC.VDisk", "list", kGuestParameters).data, Parsed(R"({"vdisks":[]})"));
  for (const char* vdisks : {R"({"vdisks":["missing"]})", R"({"vdisks":[7]})", R"({"vdisks":[["d"]]})"}) {
    PutGuest(Parsed(vdisks));
    EXPECT_EQ(Real("VEXA.CCC.VDisk", "list", kGuestParameters).code, 403) << vdisks;
  }
  PutGuest(Parsed(R"({"vdisks":["d1"]})"));
  for (const char* record : {"{}", "[]", R"({"size":-1,"path":7})", R"({"size":"20","path":"relative"})",
                             R"({"size":null,"path":"/dev/null"})", R"({"path":"/proc"})", R"({"path":"/a\u0000b"})"}) {
    host_.PutText("vdisk", "d1", record);
    const Answer answer = Real("VEXA.CCC.VDisk", "list", kGuestParameters);
    ASSERT_EQ(answer.code, 0) << record;
    EXPECT_EQ(answer.data["vdisks"][0]["used_size"].asUInt64(), 0u) << record;
  }
}

TEST_F(Services, PollTask_Cleared_IsRemoved) {
  const auto clear = [this](const std::string& id) {
    return Real("VEXA.Virtualization.Cluster", "clear_poll_task", "{\"task_id\":\"" + id + "\"}").code;
  };
  const std::string key = store::MakeKey({"poll", "../x/y"});
  const std::string other = store::MakeKey({"poll", "z"});
  ASSERT_TRUE(host_.store().Commit({{}, {{key, "{}"}, {other, "{}"}}}).ok());
  EXPECT_EQ(clear("../x/y"), 0);
  EXPECT_EQ(clear("../x/y"), 0) << "again";
  auto snapshot = host_.store().Read();
  ASSERT_TRUE(snapshot.ok());
  EXPECT_FALSE((*snapshot)->Get(key)->has_value());
  EXPECT_TRUE((*snapshot)->Get(other)->has_value());
  EXPECT_EQ(clear(""), 401);
  EXPECT_EQ(clear(std::string(600, 'x')), 401);
  host_.store().FailSnapshots();
  EXPECT_EQ(clear("z"), 100);
}

TEST_F(Services, HostList_NamesAndStates) {
  const ApiTable table(HostListRows());
  const auto list = [&] { return CallTable(table, "VEXA.Virtualization.Host", "list", "{}"); };
  EXPECT_EQ(list().data, Parsed(R"({"hosts":[]})"));
  EXPECT_EQ(table.rows()[0].access.value, Access::kUser);
  host_.PutText("host", "h1", R"({"name":"one","state":"host_running"})");
  host_.PutText("host", "h2", "damaged");
  host_.PutText("host", "h3", R"({"name":7,"state":["x"]})");
  const auto row = [](const char* id, const char* name, const char* state, const char* type) {
    Json::Value host = Parsed(R"({"version_state":"unknown","status_of":"host","age_s":0})");
    host["host_id"] = id;
    host["name"] = name;
    host["state"] = host["status"] = state;
    host["status_type"] = type;
    return host;
  };
  Json::Value expected(Json::objectValue);
  expected["hosts"].append(row("h1", "one", "running", "healthy"));
  expected["hosts"].append(row("h2", "", "unknown", "error"));
  expected["hosts"].append(row("h3", "7", "unknown", "error"));
  EXPECT_EQ(list().data, expected);
  host_.store().FailSnapshots();
  EXPECT_EQ(list().code, 403);
}

TEST_F(Services, HostList_RunningHostOfOlderVersion_ShowsVersionState) {
  const ApiTable table(HostListRows());
  host_.PutText("host", "h1", R"({"name":"one","state":"host_running","version":"1.2.3"})");
  host_.PutText("host", "h2", R"({"name":"two","state":"host_running","version":"2.0.0"})");
  host_.PutText("host", "h3", R"({"name":"three","state":"host_control_unavail","version":"1.2.3"})");
  const Json::Value hosts = CallTable(table, "VEXA.Virtualization.Host", "list", "{}").data["hosts"];
  ASSERT_EQ(hosts.size(), 3u);
  EXPECT_EQ(hosts[0], Parsed(R"({"host_id":"h1","name":"one","state":"running","version_state":"upgrade_required",
                                 "status_of":"version","status":"upgrade_required","status_type":"warning","age_s":0})"));
  EXPECT_EQ(hosts[1], Parsed(R"({"host_id":"h2","name":"two","state":"running","version_state":"version_matched",
                                 "status_of":"host","status":"running","status_type":"healthy","age_s":0})"));
  EXPECT_EQ(hosts[2], Parsed(R"({"host_id":"h3","name":"three","state":"control_unavail",
                                 "version_state":"upgrade_required","status_of":"host","status":"control_unavail",
                                 "status_type":"error","age_s":0})"));
}

TEST_F(Services, HostCondition_IsWorstKnownState) {
  namespace states = VexaCCC::State::Host;
  test::ScriptedGuests guests;
  bool has_trouble = false;
  const auto condition = [&] { return daemon::HostStateFor({&guests, [&] { return has_trouble; }}); };
  EXPECT_EQ(daemon::HostStateFor({}), states::running);
  EXPECT_EQ(daemon::HostStateFor({&guests, {}}), states::running);
  EXPECT_EQ(condition(), states::running);
  has_trouble = true;
  EXPECT_EQ(condition(), states::network_warn);
  guests.is_hypervisor_reachable = false;
  EXPECT_EQ(condition(), states::control_unavail);
  has_trouble = false;
  EXPECT_EQ(condition(), states::control_unavail);
}

TEST_F(Services, DiskStates_Listed_MatchUsersView) {
  host_.PutText("repository", "r1", R"({"name":"pool","state":"repo_online"})");
  host_.PutText("repository", "r2", R"({"name":"away","state":"repo_inaccessible"})");
  host_.PutText("vdisk", "d1", R"({"name":"boot","repository_id":"r1"})");
  host_.PutText("vdisk", "d2", R"({"repository_id":"r2","state":"vdisk_online"})");
  host_.PutText("vdisk", "d3", R"({"state":"vdisk_crashed"})");
  EXPECT_EQ(
      DiskStatesOf(*records::Reader::OpenCurrent(), Parsed(R"({"repository_id":"r1","vdisks":["d1","d2","d3","d4"]})")),
      Parsed(R"([{"vdisk_id":"d1","name":"boot","status":"online","status_type":"healthy"},
                       {"vdisk_id":"d2","name":"","status":"missing","status_type":"error"},
                       {"vdisk_id":"d3","name":"","status":"crashed","status_type":"error"},
                       {"vdisk_id":"d4","name":"","status":"missing","status_type":"error"}])"));
}

}  // namespace
}  // namespace vexa::api
