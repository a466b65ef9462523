// Bridges and VLANs that are made through netlink, in networks of the test program's own: by this process, and by the
// program vexa-network for a process without rights.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/base/packet_socket.h"
#include "host/machine/bridge_service.h"
#include "host/machine/kernel_bridges.h"
#include "tests/support/network_namespace.h"
#include "tests/support/process.h"
#include "tests/support/qemu_host.h"
#include "tests/support/temp_dir.h"

namespace {

// A change that this process makes of the machine: a request to the kernel that changes interfaces, or a file that gets
// its name or loses it.
struct Fault {
  int at = 0;  // which change; 0: none
  bool is_kill = false;
  int changes = 0;  // so far
};
Fault fault;

// Whether the next change must fail.
bool Fails() {
  if (fault.at == 0 || ++fault.changes != fault.at) return false;
  if (fault.is_kill) ::_exit(9);
  errno = EIO;
  return true;
}

bool IsChange(const msghdr& message) {
  if (message.msg_iovlen == 0 || message.msg_iov[0].iov_len < sizeof(nlmsghdr)) return false;
  nlmsghdr header;
  std::memcpy(&header, message.msg_iov[0].iov_base, sizeof header);
  return (header.nlmsg_flags & NLM_F_ACK) != 0;  // questions are answered by what they ask for
}

}  // namespace

// libnl and this program's own code call these.
extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  int family = 0;
  socklen_t size = sizeof family;
  (void)::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &size);
  if (family == AF_NETLINK && IsChange(*message) && Fails()) return -1;
  return ::syscall(SYS_sendmsg, fd, message, flags);
}
extern "C" int rename(const char* from, const char* to) noexcept {
  return Fails() ? -1 : static_cast<int>(::syscall(SYS_rename, from, to));
}
extern "C" int unlink(const char* path) noexcept {
  return Fails() ? -1 : static_cast<int>(::syscall(SYS_unlink, path));
}

namespace vexa::test {
namespace {

using machine::BridgeMaker;
using machine::BridgeRequest;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr char kId[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr char kOtherId[] = "1b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr int kManyChanges = 100;  // more than anything here makes
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
    fault = {};
    for (const char* link : {"br7", "up0", "up1", "vx42.0b6c"}) RunProcess({.argv = {"ip", "link", "delete", link}});
  }

  Status Make(const BridgeRequest& request) { return maker_.make(request); }
  Status Remove(const std::string& id = kId) { return maker_.remove({id, kHost, "br7", "", 0, false}); }
  static BridgeRequest Plain() { return {kId, kHost, "br7", "up0", 0, false}; }
  static BridgeRequest Moving() { return {kId, kHost, "br7", "up0", 0, true}; }
  static BridgeRequest Vlan(int tag = 42) { return {kId, kHost, "br7", "up0", tag, false}; }
  static std::string Link(const std::string& name) { return RunProcess({.argv = {"ip", "link", "show", name}}).output; }
  static std::string Addresses(const std::string& name) { return RunTool({"ip", "address", "show", "dev", name}); }
  static std::string HardwareAddress(const std::string& link) {
    std::string address;
    std::getline(std::ifstream("/sys/class/net/" + link + "/address"), address);
    return address;
  }
  static bool HasVlans() {
    const auto made =
        RunProcess({.argv = {"ip", "link", "add", "link", "up0", "name", "vx1.test", "type", "vlan", "id", "1"}});
    RunProcess({.argv = {"ip", "link", "delete", "vx1.test"}});
    return made.exit_code == 0;
  }
  static std::string Routes() { return RunTool({"ip", "route"}); }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      const std::string kind = entry.path().extension();  // a kill at a rename leaves a file that nobody reads
      if (kind == ".netdev" || kind == ".network") names.push_back(entry.path().filename());
    }
    return names;
  }
  std::string File(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(folder_.path() + "/10-vexa-" + name).rdbuf();
    return text.str();
  }
  static void Configure() {
    RunTool({"ip", "link", "set", "up0", "up"});
    RunTool({"ip", "address", "add", "192.0.2.7/24", "dev", "up0"});
    RunTool({"ip", "address", "add", "2001:db8::7/64", "dev", "up0", "nodad"});
    RunTool({"ip", "route", "add", "default", "via", "192.0.2.1"});
    RunTool({"ip", "route", "add", "198.51.100.0/24", "via", "192.0.2.2", "metric", "7"});
    RunTool({"ip", "route", "add", "default", "via", "2001:db8::1"});
  }
  static std::string AllRoutes() { return Routes() + RunTool({"ip", "-6", "route", "show", "default"}); }
  static void ExpectConfigurationOf(const std::string& link) {
    EXPECT_THAT(Addresses(link), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("2001:db8::7/64")));
    const std::string other = link == "up0" ? "br7" : "up0";
    if (!Link(other).empty()) {
      EXPECT_THAT(Addresses(other), AllOf(Not(HasSubstr("192.0.2.7")), Not(HasSubstr("2001:db8::7"))));
    }
    EXPECT_THAT(AllRoutes(), AllOf(HasSubstr("default via 192.0.2.1 dev " + link),
                                   HasSubstr("198.51.100.0/24 via 192.0.2.2 dev " + link + " metric 7"),
                                   HasSubstr("default via 2001:db8::1 dev " + link), Not(HasSubstr("dev " + other))));
  }
  static void ExpectFileNamesConfiguration(const std::string& file) {
    EXPECT_THAT(file, AllOf(HasSubstr("Address=192.0.2.7/24\n"), HasSubstr("Address=2001:db8::7/64\n"),
                            HasSubstr("[Route]\nGateway=192.0.2.1\n"), HasSubstr("[Route]\nGateway=2001:db8::1\n"),
                            HasSubstr("[Route]\nDestination=198.51.100.0/24\nGateway=192.0.2.2\nMetric=7\n")));
  }
  // Whether a process was killed at this change while it did `act`; false: it came to its end.
  static bool IsKilledAt(int change, const std::function<Status()>& act) {
    const pid_t child = ::fork();
    if (child == 0) {
      fault = {change, true, 0};
      ::_exit(act().ok() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && (WEXITSTATUS(status) == 9 || WEXITSTATUS(status) == 0)) << change;
    return WEXITSTATUS(status) == 9;
  }

  const TempDir folder_;
  BridgeMaker maker_ = machine::BridgeMakerInProcess(folder_.path());
};

