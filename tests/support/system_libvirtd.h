// A libvirtd with networks, and an Open vSwitch, as a system has them: for test programs with networks of their own
// (network_namespace.h).
#pragma once

#include <gtest/gtest.h>
#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <string>

#include "tests/support/libvirt_user.h"
#include "tests/support/network_namespace.h"
#include "tests/support/process.h"
#include "tests/support/qemu_host.h"

namespace vexa::test {

inline constexpr char kSystemUri[] = "qemu:///system";

inline bool IsInstalled(const char* program) {
  return RunProcess({.argv = {"sh", "-c", std::string("command -v ") + program}}).exit_code == 0;
}

// A libvirtd with networks, as a system has it, in the folders of the test program's own.
class SystemLibvirtd {
 public:
  using Connection = std::unique_ptr<virConnect, int (*)(virConnectPtr)>;
  using Network = std::unique_ptr<virNetwork, int (*)(virNetworkPtr)>;
  using Domain = std::unique_ptr<virDomain, int (*)(virDomainPtr)>;

  // `controllers`: the control groups that it uses, such as "\"cpu\"".
  explicit SystemLibvirtd(const std::string& controllers = "") {
    std::ofstream("/etc/libvirt/qemu.conf")
        << "stdio_handler = \"file\"\nuser = \"root\"\ngroup = \"root\"\nsecurity_driver = \"none\"\n"
           "namespaces = []\ncgroup_controllers = ["
        << controllers << "]\ndynamic_ownership = 0\nremember_owner = 0\n";
    std::ofstream("/etc/libvirt/libvirtd.conf") << "auth_unix_rw = \"none\"\nauth_unix_ro = \"none\"\n";
    program_ =
        std::make_unique<Process>(ProcessOptions{.argv = {"/usr/sbin/libvirtd", "--pid-file", "/run/libvirtd.pid"}});
    // What an earlier one has left is there, and does not answer.
    ::virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
    const bool listens = Await([] { return Connection(::virConnectOpen(kSystemUri), ::virConnectClose) != nullptr; },
                               std::chrono::seconds(60));
    if (!listens) ADD_FAILURE() << "libvirtd does not listen: " << program_->errors();
    // It first runs each QEMU to learn what it can do, which the first start of a guest would wait for.
    const Connection connection(::virConnectOpen(kSystemUri), ::virConnectClose);
    if (connection) ::free(::virConnectGetCapabilities(connection.get()));
  }

  void StartNetwork(const std::string& forward) const {
    const Connection connection(::virConnectOpen(kSystemUri), ::virConnectClose);
    const std::string xml = "<network><name>inside</name>" + forward +
                            "<bridge name='virbr7'/><ip address='198.51.100.1' netmask='255.255.255.0'/></network>";
    const Network network(::virNetworkCreateXML(connection.get(), xml.c_str()), ::virNetworkFree);
    ASSERT_TRUE(network) << ::virGetLastErrorMessage();
  }
  void StopNetwork() const {
    const Connection connection(::virConnectOpen(kSystemUri), ::virConnectClose);
    const Network network(::virNetworkLookupByName(connection.get(), "inside"), ::virNetworkFree);
    ASSERT_EQ(::virNetworkDestroy(network.get()), 0) << ::virGetLastErrorMessage();
  }

  std::string Log() const { return program_->errors(); }

  // What a test has left, for the next one.
  void Forget(const std::string& guest) const {
    const LibvirtUser user(kSystemUri);
    (void)user.Destroy(guest);
    (void)user.Undefine(guest);
    const Connection connection(::virConnectOpen(kSystemUri), ::virConnectClose);
    const Network network(::virNetworkLookupByName(connection.get(), "inside"), ::virNetworkFree);
    if (network) ::virNetworkDestroy(network.get());
  }

  // What `virsh domif-setlink` does.
  void SetLink(const std::string& guest, const std::string& state) const {
    const Connection connection(::virConnectOpen(kSystemUri), ::virConnectClose);
    const Domain domain(::virDomainLookupByUUIDString(connection.get(), guest.c_str()), ::virDomainFree);
    ASSERT_TRUE(domain);
    const std::unique_ptr<char, void (*)(void*)> text(::virDomainGetXMLDesc(domain.get(), 0), ::free);
    const std::string xml = text.get();
    const std::size_t begin = xml.find("<interface");
    std::string interface = xml.substr(begin, xml.find("</interface>", begin) - begin);
    if (const std::size_t link = interface.find("<link "); link != std::string::npos) {
      interface.erase(link, interface.find('>', link) + 1 - link);
    }
    interface += "<link state='" + state + "'/></interface>";
    ASSERT_EQ(::virDomainUpdateDeviceFlags(domain.get(), interface.c_str(), VIR_DOMAIN_AFFECT_LIVE), 0)
        << ::virGetLastErrorMessage();
  }

 private:
  std::unique_ptr<Process> program_;
};

// The datapath is in user space, which every kernel can run.
class VirtualSwitch {
 public:
  static std::string UnavailableReason() {
    return IsInstalled("ovs-vswitchd") ? "" : "there is no ovs-vswitchd: install openvswitch-switch";
  }
  VirtualSwitch() {
    RunTool({"mkdir", "-p", "/run/openvswitch"});
    RunTool({"ovsdb-tool", "create", "/run/openvswitch/conf.db", "/usr/share/openvswitch/vswitch.ovsschema"});
    database_ = std::make_unique<Process>(ProcessOptions{
        .argv = {"ovsdb-server", "/run/openvswitch/conf.db", "--remote=punix:/run/openvswitch/db.sock"}});
    EXPECT_TRUE(Await([] { return ::access("/run/openvswitch/db.sock", F_OK) == 0; }, std::chrono::seconds(30)));
    RunTool({"ovs-vsctl", "--no-wait", "init"});
    datapath_ = std::make_unique<Process>(ProcessOptions{.argv = {"ovs-vswitchd", "unix:/run/openvswitch/db.sock"}});
  }
  void AddBridge(const std::string& name) const {
    RunTool({"ovs-vsctl", "--timeout=30", "add-br", name, "--", "set", "bridge", name, "datapath_type=netdev"});
  }
  void AddPort(const std::string& bridge, const std::string& port) const {
    RunTool({"ovs-vsctl", "--timeout=30", "add-port", bridge, port});
  }
  void DeletePort(const std::string& bridge, const std::string& port) const {
    RunTool({"ovs-vsctl", "--timeout=30", "del-port", bridge, port});
  }

 private:
  std::unique_ptr<Process> database_;
  std::unique_ptr<Process> datapath_;
};

}  // namespace vexa::test
