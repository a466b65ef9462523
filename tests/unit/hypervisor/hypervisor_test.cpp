// The hypervisor on libvirt's test driver: what only this mode can show, and what libvirt's faults become.
#include "host/hypervisor/hypervisor.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "host/base/files.h"
#include "host/hypervisor/driver_uri.h"
#include "host/hypervisor/kvm_probe.h"
#include "host/hypervisor/libvirt_errors.h"
#include "tests/support/guest_events.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/matchers.h"
#include "tests/unit/storage/temporary_folder.h"

namespace vexa::hypervisor {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr const char* kGuest = "11111111-2222-4333-8444-555555555555";

std::string Xml(const std::string& network = "default", int memory_mib = 64, const std::string& id = kGuest,
                const std::string& name = "guest") {
  return "<domain type='test'><name>" + name + "</name><uuid>" + id + "</uuid><memory unit='MiB'>" +
         std::to_string(memory_mib) +
         "</memory><os><type>hvm</type></os><devices><interface type='network'><mac address='52:54:00:00:00:01'/>"
         "<source network='" +
         network + "'/></interface></devices></domain>";
}

std::unique_ptr<Hypervisor> MustOpen(HypervisorOptions options = {}) {
  Result<std::unique_ptr<Hypervisor>, Failure> opened = Hypervisor::Open(std::move(options));
  EXPECT_TRUE(opened.ok()) << (opened.ok() ? "" : opened.error().ToString());
  return opened.ok() ? std::move(*opened) : nullptr;
}

std::string OpenProblem(const std::string& mode, const std::string& root = "") {
  HypervisorOptions options;
  options.mode = mode;
  options.root = root;
  return OutcomeName(Hypervisor::Open(std::move(options)));
}

// A hypervisor with one guest, off, and its events.
class TestMode : public ::testing::Test {
 protected:
  void SetUp() override { Open({}); }
  void TearDown() override {
    test::IgnoreButtonPresses(0);
    test::FakeXml("");
  }

  void Open(HypervisorOptions options, const std::string& xml = Xml()) {
    hypervisor_.reset();
    events_.Listen(options);
    hypervisor_ = MustOpen(std::move(options));
    ASSERT_TRUE(hypervisor_);
    ASSERT_EQ(OutcomeName(hypervisor_->Define(xml)), "ok");
  }
  void Start() { ASSERT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "ok"); }
  GuestState State() {
    const Result<GuestState, Failure> state = hypervisor_->StateOf(kGuest);
    EXPECT_TRUE(state.ok());
    return state.ok() ? *state : GuestState::kGone;
  }
  test::GuestEvents events_;
  std::unique_ptr<Hypervisor> hypervisor_;
};

// --- opening

TEST(HypervisorOpen, Open_InvalidOptions_AreRefused) {
  EXPECT_EQ(OpenProblem(""), "invalid");
  EXPECT_EQ(OpenProblem("kvm"), "invalid");
  EXPECT_EQ(OpenProblem("qemu:///system\n"), "invalid");
  EXPECT_EQ(OpenProblem("embed"), "invalid");
  EXPECT_EQ(OpenProblem("embed", "relative/folder"), "invalid");
  HypervisorOptions options;
  options.initial_retry_wait = milliseconds(0);
  EXPECT_EQ(OutcomeName(Hypervisor::Open(options)), "invalid");
  options.initial_retry_wait = seconds(60);
  EXPECT_EQ(OutcomeName(Hypervisor::Open(options)), "invalid");
}

TEST(HypervisorOpen, Open_EmbeddedAsRootWithoutUser_IsDenied) {
  if (geteuid() != 0 || getpwnam("libvirt-qemu") != nullptr) GTEST_SKIP() << "not root, or there is such a user";
  const TemporaryFolder folder;
  EXPECT_EQ(OpenProblem("embed", folder.path()), "denied");
}

TEST(HypervisorOpen, Open_DaemonMissing_Fails) {
  const TemporaryFolder folder;
  EXPECT_EQ(OpenProblem("test+unix:///default?socket=" + folder.Path("no.sock")), "disconnected");
  EXPECT_EQ(OpenProblem("test://" + folder.Path("no.xml")), "invalid");
}