TEST_F(Bridges, Make_WithUplink_IsMarkedUpAndKept) {
  const Status made = Make(Plain());
  ASSERT_TRUE(made) << made.error().ToString();
  EXPECT_THAT(Link("br7"), AllOf(HasSubstr("alias vexa-network " + std::string(kId) + " " + kHost), HasSubstr("UP")));
  EXPECT_THAT(Link("up0"), AllOf(HasSubstr("master br7"), HasSubstr("UP")));
  const std::string mac = HardwareAddress("up0");
  EXPECT_EQ(HardwareAddress("br7"), mac);
  const std::string mark = "# vexa-network " + std::string(kId) + " " + kHost + "\n";
  EXPECT_EQ(File("bridge-br7.netdev"),
            mark + "# uplink up0\n\n[NetDev]\nName=br7\nKind=bridge\nMACAddress=" + mac + "\n");
  EXPECT_EQ(File("port-br7.network"), mark +
                                          "\n[Match]\nName=up0\n\n[Link]\nRequiredForOnline=no\n\n[Network]\n"
                                          "Bridge=br7\nLinkLocalAddressing=no\n");
  EXPECT_EQ(File("bridge-br7.network"),
            mark +
                "\n[Match]\nName=br7\n\n[Link]\nRequiredForOnline=no\n\n[Network]\nConfigureWithoutCarrier=yes\n"
                "LinkLocalAddressing=no\n");
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
  EXPECT_THAT(RunTool({"ip", "-d", "link", "show", "vx42.0b6c"}),
              AllOf(HasSubstr("vlan protocol 802.1Q id 42"), HasSubstr("master br7")));
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
            "bridge take them over (--move-addresses on), or remove them");
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
  // Addresses of the VLAN must not get on its uplink.
  RunTool({"ip", "address", "add", "203.0.113.9/24", "dev", "br7"});
  EXPECT_EQ(Remove().error().message(),
            "The bridge 'br7' has addresses, and no uplink that could take them: remove them");
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
  ExpectConfigurationOf("br7");
  ExpectFileNamesConfiguration(File("bridge-br7.network"));
  EXPECT_THAT(File("bridge-br7.network"), Not(HasSubstr("RequiredForOnline")));
  // The files keep what was moved.
  ASSERT_TRUE(Make(Moving()));
  ExpectFileNamesConfiguration(File("bridge-br7.network"));
  const Status removed = Remove();
  ASSERT_TRUE(removed) << removed.error().ToString();
  ExpectConfigurationOf("up0");
}

