// Bridges and VLANs that are made through netlink, in networks of the test program's own: by this process, and by the
// program vexa-network for a process without rights.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/machine/bridge_service.h"
#include "host/machine/kernel_bridges.h"
#include "tests/support/network_namespace.h"
#include "tests/support/process.h"
#include "tests/support/qemu_host.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {
namespace {

using machine::BridgeMaker;
using machine::BridgeRequest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kId[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kOtherId[] = "1b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr uid_t kNobody = 65534;

class Bridges : public testing::Test {
 protected:
  void SetUp() override {
    const std::string why_not = NamespaceUnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    RunTool({"ip", "link", "add", "up0", "type", "veth", "peer", "name", "far0"});
    RunTool({"ip", "link", "set", "far0", "up"});
  }
  void TearDown() override {
    for (const char* link : {"br7", "up0", "up1", "vx42.0b6c"}) RunProcess({.argv = {"ip", "link", "delete", link}});
  }

  Status Make(const BridgeRequest& request) { return maker_.make(request); }
  Status Remove(const std::string& id = kId) { return maker_.remove({id, "br7", "", 0, false}); }
  static BridgeRequest Plain() { return {kId, "br7", "up0", 0, false}; }
  static BridgeRequest Moving() { return {kId, "br7", "up0", 0, true}; }
  static BridgeRequest Vlan(int tag = 42) { return {kId, "br7", "up0", tag, false}; }
  static std::string Link(const std::string& name) {
    return RunProcess({.argv = {"ip", "-d", "link", "show", name}}).output;
  }
  static std::string Addresses(const std::string& name) { return RunTool({"ip", "address", "show", "dev", name}); }
  static bool HasVlans() {
    const auto made =
        RunProcess({.argv = {"ip", "link", "add", "link", "up0", "name", "vx1.test", "type", "vlan", "id", "1"}});
    RunProcess({.argv = {"ip", "link", "delete", "vx1.test"}});
    return made.exit_code == 0;
  }
  static std::string Routes() { return RunTool({"ip", "route"}); }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
      names.push_back(entry.path().filename());
    return names;
  }
  std::string File(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(folder_.path() + "/10-vexa-br7" + name).rdbuf();
    return text.str();
  }
  static void Configure() {
    RunTool({"ip", "link", "set", "up0", "up"});
    RunTool({"ip", "address", "add", "192.0.2.7/24", "dev", "up0"});
    RunTool({"ip", "address", "add", "2001:db8::7/64", "dev", "up0", "nodad"});
    RunTool({"ip", "route", "add", "default", "via", "192.0.2.1"});
    RunTool({"ip", "route", "add", "198.51.100.0/24", "via", "192.0.2.2"});
  }

  const TempDir folder_;
  BridgeMaker maker_ = machine::BridgeMakerInProcess(folder_.path());
};

TEST_F(Bridges, Make_WithUplink_IsMarkedUpAndKept) {
  const Status made = Make(Plain());
  ASSERT_TRUE(made) << made.error().ToString();
  EXPECT_THAT(Link("br7"), AllOf(HasSubstr("alias vexa-network " + std::string(kId)), HasSubstr("UP")));
  EXPECT_THAT(Link("up0"), AllOf(HasSubstr("master br7"), HasSubstr("UP")));
  EXPECT_EQ(File(".netdev"),
            "# vexa-network " + std::string(kId) + "\n# uplink up0\n\n[NetDev]\nName=br7\nKind=bridge\n");
  EXPECT_THAT(File("-uplink.network"), HasSubstr("[Match]\nName=up0\n\n[Network]\nBridge=br7\n"));
  EXPECT_THAT(File(".network"), HasSubstr("LinkLocalAddressing=no\n"));
  EXPECT_TRUE(Make(Plain())) << "again";
  const Status removed = Remove();
  ASSERT_TRUE(removed) << removed.error().ToString();
  EXPECT_THAT(Link("br7"), IsEmpty());
  EXPECT_THAT(Files(), IsEmpty());
  EXPECT_TRUE(Remove()) << "again";
}

TEST_F(Bridges, Make_Vlan_HasTaggedPort) {
  if (!HasVlans()) GTEST_SKIP() << SkipNotice("this kernel has no VLANs");
  ASSERT_TRUE(Make(Vlan()));
  EXPECT_THAT(Link("vx42.0b6c"), AllOf(HasSubstr("vlan protocol 802.1Q id 42"), HasSubstr("master br7")));
  EXPECT_THAT(Link("up0"), Not(HasSubstr("master")));
  // Another tag replaces the VLAN.
  ASSERT_TRUE(Make(Vlan(43)));
  EXPECT_THAT(Link("vx42.0b6c"), IsEmpty());
  EXPECT_THAT(Link("vx43.0b6c"), HasSubstr("master br7"));
  ASSERT_TRUE(Remove());
  EXPECT_THAT(Link("vx43.0b6c"), IsEmpty());
}

TEST_F(Bridges, Make_UplinkWithAddresses_IsRefusedAndNothingChanges) {
  Configure();
  const std::string addresses = Addresses("up0");
  const std::string routes = Routes();
  const Status made = Make(Plain());
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code(), ErrorCode::kDenied);
  EXPECT_EQ(made.error().message(),
            "The interface 'up0' has addresses or routes, over which this machine would no longer be reached: let the "
            "bridge take them over (--move-addresses), or remove them");
  EXPECT_EQ(Addresses("up0"), addresses);
  EXPECT_EQ(Routes(), routes);
  EXPECT_THAT(Link("br7"), IsEmpty());
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(Bridges, Make_VlanOfUplinkWithAddresses_LeavesThem) {
  if (!HasVlans()) GTEST_SKIP() << SkipNotice("this kernel has no VLANs");
  Configure();
  const std::string routes = Routes();
  EXPECT_TRUE(Make(Vlan()));
  EXPECT_EQ(Routes(), routes);
  EXPECT_THAT(Addresses("up0"), HasSubstr("192.0.2.7/24"));
}

TEST_F(Bridges, Make_VlanFails_LeavesNothing) {
  if (HasVlans()) GTEST_SKIP() << SkipNotice("this kernel has VLANs");
  const Status made = Make(Vlan());
  ASSERT_FALSE(made);
  EXPECT_THAT(made.error().message(), HasSubstr("Cannot make the VLAN 42 of 'up0'"));
  EXPECT_THAT(Link("br7"), IsEmpty());
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(Bridges, Make_MoveAddresses_TakesThemAndGivesThemBack) {
  Configure();
  const Status made = Make(Moving());
  ASSERT_TRUE(made) << made.error().ToString();
  EXPECT_THAT(Addresses("br7"), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("2001:db8::7/64")));
  EXPECT_THAT(Addresses("up0"), AllOf(Not(HasSubstr("192.0.2.7")), Not(HasSubstr("2001:db8::7"))));
  EXPECT_THAT(Routes(), AllOf(HasSubstr("default via 192.0.2.1 dev br7"),
                              HasSubstr("198.51.100.0/24 via 192.0.2.2 dev br7"), Not(HasSubstr("up0"))));
  EXPECT_THAT(File(".network"), AllOf(HasSubstr("Address=192.0.2.7/24\n"), HasSubstr("Address=2001:db8::7/64\n"),
                                      HasSubstr("[Route]\nGateway=192.0.2.1\n"),
                                      HasSubstr("[Route]\nDestination=198.51.100.0/24\nGateway=192.0.2.2\n")));
  // The files keep what was moved.
  ASSERT_TRUE(Make(Moving()));
  EXPECT_THAT(File(".network"), HasSubstr("Address=192.0.2.7/24\n"));
  const Status removed = Remove();
  ASSERT_TRUE(removed) << removed.error().ToString();
  EXPECT_THAT(Addresses("up0"), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("2001:db8::7/64")));
  EXPECT_THAT(Routes(),
              AllOf(HasSubstr("default via 192.0.2.1 dev up0"), HasSubstr("198.51.100.0/24 via 192.0.2.2 dev up0")));
}