HypervisorOptions Later(const std::string& mode) {
  HypervisorOptions options;
  options.mode = mode;
  options.if_unreachable = IfUnreachable::kConnectInBackground;
  options.initial_retry_wait = milliseconds(5);
  options.max_retry_wait = milliseconds(20);
  return options;
}

TEST(HypervisorOpen, Open_LaterAndDaemonMissing_IsDisconnected) {
  const TemporaryFolder folder;
  for (const char* driver : {"test+unix:///default", "qemu+unix:///system"}) {
    const auto hypervisor = MustOpen(Later(driver + ("?socket=" + folder.Path("no.sock"))));
    ASSERT_TRUE(hypervisor);
    EXPECT_FALSE(hypervisor->IsConnected());
    EXPECT_EQ(OutcomeName(hypervisor->List()), "disconnected");
    EXPECT_EQ(hypervisor->DomainType(), "qemu");
  }
}

TEST(HypervisorOpen, Open_LaterWithInvalidOptions_Fails) {
  const TemporaryFolder folder;
  EXPECT_EQ(OutcomeName(Hypervisor::Open(Later("test://" + folder.Path("no.xml")))), "invalid");
  {
    const test::FailingConnects unknown({VIR_ERR_NO_CONNECT, "no connection driver available"});
    EXPECT_EQ(OutcomeName(Hypervisor::Open(Later("test"))), "unsupported");
  }
  const test::FailingConnects denied({VIR_ERR_AUTH_FAILED, "authentication failed"});
  EXPECT_EQ(OutcomeName(Hypervisor::Open(Later("test"))), "denied");
}

TEST(HypervisorOpen, Open_Later_ConnectsInBackgroundAndNotifies) {
  test::GuestEvents events;
  HypervisorOptions options = Later("test:///default");
  events.Listen(options);
  std::unique_ptr<Hypervisor> hypervisor;
  {
    const test::FailingConnects unreachable({VIR_ERR_SYSTEM_ERROR, "Failed to connect socket", ENOENT, VIR_FROM_RPC});
    hypervisor = MustOpen(options);
    ASSERT_TRUE(hypervisor);
    while (test::ConnectAttempts() < 3) std::this_thread::sleep_for(milliseconds(5));
    EXPECT_FALSE(hypervisor->IsConnected());
    EXPECT_EQ(events.reopenings(), 0);
    EXPECT_EQ(hypervisor->DomainType(), "qemu");
  }
  ASSERT_TRUE(events.AwaitReopenings(1));
  EXPECT_TRUE(hypervisor->IsConnected());
  EXPECT_EQ(hypervisor->DomainType(), "test");
  EXPECT_EQ(hypervisor->List()->size(), 1u);
}

TEST(HypervisorOpen, Open_TestModeTwice_AreIndependent) {
  const auto first = MustOpen();
  const auto second = MustOpen();
  ASSERT_TRUE(first && second);
  EXPECT_THAT(*first->List(), IsEmpty());
  ASSERT_EQ(OutcomeName(first->Define(Xml())), "ok");
  EXPECT_EQ(first->List()->size(), 1u);
  EXPECT_THAT(*second->List(), IsEmpty());
  EXPECT_EQ(first->DomainType(), "test");
}

TEST(HypervisorOpen, Open_Uri_IsUsedUnchanged) {
  HypervisorOptions options;
  options.mode = "test:///default";
  const auto hypervisor = MustOpen(options);
  ASSERT_TRUE(hypervisor);
  EXPECT_EQ(hypervisor->DomainType(), "test");
  EXPECT_EQ((*hypervisor->List())[0].name, "test");  // the sample domain of this URI
}

TEST(HypervisorTestMode, GetNodeInfo_TestMode_IsThisMachine) {
  const auto hypervisor = MustOpen();
  ASSERT_TRUE(hypervisor);
  const Result<NodeInfo, Failure> node = hypervisor->GetNodeInfo();
  ASSERT_TRUE(node.ok());
  EXPECT_EQ(node->cpus, std::thread::hardware_concurrency());
  EXPECT_EQ(node->cores * node->threads_per_core, node->cpus);
  EXPECT_EQ(node->cpu_model, "x86_64");
}