TEST_F(Bridges, Make_MoveSecondaryAddresses_TakesAll) {
  Configure();
  RunTool({"ip", "address", "add", "192.0.2.8/24", "dev", "up0"});
  const Status made = Make(Moving());
  ASSERT_TRUE(made) << made.error().ToString();
  EXPECT_THAT(Addresses("br7"), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("192.0.2.8/24")));
  EXPECT_THAT(Addresses("up0"), Not(HasSubstr("192.0.2")));
  ASSERT_TRUE(Remove());
  EXPECT_THAT(Addresses("up0"), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("192.0.2.8/24")));
}

TEST_F(Bridges, Make_MoveLeasedAddresses_KeepsTheLeases) {
  RunTool({"ip", "link", "set", "up0", "up"});
  RunTool({"ip", "address", "add", "192.0.2.7/24", "dev", "up0", "valid_lft", "3600", "preferred_lft", "3600"});
  RunTool({"ip", "route", "add", "default", "via", "192.0.2.1", "proto", "dhcp"});
  RunTool({"ip", "route", "add", "198.51.100.0/24", "via", "192.0.2.2", "proto", "static"});
  ASSERT_TRUE(Make(Moving()));
  const std::string file = File("bridge-br7.network");
  EXPECT_THAT(file, AllOf(HasSubstr("DHCP=ipv4\n"), HasSubstr("Destination=198.51.100.0/24\n"),
                          Not(HasSubstr("Address=")), Not(HasSubstr("Gateway=192.0.2.1"))));
  // Before the next lease there is no address.
  RunTool({"ip", "address", "flush", "dev", "br7"});
  RunTool({"ip", "link", "set", "up0", "nomaster"});
  ASSERT_TRUE(Make(Moving()));
  EXPECT_EQ(File("bridge-br7.network"), file);
}

TEST_F(Bridges, Make_MoveWithoutCable_TakesAll) {
  Configure();
  RunTool({"ip", "link", "set", "far0", "down"});
  const Status made = Make(Moving());
  ASSERT_TRUE(made) << made.error().ToString();
  EXPECT_THAT(Routes(), AllOf(HasSubstr("default via 192.0.2.1 dev br7"), Not(HasSubstr("up0"))));
}

TEST_F(Bridges, Make_RoutesThatCannotBeMoved_IsRefused) {
  Configure();
  RunTool({"ip", "route", "add", "default", "via", "192.0.2.1", "table", "77"});
  const Status made = Make(Moving());
  ASSERT_FALSE(made);
  EXPECT_EQ(made.error().message(),
            "The interface 'up0' has routes in other tables or over several interfaces, which cannot be moved: "
            "configure the bridge by hand");
  ExpectConfigurationOf("up0");
  EXPECT_THAT(Link("br7"), IsEmpty());
  RunTool({"ip", "route", "delete", "default", "table", "77"});
  ASSERT_TRUE(Make(Moving()));
  RunTool({"ip", "route", "add", "default", "via", "192.0.2.1", "table", "77"});
  EXPECT_EQ(Remove().error().message(), "The bridge 'br7' has routes that cannot be moved: remove them");
  ExpectConfigurationOf("br7");
}

TEST_F(Bridges, Make_FailsAtAnyStep_LeavesEverythingAsItWas) {
  Configure();
  const std::string addresses = Addresses("up0");
  int change = 1;
  for (;; ++change) {
    fault = {change, false, 0};
    const Status made = Make(Moving());
    fault = {};
    if (made) break;
    SCOPED_TRACE(std::to_string(change) + " " + made.error().ToString());
    ASSERT_LT(change, kManyChanges);
    ExpectConfigurationOf("up0");
    EXPECT_THAT(Link("br7"), IsEmpty());
    EXPECT_THAT(Files(), IsEmpty());
  }
  EXPECT_GT(change, 12);
  ExpectConfigurationOf("br7");
}