TEST_F(Bridges, Make_FailsAfterMove_PutsAddressesBack) {
  Configure();
  const std::string routes = Routes();
  // A bridge cannot be a port of a bridge, so the last step fails.
  RunTool({"ip", "link", "add", "up1", "type", "bridge"});
  RunTool({"ip", "link", "set", "up1", "up"});
  RunTool({"ip", "address", "add", "203.0.113.9/24", "dev", "up1"});
  RunTool({"ip", "route", "add", "203.0.113.128/25", "via", "203.0.113.1"});
  const Status made = Make({kId, "br7", "up1", 0, true});
  ASSERT_FALSE(made);
  EXPECT_THAT(made.error().message(), HasSubstr("Cannot put the interface 'up1' on the bridge 'br7'"));
  EXPECT_THAT(Addresses("up1"), HasSubstr("203.0.113.9/24"));
  EXPECT_THAT(Routes(), HasSubstr("203.0.113.128/25 via 203.0.113.1 dev up1"));
  EXPECT_THAT(Link("br7"), IsEmpty());
  EXPECT_THAT(Files(), IsEmpty());
  RunTool({"ip", "link", "delete", "up1"});
  EXPECT_EQ(Routes(), routes);
}

TEST_F(Bridges, Make_AfterAKillAtAnyStep_IsCompleted) {
  // After the files, and before the mark.
  ASSERT_TRUE(Make(Plain()));
  RunTool({"ip", "link", "set", "br7", "alias", ""});
  RunTool({"ip", "link", "set", "up0", "nomaster"});
  ASSERT_TRUE(Make(Plain()));
  EXPECT_THAT(Link("br7"), HasSubstr("alias vexa-network"));
  EXPECT_THAT(Link("up0"), HasSubstr("master br7"));
  // Between an address on the bridge and its end on the uplink.
  ASSERT_TRUE(Remove());
  Configure();
  ASSERT_TRUE(Make(Moving()));
  RunTool({"ip", "link", "set", "up0", "nomaster"});
  RunTool({"ip", "address", "add", "192.0.2.7/24", "dev", "up0"});
  ASSERT_TRUE(Make(Moving()));
  EXPECT_THAT(Addresses("up0"), Not(HasSubstr("192.0.2.7")));
  EXPECT_THAT(Addresses("br7"), HasSubstr("192.0.2.7/24"));
  EXPECT_THAT(Routes(), HasSubstr("default via 192.0.2.1 dev br7"));
}