TEST(KvmProbe, KvmWorks_NotADevice_IsFalse) {
  EXPECT_FALSE(KvmWorks("/dev/null"));
  EXPECT_FALSE(KvmWorks("/nowhere"));
  EXPECT_FALSE(KvmWorks(""));
}

TEST_F(TestMode, Networks_OfTheTestDriver_AreNamed) {
  const Result<std::vector<std::string>, Failure> networks = hypervisor_->Networks();
  ASSERT_TRUE(networks.ok());
  EXPECT_THAT(*networks, ElementsAre("default"));
}

TEST_F(TestMode, Networks_DriverWithoutNetworks_IsEmpty) {
  const test::FailingNetworks none({VIR_ERR_NO_SUPPORT, "this function is not supported"});
  const Result<std::vector<std::string>, Failure> networks = hypervisor_->Networks();
  ASSERT_TRUE(networks.ok());
  EXPECT_THAT(*networks, IsEmpty());
}

TEST_F(TestMode, Networks_CannotBeListed_Fails) {
  const test::FailingNetworks fault({VIR_ERR_INTERNAL_ERROR, "something"});
  EXPECT_THAT(OutcomeName(hypervisor_->Networks()), testing::StartsWith("failed: "));
}

// --- power

TEST_F(TestMode, ShutDown_RunningGuest_GoesOffAndIsReported) {
  Start();
  EXPECT_EQ(OutcomeName(hypervisor_->ShutDown(kGuest)), "ok");
  EXPECT_EQ(State(), GuestState::kOff);
  EXPECT_THAT(events_.Await(kGuest, 3), ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kOff));
  EXPECT_EQ(OutcomeName(hypervisor_->ShutDown(kGuest)), "not_running");
}

TEST_F(TestMode, ShutDown_GuestOffBeforeAnswer_Succeeds) {
  Start();
  const test::ShutDownsBeforeReply quick;
  EXPECT_EQ(OutcomeName(hypervisor_->ShutDown(kGuest)), "ok");
  EXPECT_EQ(State(), GuestState::kOff);
  EXPECT_EQ(OutcomeName(hypervisor_->ShutDown(kGuest)), "not_running");
}

TEST_F(TestMode, ShutDown_ButtonPressLost_IsNotRepeated) {
  Start();
  test::IgnoreButtonPresses(1000);
  EXPECT_EQ(OutcomeName(hypervisor_->ShutDown(kGuest)), "ok");
  EXPECT_EQ(test::ButtonPresses(), 1);
  EXPECT_EQ(State(), GuestState::kRunning);
}

TEST_F(TestMode, AddressesOf_GuestInAKnownNetwork_AreInvented) {
  Start();
  const Result<std::vector<std::string>, Failure> addresses = hypervisor_->AddressesOf(kGuest);
  ASSERT_TRUE(addresses.ok());
  EXPECT_THAT(*addresses, ElementsAre(testing::StartsWith("192.168.122.")));
}

TEST_F(TestMode, AddressesOf_GuestInUnknownNetwork_IsEmpty) {
  Open({}, Xml("nowhere"));
  Start();
  const Result<std::vector<std::string>, Failure> addresses = hypervisor_->AddressesOf(kGuest);
  ASSERT_TRUE(addresses.ok());
  EXPECT_THAT(*addresses, IsEmpty());
}

TEST_F(TestMode, InterfacesOf_GuestInLibvirtNetwork_AreOnItsBridge) {
  Start();
  const auto interfaces = hypervisor_->InterfacesOf(kGuest);
  ASSERT_TRUE(interfaces.ok()) << interfaces.error().ToString();
  ASSERT_EQ(interfaces->size(), 1U);
  const domain_xml::GuestInterface& interface = interfaces->front();
  EXPECT_EQ(interface.mac, "52:54:00:00:00:01");
  EXPECT_EQ(interface.attachment_kind, domain_xml::NicAttachment::kNetwork);
  EXPECT_EQ(interface.network, "default");
  EXPECT_EQ(interface.device, "virbr0");
  EXPECT_TRUE(interface.is_link_up);
}