TEST_F(Bridges, Make_KilledAtAnyStep_LosesNothingAndIsCompleted) {
  Configure();
  int change = 1;
  for (; IsKilledAt(change, [&] { return Make(Moving()); }); ++change) {
    SCOPED_TRACE(change);
    ASSERT_LT(change, kManyChanges);
    EXPECT_THAT(RunTool({"ip", "address"}), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("2001:db8::7/64")));
    EXPECT_THAT(AllRoutes(), AllOf(HasSubstr("default via 192.0.2.1"), HasSubstr("198.51.100.0/24 via 192.0.2.2"),
                                   HasSubstr("default via 2001:db8::1")));
    // Every other time the network is removed instead.
    if (change % 2 == 0) {
      const Status made = Make(Moving());
      ASSERT_TRUE(made) << made.error().ToString();
      ExpectConfigurationOf("br7");
      ExpectFileNamesConfiguration(File("bridge-br7.network"));
      EXPECT_THAT(Link("up0"), HasSubstr("master br7"));
      EXPECT_THAT(Link("br7"), HasSubstr("alias vexa-network"));
    }
    const Status removed = Remove();
    ASSERT_TRUE(removed) << removed.error().ToString();
    ExpectConfigurationOf("up0");
    EXPECT_THAT(Link("br7"), IsEmpty());
    EXPECT_THAT(Files(), IsEmpty());
  }
  EXPECT_GT(change, 12);
}

TEST_F(Bridges, Remove_KilledAtAnyStep_LosesNothingAndIsCompleted) {
  Configure();
  for (int change = 1;; ++change) {
    SCOPED_TRACE(change);
    ASSERT_LT(change, kManyChanges);
    ASSERT_TRUE(Make(Moving()));
    const bool is_killed = IsKilledAt(change, [&] { return Remove(); });
    EXPECT_THAT(RunTool({"ip", "address"}), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("2001:db8::7/64")));
    const Status removed = Remove();
    ASSERT_TRUE(removed) << removed.error().ToString();
    ExpectConfigurationOf("up0");
    EXPECT_THAT(Link("br7"), IsEmpty());
    EXPECT_THAT(Files(), IsEmpty());
    if (!is_killed) {
      EXPECT_GT(change, 8);
      break;
    }
  }
}

TEST_F(Bridges, Remove_UplinkGone_KeepsTheAddresses) {
  Configure();
  ASSERT_TRUE(Make(Moving()));
  RunTool({"ip", "link", "delete", "up0"});
  EXPECT_EQ(Remove().error().message(),
            "The bridge 'br7' has addresses, and no uplink that could take them: remove them");
  EXPECT_THAT(Addresses("br7"), HasSubstr("192.0.2.7/24"));
  RunTool({"ip", "address", "flush", "dev", "br7"});
  RunTool({"ip", "route", "flush", "dev", "br7"});
  RunTool({"ip", "-6", "route", "flush", "dev", "br7"});
  EXPECT_TRUE(Remove());
}

TEST_F(Bridges, Remove_OtherPorts_IsRefusedUntilTheyAreGone) {
  ASSERT_TRUE(Make(Plain()));
  RunTool({"ip", "link", "add", "up1", "type", "veth", "peer", "name", "far1"});
  RunTool({"ip", "link", "set", "up1", "master", "br7"});
  for (const Status& done : {Remove(), Make({kId, kHost, "br7", "far1", 0, false})}) {
    ASSERT_FALSE(done);
    EXPECT_EQ(done.error().code(), ErrorCode::kBusy);
    EXPECT_EQ(done.error().message(), "The bridge 'br7' has other ports: 'up1'");
  }
  EXPECT_THAT(Link("up0"), HasSubstr("master br7"));
  RunTool({"ip", "link", "set", "up1", "nomaster"});
  EXPECT_TRUE(Remove());
}

TEST_F(Bridges, Files_WithoutTheirBridge_AreRemoved) {
  ASSERT_TRUE(Make(Plain()));
  RunTool({"ip", "link", "delete", "br7"});
  EXPECT_TRUE(Remove(kOtherId));
  EXPECT_EQ(Files().size(), 3u);
  EXPECT_TRUE(Remove());
  EXPECT_THAT(Files(), IsEmpty());
}

TEST_F(Bridges, Files_OfSomebodyElse_AreNeverReplaced) {
  for (const char* name : {"bridge-br7.netdev", "bridge-br7.network", "port-br7.network"}) {
    const std::string path = folder_.path() + "/10-vexa-" + name;
    std::ofstream(path) << "[Match]\n";
    EXPECT_EQ(Make(Plain()).error().message(), "The file '" + path + "' was not made by this system");
    EXPECT_TRUE(Remove());
    EXPECT_EQ(File(name), "[Match]\n");
    EXPECT_THAT(Link("br7"), IsEmpty());
    std::filesystem::remove(path);
  }
}