TEST_F(Bridges, ForeignInterfaces_AreNeverChangedOrRemoved) {
  RunTool({"ip", "link", "add", "br7", "type", "bridge"});
  const Status made = Make(Plain());
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().message(), "The bridge 'br7' was not made by this system, and 'up0' is not one of its ports");
  EXPECT_EQ(Remove().error().message(), "The interface 'br7' was not made by this system");
  RunTool({"ip", "link", "set", "up0", "master", "br7"});
  EXPECT_TRUE(Make(Plain())) << "it is as requested";
  EXPECT_EQ(Remove().error().code(), ErrorCode::kConflict);
  RunTool({"ip", "link", "delete", "br7"});
  RunTool({"ip", "link", "add", "br7", "type", "veth", "peer", "name", "far1"});
  EXPECT_EQ(Make(Plain()).error().message(), "The interface 'br7' is not a bridge");
  EXPECT_EQ(Remove().error().code(), ErrorCode::kConflict);
  RunTool({"ip", "link", "delete", "br7"});
  // Of another network.
  ASSERT_TRUE(Make(Plain()));
  EXPECT_EQ(Remove(kOtherId).error().code(), ErrorCode::kConflict);
  BridgeRequest other = Plain();
  other.network_id = kOtherId;
  EXPECT_TRUE(Make(other)) << "the uplink is a port of it already";
  EXPECT_THAT(Link("br7"), HasSubstr(kId));
}

TEST_F(Bridges, Uplink_MissingOrTaken_IsRefused) {
  BridgeRequest request = Plain();
  request.uplink = "nothing0";
  EXPECT_EQ(Make(request).error().message(), "The host has no interface 'nothing0'");
  RunTool({"ip", "link", "add", "up1", "type", "bridge"});
  RunTool({"ip", "link", "set", "up0", "master", "up1"});
  EXPECT_EQ(Make(Plain()).error().message(), "The interface 'up0' is a port of another bridge");
}

TEST_F(Bridges, Edited_Uplink_ReplacesThePort) {
  ASSERT_TRUE(Make(Plain()));
  RunTool({"ip", "link", "add", "up1", "type", "veth", "peer", "name", "far1"});
  ASSERT_TRUE(Make({kId, "br7", "up1", 0, false}));
  EXPECT_THAT(Link("up1"), HasSubstr("master br7"));
  EXPECT_THAT(Link("up0"), Not(HasSubstr("master")));
}

TEST_F(Bridges, Request_Hostile_IsRefused) {
  for (const BridgeRequest& request :
       {BridgeRequest{"x", "br7", "up0", 0, false}, BridgeRequest{"", "br7", "up0", 0, false},
        BridgeRequest{kId, "", "up0", 0, false}, BridgeRequest{kId, "../etc", "up0", 0, false},
        BridgeRequest{kId, "a b", "up0", 0, false}, BridgeRequest{kId, "br7\n", "up0", 0, false},
        BridgeRequest{kId, "br7", "*", 0, false}, BridgeRequest{kId, "br7", "up%i", 0, false},
        BridgeRequest{kId, "br7", "br7", 0, false}, BridgeRequest{kId, "br7", "", 0, false},
        BridgeRequest{kId, "a-name-of-16-byt", "up0", 0, false}, BridgeRequest{kId, "br7", "up0", -1, false},
        BridgeRequest{kId, "br7", "up0", 4095, false}}) {
    EXPECT_EQ(Make(request).error().code(), ErrorCode::kInvalid) << request.bridge << " " << request.uplink;
  }
  EXPECT_THAT(Files(), IsEmpty());
}