TEST_F(TestMode, InterfacesOf_UnknownNetwork_HasNoDevice) {
  Open({}, Xml("nowhere"));
  Start();
  const auto interfaces = hypervisor_->InterfacesOf(kGuest);
  ASSERT_TRUE(interfaces.ok());
  ASSERT_EQ(interfaces->size(), 1U);
  EXPECT_EQ(interfaces->front().network, "nowhere");
}

TEST_F(TestMode, InterfacesOf_GuestOffOrUnknown_IsRefused) {
  EXPECT_EQ(OutcomeName(hypervisor_->InterfacesOf(kGuest)), "not_running");
  EXPECT_EQ(OutcomeName(hypervisor_->InterfacesOf("99999999-2222-4333-8444-555555555555")), "no_such_guest");
}

TEST_F(TestMode, HasAgent_ChannelConnected_IsTrue) {
  Start();
  const auto channel = [](const std::string& name, const std::string& state) {
    return "<domain><devices><channel type='unix'><target type='virtio' name='" + name + "' state='" + state +
           "'/></channel></devices></domain>";
  };
  test::FakeXml(channel("org.qemu.guest_agent.0", "connected"));
  EXPECT_TRUE(*hypervisor_->HasAgent(kGuest));
  test::FakeXml(channel("org.qemu.guest_agent.0", "disconnected"));
  EXPECT_FALSE(*hypervisor_->HasAgent(kGuest));
  test::FakeXml(channel("com.redhat.spice.0", "connected"));
  EXPECT_FALSE(*hypervisor_->HasAgent(kGuest));
}

TEST_F(TestMode, Start_InTestMode_NeedsNoMemory) {
  Open({}, Xml("default", 2'000'000));
  Start();
}

TEST(HypervisorMemory, Start_MoreThanTheHostHas_IsRefusedFirst) {
  HypervisorOptions options;
  options.mode = "test:///default";
  options.memory_check = MemoryCheck::kAlways;
  const auto hypervisor = MustOpen(options);
  ASSERT_TRUE(hypervisor);
  const std::uint64_t free_mib = *hypervisor->FreeMemory() >> 20;
  constexpr const char* kOther = "11111111-2222-4333-8444-666666666666";
  ASSERT_EQ(OutcomeName(hypervisor->Define(Xml("default", static_cast<int>(free_mib) + 1))), "ok");
  ASSERT_EQ(OutcomeName(hypervisor->Define(Xml("default", static_cast<int>(free_mib), kOther, "other"))), "ok");
  EXPECT_EQ(OutcomeName(hypervisor->Start(kGuest)), "no_memory");
  EXPECT_EQ(*hypervisor->StateOf(kGuest), GuestState::kOff);
  EXPECT_EQ(OutcomeName(hypervisor->Start(kOther)), "ok");
  EXPECT_EQ(OutcomeName(hypervisor->Start(kOther)), "already_running");
}

TEST_F(TestMode, Errors_AreNotPrinted) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(OutcomeName(hypervisor_->PowerOff(kGuest)), "not_running");
  EXPECT_EQ(OutcomeName(hypervisor_->Define("<domain")), "invalid");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

// --- libvirt's errors

struct StartRow {
  const char* name;
  test::LibvirtError error;
  FailureKind kind;
};
void PrintTo(const StartRow& row, std::ostream* out) { *out << row.name; }
class StartErrors : public TestMode, public ::testing::WithParamInterface<StartRow> {};

TEST_P(StartErrors, Start_LibvirtError_IsMappedToProblem) {
  {
    const test::FailingStarts fault(GetParam().error);
    const Result<void, Failure> started = hypervisor_->Start(kGuest);
    ASSERT_FALSE(started.ok());
    EXPECT_EQ(started.error().kind(), GetParam().kind);
    EXPECT_THAT(started.error().ToString(), HasSubstr(kGuest));
    EXPECT_THAT(started.error().ToString(), HasSubstr(GetParam().error.message));
    EXPECT_EQ(Status(started).error().code(), CodeOf(GetParam().kind));
  }
  EXPECT_EQ(State(), GuestState::kOff);
  Start();
}