// As systemd-networkd makes it when the machine starts.
TEST_F(Bridges, Bridge_WithoutAlias_IsRecognizedByItsFiles) {
  ASSERT_TRUE(Make(Plain()));
  RunTool({"ip", "link", "delete", "br7"});
  RunTool({"ip", "link", "add", "br7", "type", "bridge"});
  ASSERT_TRUE(Make(Plain()));
  EXPECT_THAT(Link("br7"), HasSubstr("alias vexa-network"));
  EXPECT_THAT(Link("up0"), HasSubstr("master br7"));
  RunTool({"ip", "link", "delete", "br7"});
  RunTool({"ip", "link", "add", "br7", "type", "bridge"});
  EXPECT_TRUE(Remove());
  EXPECT_THAT(Link("br7"), IsEmpty());
}

TEST_F(Bridges, Make_FailsAfterMove_PutsAddressesBack) {
  Configure();
  const std::string routes = Routes();
  // A bridge cannot be a port of a bridge, so the last step fails.
  RunTool({"ip", "link", "add", "up1", "type", "bridge"});
  RunTool({"ip", "link", "set", "up1", "up"});
  RunTool({"ip", "address", "add", "203.0.113.9/24", "dev", "up1"});
  RunTool({"ip", "route", "add", "203.0.113.128/25", "via", "203.0.113.1"});
  const Status made = Make({kId, kHost, "br7", "up1", 0, true});
  ASSERT_FALSE(made);
  EXPECT_THAT(made.error().message(), HasSubstr("Cannot put the interface 'up1' on the bridge 'br7'"));
  EXPECT_THAT(Addresses("up1"), HasSubstr("203.0.113.9/24"));
  EXPECT_THAT(Routes(), HasSubstr("203.0.113.128/25 via 203.0.113.1 dev up1"));
  EXPECT_THAT(Link("br7"), IsEmpty());
  EXPECT_THAT(Files(), IsEmpty());
  RunTool({"ip", "link", "delete", "up1"});
  EXPECT_EQ(Routes(), routes);
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
  EXPECT_EQ(maker_.remove({kId, kOtherId, "br7", "", 0, false}).error().code(), ErrorCode::kConflict);
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
  RunTool({"ip", "link", "set", "lo", "up"});
  EXPECT_EQ(Make({kId, kHost, "br7", "lo", 0, true}).error().message(),
            "The interface 'lo' is not an Ethernet interface");
  EXPECT_THAT(Addresses("lo"), HasSubstr("127.0.0.1/8"));
}

TEST_F(Bridges, Edited_Uplink_ReplacesThePort) {
  ASSERT_TRUE(Make(Plain()));
  RunTool({"ip", "link", "add", "up1", "type", "veth", "peer", "name", "far1"});
  ASSERT_TRUE(Make({kId, kHost, "br7", "up1", 0, false}));
  EXPECT_THAT(Link("up1"), HasSubstr("master br7"));
  EXPECT_THAT(Link("up0"), Not(HasSubstr("master")));
  EXPECT_THAT(File("port-br7.network"), HasSubstr("Name=up1\n"));
}

TEST_F(Bridges, Edited_UplinkWithAddresses_GetsThemBack) {
  Configure();
  ASSERT_TRUE(Make(Moving()));
  RunTool({"ip", "link", "add", "up1", "type", "veth", "peer", "name", "far1"});
  ASSERT_TRUE(Make({kId, kHost, "br7", "up1", 0, true}));
  ExpectConfigurationOf("up0");
  EXPECT_THAT(Link("up1"), HasSubstr("master br7"));
  EXPECT_THAT(File("bridge-br7.network"), Not(HasSubstr("Address=")));
}