// The program, as the service manager runs it.
class BridgeService : public Bridges {
 protected:
  void SetUp() override {
    Bridges::SetUp();
    if (IsSkipped()) return;
    ::unlink(kSocket);
    ::mkdir("/etc/systemd", 0755);
    RunTool({"mount", "-t", "tmpfs", "vexa-test", "/etc/systemd"});
    ::mkdir(machine::kNetworkdFolder, 0755);
    program_ =
        std::make_unique<Process>(ProcessOptions{.argv = {VEXA_NETWORK, "--socket", kSocket, "--user", "nobody"}});
    ASSERT_TRUE(Await([] { return ::access(kSocket, F_OK) == 0; }, std::chrono::seconds(30))) << program_->errors();
    ::chmod(kSocket, 0666);  // its group decides in production
  }
  void TearDown() override {
    program_.reset();
    RunProcess({.argv = {"umount", "/etc/systemd"}});
    Bridges::TearDown();
  }

  // What `act` returns as the user; "" stands for success.
  static std::string As(uid_t user, const std::function<Status()>& act) {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setresuid(user, user, user) != 0) ::_exit(1);
      const Status done = act();
      const std::string text = done ? "" : done.error().ToString();
      (void)!::write(ends[1], text.data(), text.size());
      ::_exit(0);
    }
    ::close(ends[1]);
    std::string text;
    char buffer[512];
    for (ssize_t size = 0; (size = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
      text.append(buffer, static_cast<std::size_t>(size));
    }
    ::close(ends[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return text;
  }
  // The reply to a packet; "": none.
  static std::string Reply(const std::string& packet) {
    const Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocket);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    (void)::send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
    char buffer[4096];
    const ssize_t size = ::recv(socket.get(), buffer, sizeof buffer, 0);
    return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : std::string();
  }

  static constexpr char kSocket[] = "/run/vexa-network-test";
  std::unique_ptr<Process> program_;
  const BridgeMaker client_ = machine::BridgeMakerOverSocket(kSocket);
};

TEST_F(BridgeService, User_Allowed_GetsBridgesWithoutRights) {
  const BridgeRequest request = Plain();
  EXPECT_THAT(As(kNobody, [&] { return machine::MakeKernelBridge(request, folder_.path()); }), Not(IsEmpty()));
  EXPECT_EQ(As(kNobody, [&] { return client_.make(request); }), "");
  EXPECT_THAT(Link("up0"), HasSubstr("master br7"));
  EXPECT_TRUE(std::filesystem::exists(std::string(machine::kNetworkdFolder) + "/10-vexa-br7.netdev"));
  EXPECT_EQ(As(kNobody, [&] { return client_.remove(request); }), "");
  EXPECT_THAT(Link("br7"), IsEmpty());
  BridgeRequest missing = request;
  missing.uplink = "nothing0";
  EXPECT_EQ(As(kNobody, [&] { return client_.make(missing); }), "The host has no interface 'nothing0'");
}

TEST_F(BridgeService, User_Other_IsDisconnected) {
  EXPECT_EQ(As(1234, [&] { return client_.make(Plain()); }),
            "This host may not make bridges: start the service vexa-network, or make the bridge: It does not answer");
  EXPECT_THAT(Link("br7"), IsEmpty());
}

TEST_F(BridgeService, Packet_Hostile_IsRefusedAndTheServiceGoesOn) {
  EXPECT_THAT(Reply("x"), HasSubstr(R"("code":"invalid")"));
  EXPECT_THAT(Reply("[]"), HasSubstr("The request is not a JSON object"));
  EXPECT_THAT(Reply(R"({"action":"shell"})"), HasSubstr("The request has no known action"));
  EXPECT_THAT(Reply(R"({"action":"make","network_id":7,"bridge":[],"uplink":{}})"), HasSubstr("\"invalid\""));
  EXPECT_THAT(Reply(std::string(5000, '{')), IsEmpty());
  EXPECT_EQ(As(kNobody, [&] { return client_.make(Plain()); }), "");
}

TEST_F(BridgeService, Service_Absent_IsReported) {
  const BridgeMaker absent = machine::BridgeMakerOverSocket("/run/nothing");
  const Status made = absent.make(Plain());
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().code(), ErrorCode::kUnavailable);
  EXPECT_EQ(
      made.error().ToString(),
      "This host may not make bridges: start the service vexa-network, or make the bridge: No such file or directory");
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) {
  vexa::test::EnterNetworkNamespace(argv);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