INSTANTIATE_TEST_SUITE_P(
    Rows, StartErrors,
    testing::Values(
        StartRow{
            "AlreadyRunning", {VIR_ERR_OPERATION_INVALID, "domain is already running"}, FailureKind::kAlreadyRunning},
        StartRow{"AlreadyRunningInTestMode", {1, "Domain 'g' is already running"}, FailureKind::kAlreadyRunning},
        StartRow{"NetworkMissing", {VIR_ERR_NO_NETWORK, "no network with matching name"}, FailureKind::kNetworkMissing},
        StartRow{"NetworkInactive",
                 {VIR_ERR_OPERATION_INVALID, "network 'lab' is not active"},
                 FailureKind::kNetworkMissing},
        StartRow{"NetworkDaemonMissing",
                 {38, "Failed to connect socket to '/run/libvirt/virtnetworkd-sock'", ENOENT, VIR_FROM_RPC},
                 FailureKind::kNetworkMissing},
        StartRow{"BridgeMissing", {38, "Cannot get interface MTU on 'br7'", ENODEV}, FailureKind::kBridgeMissing},
        StartRow{"DiskMissing", {38, "Cannot access storage file '/x.qcow2'", ENOENT}, FailureKind::kDiskMissing},
        StartRow{"DiskDenied", {38, "Cannot access storage file '/x.qcow2'", EACCES}, FailureKind::kDenied},
        StartRow{"SystemError", {38, "Cannot do it", EIO}, FailureKind::kFailed},
        StartRow{"NoMemory", {1, "qemu: cannot set up guest memory: Cannot allocate memory"}, FailureKind::kNoMemory},
        StartRow{"CpuIncompatible", {91, "the CPU is incompatible with host CPU"}, FailureKind::kCpuIncompatible},
        StartRow{"CpuFeaturesMissing",
                 {VIR_ERR_OPERATION_FAILED, "guest CPU doesn't match its definition: missing features: vmx"},
                 FailureKind::kCpuIncompatible},
        StartRow{"CpuNotProvided",
                 {1, "unsupported: Host CPU does not provide required features: avx2"},
                 FailureKind::kCpuIncompatible},
        StartRow{"Busy", {VIR_ERR_OPERATION_TIMEOUT, "cannot acquire state change lock"}, FailureKind::kBusy},
        StartRow{"AgentAbsent", {VIR_ERR_AGENT_UNRESPONSIVE, "agent is not connected"}, FailureKind::kAgentAbsent},
        StartRow{"Denied", {VIR_ERR_OPERATION_DENIED, "read only"}, FailureKind::kDenied},
        StartRow{"Unsupported", {VIR_ERR_CONFIG_UNSUPPORTED, "no such machine"}, FailureKind::kInvalid},
        StartRow{"NoSupport", {VIR_ERR_NO_SUPPORT, "not implemented"}, FailureKind::kUnsupported},
        StartRow{"NoDomain", {VIR_ERR_NO_DOMAIN, "gone"}, FailureKind::kNoSuchGuest},
        StartRow{"Rpc", {38, "Cannot write data", EPIPE, VIR_FROM_RPC}, FailureKind::kDisconnected},
        StartRow{"Other", {1, "something else"}, FailureKind::kFailed}),
    [](const auto& row) { return std::string(row.param.name); });

TEST_F(TestMode, Start_MissingBridge_IsReportedWhateverLibvirtReturns) {
  const std::string xml = Xml();
  const auto on = [&](const std::string& bridge) {
    std::string text = xml;
    const std::string network = "<interface type='network'>";
    text.replace(text.find(network), network.size(), "<interface type='bridge'>");
    const std::string source = "<source network='default'/>";
    return text.replace(text.find(source), source.size(), "<source bridge='" + bridge + "'/>");
  };
  const test::FailingStarts fault({1, "failed to parse default acl file `/etc/qemu/bridge.conf'"});
  ASSERT_EQ(OutcomeName(hypervisor_->Define(on("vexa-none0"))), "ok");
  EXPECT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "bridge_missing");
  ASSERT_EQ(OutcomeName(hypervisor_->Define(on("lo"))), "ok");
  EXPECT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "denied");
}