TEST_F(Bridges, Request_Hostile_IsRefused) {
  for (const BridgeRequest& request :
       {BridgeRequest{"x", kHost, "br7", "up0", 0, false}, BridgeRequest{"", kHost, "br7", "up0", 0, false},
        BridgeRequest{kId, "", "br7", "up0", 0, false}, BridgeRequest{kId, "x\ny", "br7", "up0", 0, false},
        BridgeRequest{kId, kHost, "", "up0", 0, false}, BridgeRequest{kId, kHost, "../etc", "up0", 0, false},
        BridgeRequest{kId, kHost, "a b", "up0", 0, false}, BridgeRequest{kId, kHost, "br7\n", "up0", 0, false},
        BridgeRequest{kId, kHost, "br7", "*", 0, false}, BridgeRequest{kId, kHost, "br7", "up%i", 0, false},
        BridgeRequest{kId, kHost, "br7", "br7", 0, false}, BridgeRequest{kId, kHost, "br7", "", 0, false},
        BridgeRequest{kId, kHost, "a-name-of-16-byt", "up0", 0, false},
        BridgeRequest{kId, kHost, "br7", "up0", -1, false}, BridgeRequest{kId, kHost, "br7", "up0", 4095, false}}) {
    EXPECT_EQ(Make(request).error().code(), ErrorCode::kInvalid) << request.bridge << " " << request.uplink;
  }
  EXPECT_THAT(Files(), IsEmpty());
}

// The program with the rights that its unit gives it.
class BridgeService : public Bridges {
 protected:
  void SetUp() override {
    Bridges::SetUp();
    if (IsSkipped()) return;
    ::unlink(kSocket);
    ::mkdir("/etc/systemd", 0755);
    RunTool({"mount", "-t", "tmpfs", "vexa-test", "/etc/systemd"});
    ::mkdir(machine::kNetworkdFolder, 0755);
    program_ = std::make_unique<Process>(
        ProcessOptions{.argv = {CONFINED_PROGRAM, VEXA_SOURCE_DIR "/packaging/vexa-network.service", "--", VEXA_NETWORK,
                                "--socket", kSocket, "--user", "nobody"}});
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
  static Descriptor Connect() {
    Descriptor socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocket);
    EXPECT_EQ(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return socket;
  }
  // The reply to a packet; "": none.
  static std::string Reply(const std::string& packet) {
    const Descriptor socket = Connect();
    (void)::send(socket.get(), packet.data(), packet.size(), MSG_NOSIGNAL);
    char buffer[4096];
    const ssize_t size = ::recv(socket.get(), buffer, sizeof buffer, 0);
    return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : std::string();
  }

  static constexpr char kSocket[] = "/run/vexa-network-test";
  std::unique_ptr<Process> program_;
  const BridgeMaker client_ = machine::BridgeMakerOverSocket(kSocket);
};

TEST_F(BridgeService, Rights_OfTheUnit_AreNetworksOnly) {
  std::ifstream file("/proc/" + std::to_string(program_->pid()) + "/status");
  std::ostringstream status;
  status << file.rdbuf();
  // CAP_NET_ADMIN is the 12th.
  for (const char* set : {"CapPrm", "CapEff", "CapBnd"}) {
    EXPECT_THAT(status.str(), HasSubstr(std::string(set) + ":\t0000000000001000\n"));
  }
  EXPECT_THAT(status.str(), AllOf(HasSubstr("CapAmb:\t0000000000000000\n"), HasSubstr("NoNewPrivs:\t1\n"),
                                  HasSubstr("Seccomp:\t2\n")));
}

TEST_F(BridgeService, User_Allowed_GetsBridgesWithoutRights) {
  const BridgeRequest request = Plain();
  EXPECT_THAT(As(kNobody, [&] { return machine::MakeKernelBridge(request, folder_.path()); }), Not(IsEmpty()));
  EXPECT_EQ(As(kNobody, [&] { return client_.make(request); }), "");
  EXPECT_THAT(Link("up0"), HasSubstr("master br7"));
  EXPECT_TRUE(std::filesystem::exists(std::string(machine::kNetworkdFolder) + "/10-vexa-bridge-br7.netdev"));
  EXPECT_EQ(As(kNobody, [&] { return client_.remove(request); }), "");
  EXPECT_THAT(Link("br7"), IsEmpty());
  Configure();
  EXPECT_EQ(As(kNobody, [&] { return client_.make(Moving()); }), "");
  ExpectConfigurationOf("br7");
  EXPECT_EQ(As(kNobody, [&] { return client_.remove(request); }), "");
  ExpectConfigurationOf("up0");
  BridgeRequest missing = request;
  missing.uplink = "nothing0";
  EXPECT_EQ(As(kNobody, [&] { return client_.make(missing); }), "The host has no interface 'nothing0'");
}

// The machine starts again: interfaces have lost what was configured by hand, and systemd-networkd reads the files.
TEST_F(BridgeService, Files_AfterARestart_LetNetworkdMakeTheBridge) {
  constexpr char kNetworkd[] = "/lib/systemd/systemd-networkd";
  if (::access(kNetworkd, X_OK) != 0) GTEST_SKIP() << SkipNotice("there is no systemd-networkd");
  Configure();
  ASSERT_EQ(As(kNobody, [&] { return client_.make(Moving()); }), "");
  const std::string mac = HardwareAddress("br7");
  RunTool({"ip", "link", "delete", "br7"});
  RunTool({"ip", "link", "delete", "up0"});
  RunTool({"ip", "link", "add", "up0", "address", mac, "type", "veth", "peer", "name", "far0"});
  RunTool({"ip", "link", "set", "far0", "up"});
  // Without write access to /sys it does not wait for udev.
  const std::string start = std::string("mount -o remount,bind,ro /sys && exec ") + kNetworkd;
  const Process networkd({.argv = {"unshare", "--mount", "sh", "-c", start}});
  const auto is_made = [] {
    const std::string routes = AllRoutes();
    return routes.find("default via 192.0.2.1 dev br7") != std::string::npos &&
           routes.find("default via 2001:db8::1 dev br7") != std::string::npos &&
           routes.find("198.51.100.0/24 via 192.0.2.2 dev br7 proto static metric 7") != std::string::npos &&
           Link("up0").find("master br7") != std::string::npos;
  };
  EXPECT_TRUE(Await(is_made, std::chrono::seconds(30))) << AllRoutes() << networkd.errors();
  EXPECT_THAT(Addresses("br7"), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("2001:db8::7/64")));
  EXPECT_EQ(HardwareAddress("br7"), mac);
  // The host's next look, and the end of the network.
  EXPECT_EQ(As(kNobody, [&] { return client_.make(Moving()); }), "");
  EXPECT_THAT(Link("br7"), HasSubstr("alias vexa-network"));
  EXPECT_EQ(As(kNobody, [&] { return client_.remove(Moving()); }), "");
  EXPECT_THAT(Addresses("up0"), AllOf(HasSubstr("192.0.2.7/24"), HasSubstr("2001:db8::7/64")));
  EXPECT_THAT(Link("br7"), IsEmpty());
}

TEST_F(BridgeService, User_Silent_KeepsOthersWaitingForSecondsOnly) {
  const Descriptor silent = Connect();
  EXPECT_EQ(As(kNobody, [&] { return client_.make(Plain()); }), "");
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

TEST_F(BridgeService, Program_SocketOfTheServiceManager_IsServed) {
  constexpr char kPassed[] = "/run/vexa-network-passed";
  ::unlink(kPassed);
  const Process manager({.argv = {"systemd-socket-activate", "--seqpacket", "--listen", kPassed, VEXA_NETWORK}});
  ASSERT_TRUE(Await([&] { return ::access(kPassed, F_OK) == 0; }, std::chrono::seconds(30))) << manager.errors();
  const Status made = machine::BridgeMakerOverSocket(kPassed).make(Plain());
  EXPECT_TRUE(made) << made.error().ToString();
}

TEST_F(BridgeService, Program_ArgumentsWrong_SaysWhy) {
  const auto usage = RunProcess({.argv = {VEXA_NETWORK, "--socket"}});
  EXPECT_EQ(usage.exit_code, 2);
  EXPECT_EQ(usage.errors, "usage: vexa-network [--socket PATH] [--user NAME]\n");
  const auto user = RunProcess({.argv = {VEXA_NETWORK, "--user", "missing"}});
  EXPECT_EQ(user.exit_code, 1);
  EXPECT_EQ(user.errors, "vexa-network: There is no user 'missing'\n");
  const auto path = RunProcess({.argv = {VEXA_NETWORK, "--socket", "/run/missing/socket"}});
  EXPECT_EQ(path.exit_code, 1);
  EXPECT_EQ(path.errors, "vexa-network: Cannot listen on '/run/missing/socket': No such file or directory\n");
}

TEST_F(BridgeService, Service_Hangs_IsReportedInTime) {
  ::unlink("/run/vexa-network-hanging");
  const auto listener = ListenForPackets("/run/vexa-network-hanging");
  ASSERT_TRUE(listener);
  const BridgeMaker hanging = machine::BridgeMakerOverSocket("/run/vexa-network-hanging", 1);
  EXPECT_EQ(hanging.make(Plain()).error().ToString(),
            "This host may not make bridges: start the service vexa-network, or make the bridge: It does not answer");
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