TEST(ClassifyError, ClassifyError_SameCode_DependsOnOperation) {
  virError error{};
  error.code = VIR_ERR_OPERATION_INVALID;
  EXPECT_EQ(ClassifyError(Operation::kStart, error), FailureKind::kAlreadyRunning);
  EXPECT_EQ(ClassifyError(Operation::kUndefine, error), FailureKind::kAlreadyRunning);
  EXPECT_EQ(ClassifyError(Operation::kStop, error), FailureKind::kNotRunning);
  EXPECT_EQ(ClassifyError(Operation::kSuspend, error), FailureKind::kFailed);
  EXPECT_EQ(ClassifyError(Operation::kRead, error), FailureKind::kNotRunning);
  EXPECT_EQ(ClassifyError(Operation::kDefine, error), FailureKind::kFailed);
  error.code = VIR_ERR_OPERATION_FAILED;
  EXPECT_EQ(ClassifyError(Operation::kDefine, error), FailureKind::kExists);
  EXPECT_EQ(ClassifyError(Operation::kStop, error), FailureKind::kFailed);
  error.code = VIR_ERR_SYSTEM_ERROR;
  error.int1 = ENOENT;
  EXPECT_EQ(ClassifyError(Operation::kStart, error), FailureKind::kDiskMissing);
  EXPECT_EQ(ClassifyError(Operation::kStop, error), FailureKind::kFailed);
  EXPECT_EQ(ClassifyError(Operation::kOpen, error), FailureKind::kDisconnected);
  error.code = VIR_ERR_INTERNAL_ERROR;
  EXPECT_EQ(ClassifyError(Operation::kOpen, error), FailureKind::kFailed);
  error.domain = VIR_FROM_RPC;
  EXPECT_EQ(ClassifyError(Operation::kOpen, error), FailureKind::kDisconnected);
  error.code = VIR_ERR_SYSTEM_ERROR;
  error.int1 = EACCES;
  EXPECT_EQ(ClassifyError(Operation::kOpen, error), FailureKind::kDenied);
}

TEST(Problems, Problem_Each_HasAWordAndACode) {
  EXPECT_EQ(FailureKindName(FailureKind::kNotRunning), "not_running");
  EXPECT_EQ(CodeOf(FailureKind::kNoSuchGuest), ErrorCode::kNotFound);
  EXPECT_EQ(CodeOf(FailureKind::kNoMemory), ErrorCode::kNoSpace);
  EXPECT_EQ(CodeOf(FailureKind::kDisconnected), ErrorCode::kUnavailable);
}

// --- the connection

TEST_F(TestMode, Reconnect_ReopensAndNotifies) {
  Start();
  events_.Await(kGuest, 2);
  hypervisor_->Reconnect();
  ASSERT_TRUE(events_.AwaitReopenings(1));
  EXPECT_TRUE(hypervisor_->IsConnected());
  // The test driver has forgotten all guests; what is restored works and reports as before.
  EXPECT_THAT(*hypervisor_->List(), IsEmpty());
  ASSERT_EQ(OutcomeName(hypervisor_->Define(Xml())), "ok");
  Start();
  EXPECT_THAT(events_.Await(kGuest, 4),
              ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kOff, GuestState::kRunning));
}

TEST_F(TestMode, Connection_ClosedByLibvirt_IsReopened) {
  test::CloseLastConnection();
  ASSERT_TRUE(events_.AwaitReopenings(1));
  EXPECT_EQ(OutcomeName(hypervisor_->Define(Xml())), "ok");
  test::CloseLastConnection();
  ASSERT_TRUE(events_.AwaitReopenings(2));
}

TEST_F(TestMode, Calls_ConnectionDead_OpenAnother) {
  {
    const test::DeadConnections dead;
    EXPECT_EQ(OutcomeName(hypervisor_->PowerOff(kGuest)), "disconnected");
  }
  ASSERT_TRUE(events_.AwaitReopenings(1));
  EXPECT_EQ(OutcomeName(hypervisor_->StateOf(kGuest)), "no_such_guest");
}

TEST_F(TestMode, SavedGuest_Restored_Runs) {
  EXPECT_EQ(OutcomeName(hypervisor_->Save(kGuest)), "not_running");
  EXPECT_EQ(OutcomeName(hypervisor_->Resume(kGuest)), "not_running");
  EXPECT_EQ(OutcomeName(hypervisor_->SavedXmlOf(kGuest)), "unsupported") << "the test driver keeps none";
  Start();
  ASSERT_TRUE(test::PauseAsUser(kGuest));
  EXPECT_EQ(OutcomeName(hypervisor_->Resume(kGuest)), "ok");
  EXPECT_EQ(State(), GuestState::kRunning);
  EXPECT_EQ(OutcomeName(hypervisor_->Resume(kGuest)), "ok") << "it runs already";
  EXPECT_EQ(OutcomeName(hypervisor_->Save(kGuest)), "ok");
  EXPECT_EQ(State(), GuestState::kSaved);
  EXPECT_EQ(OutcomeName(hypervisor_->Restore(kGuest)), "ok") << "the test driver cannot start it paused";
  EXPECT_EQ(State(), GuestState::kRunning);
  EXPECT_EQ(OutcomeName(hypervisor_->Restore(kGuest)), "already_running");
}

TEST_F(TestMode, Calls_Disconnected_FailImmediately) {
  HypervisorOptions options;
  options.initial_retry_wait = std::chrono::hours(1);
  options.max_retry_wait = std::chrono::hours(1);
  Open(options);
  hypervisor_->Reconnect();
  EXPECT_FALSE(hypervisor_->IsConnected());
  EXPECT_EQ(OutcomeName(hypervisor_->Define(Xml())), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->Undefine(kGuest, UndefineScope::kDefinition)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->Start(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->Restore(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->Resume(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->Save(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->SavedXmlOf(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->ShutDown(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->PowerOff(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->Reboot(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->StateOf(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->List()), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->AddressesOf(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->HasAgent(kGuest)), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->Networks()), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->FreeMemory()), "disconnected");
  EXPECT_EQ(OutcomeName(hypervisor_->GetNodeInfo()), "disconnected");
  // Its end does not wait for the hour.
  hypervisor_.reset();
}

TEST_F(TestMode, Reopen_Fails_IsRetried) {
  const TemporaryFolder folder;
  const std::string file = folder.Path("node.xml");
  ASSERT_TRUE(WriteFileAtomically(file, TestNodeXml(), 0600).ok());
  HypervisorOptions options;
  options.mode = "test://" + file;
  options.initial_retry_wait = milliseconds(5);
  options.max_retry_wait = milliseconds(20);
  Open(options);
  ASSERT_EQ(unlink(file.c_str()), 0);
  hypervisor_->Reconnect();
  std::this_thread::sleep_for(milliseconds(100));  // some tries
  EXPECT_FALSE(hypervisor_->IsConnected());
  EXPECT_EQ(events_.reopenings(), 0);
  ASSERT_TRUE(WriteFileAtomically(file, TestNodeXml(), 0600).ok());
  ASSERT_TRUE(events_.AwaitReopenings(1));
  EXPECT_TRUE(hypervisor_->IsConnected());
  EXPECT_THAT(*hypervisor_->List(), IsEmpty());
}

TEST_F(TestMode, Reconnect_DuringCalls_BreaksNothing) {
  HypervisorOptions options;
  options.initial_retry_wait = milliseconds(1);
  Open(options);
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        hypervisor_->Define(Xml()).ok();
        EXPECT_THAT(OutcomeName(hypervisor_->Start(kGuest)),
                    testing::AnyOf("ok", "already_running", "no_such_guest", "disconnected"));
        EXPECT_THAT(OutcomeName(hypervisor_->PowerOff(kGuest)),
                    testing::AnyOf("ok", "not_running", "no_such_guest", "disconnected"));
      }
    });
  }
  for (int i = 1; i <= 10; ++i) {
    hypervisor_->Reconnect();
    EXPECT_TRUE(events_.AwaitReopenings(i));
  }
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace vexa::hypervisor
